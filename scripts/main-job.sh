#!/bin/sh
# Sets up a fresh Debian 12 machine, builds KEFL.dll and our command-line host, and runs the main
# job: a whole restore of a sample backup (drives E: and F:) through the library, driven by the
# host under Wine in the build's recovery environment; the restored files are then compared with
# the backup. With arguments, the host runs with those instead (see --help).
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset wine >/dev/null
cmake --build --preset wine
env=build/wine/env
host="$PWD/$env/x/Program Files/Morvane/DURN/keflhost.exe"
if [ $# -gt 0 ]; then
    exec build/wine/run-in-wine.sh "$host" "$@"
fi

scripts/make-sample-backup.sh "$env/r/Sample"
rm -rf "$env/e/"* "$env/f/"*
status=0
build/wine/run-in-wine.sh "$host" --location 'R:\Sample' || status=$?
[ "$status" -eq 0 ] || { echo "main job: the host ended with status $status"; exit "$status"; }

# Everything but what a restore leaves out on purpose must have arrived byte for byte.
for drive in E F; do
    target=$env/$(echo "$drive" | tr 'EF' 'ef')
    diff -r -x 'pagefile.sys' -x '$Recycle.Bin' -x 'System Volume Information' \
        "$env/r/Sample/$drive" "$target" || { echo "main job: $drive: differs from the backup"; exit 1; }
done
echo "main job: sample backup restored onto E: and F: and verified"
