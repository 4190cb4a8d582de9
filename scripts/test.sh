#!/bin/sh
# Sets up a fresh Debian 12 machine and runs every test: configure, build and test with the
# "wine" workflow preset (KEFL.dll and the tests built with mingw-w64, run under Wine).
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --workflow --preset wine
