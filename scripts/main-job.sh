#!/bin/sh
# Sets up a fresh Debian 12 machine, builds KEFL.dll and our command-line host, and runs the main
# job: a whole restore of a sample backup through the library, driven by the host under Wine in
# the build's recovery environment with the host's whole sequence (callbacks, credentials from an
# answer file, Init, GetFilespaceList, RestoreFilespace for each, RestoreLinks, Fini). The restored
# tree is then checked against the backup. With arguments, the host runs with those instead (see
# --help).
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

scripts/make-sample-backup.sh "$env/r/Sample" "$env/r/Sample.ini"
# The recovered disks, freshly prepared: empty, with the data volume's mount folder made.
rm -rf "$env/e/"* "$env/f/"*
mkdir -p "$env/f/Mount/Data"
log=build/wine/main-job.log
status=0
build/wine/run-in-wine.sh "$host" --answer-file 'R:\Sample.ini' --verify --report 'R:\Sample-report.json' | tee "$log" || status=$?
[ "$status" -eq 0 ] || { echo "main job: the host ended with status $status"; exit "$status"; }

failed=0
check() { if eval "$2"; then echo "  ok    $1"; else echo "  FAIL  $1"; failed=1; fi; }
echo "main job: checking the restored tree against the backup"
# Left out on purpose: the recycle bins, System Volume Information and the page file; the
# junction's folder is made by the restore and is not in the backup. System Volume Information
# holds each volume's restore checkpoint.
check "E: holds every file of the backup's E, byte for byte" \
    "diff -r -x pagefile.sys -x '\$Recycle.Bin' -x 'System Volume Information' -x 'Documents and Settings' \
        '$env/r/Sample/E' '$env/e' >/dev/null"
check "F: holds every file of the backup's F, byte for byte" \
    "diff -r -x 'System Volume Information' '$env/r/Sample/F' '$env/f' >/dev/null"
check "the page file and the recycle bin stayed out" "[ ! -e '$env/e/pagefile.sys' ] && [ ! -e '$env/e/\$Recycle.Bin' ]"
# Each file and folder that the restore brings back, with its last-write time.
stamps() {
    (cd "$1" && find . -mindepth 1 \( -name '$Recycle.Bin' -o -name 'System Volume Information' -o \
        -name pagefile.sys -o -name 'Documents and Settings' \) -prune -o -printf '%p %TY-%Tm-%Td %TT\n' | sort)
}
check "every file and folder has its time of the backup" \
    "[ \"\$(stamps '$env/r/Sample/E')\" = \"\$(stamps '$env/e')\" ] && [ \"\$(stamps '$env/r/Sample/F')\" = \"\$(stamps '$env/f')\" ]"
check "the mount point's files arrived in F:\\Mount\\Data" "[ -f '$env/f/Mount/Data/Archive/2015.txt' ]"
check "notepad.exe's two names are one file (2 links)" \
    "[ \"\$(stat -c %h '$env/e/Windows/notepad.exe')\" = 2 ] && [ '$env/e/Windows/notepad.exe' -ef '$env/e/Windows/System32/notepad.exe' ]"
check "the junction and the symbolic link were recorded, and not claimed as made" \
    "grep -q 'recorded, not made (Wine cannot): junction E:\\\\Documents and Settings -> E:\\\\Users' '$log' && \
     grep -q 'recorded, not made (Wine cannot): symbolic link F:\\\\Data\\\\latest -> F:\\\\Data\\\\Photos' '$log' && \
     [ ! -L '$env/f/Data/latest' ]"
[ "$failed" -eq 0 ] || { echo "main job: the restore does not match the backup"; exit 1; }
echo "main job: the sample backup was restored onto E: and F: and matches it"
