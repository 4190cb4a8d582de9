#!/bin/sh
# Sets up a fresh Debian 12 machine, builds KEFL.dll and our command-line host, and runs the host
# under Wine in the build's recovery environment, the way the recovery host drives the library.
# Arguments are passed to the host (see: scripts/main-job.sh --help).
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset wine >/dev/null
cmake --build --preset wine
build/wine/run-in-wine.sh "$PWD/build/wine/env/x/Program Files/Morvane/DURN/keflhost.exe" "$@"
