#!/bin/sh
# keflhost on a terminal, as an administrator watches it: the library's Init makes a console of its
# own in the restore process, and every line after it still reaches the screen, the progress bar
# among them; and Ctrl+C typed there stops the restore, and keflhost still reports. A Windows
# program cannot read a Wine console's screen back, so the terminal is a pseudo-terminal of
# script(1), whose record is read here and whose input carries the Ctrl+C. script runs its
# command with $SHELL -c; the command execs keflhost, so that no shell (dash, where SHELL is
# /bin/sh) waits in the terminal's process group and dies of the Ctrl+C's SIGINT with 130.
# Usage: host-on-terminal.sh SOURCE_DIR ENV_DIR RUN_IN_WINE
set -eu
src=$1
env=$2
run=$3
backup="$env/r/TermSample"
"$src/scripts/make-sample-backup.sh" "$backup" "$env/r/TermSample.ini"
rm -rf "$env/e/"*
screen=$(mktemp)
trap 'rm -rf "$screen" "$backup" "$env/r/TermSample.ini" "$env/r/TermMany" "$env/e/"* "$env/f/"*' EXIT
script -qfec "exec '$run' '$env/x/Program Files/Morvane/DURN/keflhost.exe' --location 'R:\\TermSample' --restore E" \
    "$screen" >/dev/null </dev/null
for said in 'Filespaces:' '[info] Successfully restored drive letter E:' '[####################] 100%' \
    'E:  6 of 6 files and 6 of 6 folders came back'; do
    grep -qF "$said" "$screen" || { echo "not on the screen: $said"; cat -v "$screen"; exit 1; }
done
echo "every line after the library's Init reached the terminal"

# Ctrl+C while a drive of 3,000 files is restored: typed once the restore has begun.
many="$env/r/TermMany"
mkdir -p "$many/F/ZOVACFG" "$many/#"
printf '[WinDir]\r\nDriveLetter=F\r\nPhysicalDrive=0\r\nDirectory=F:\\Windows\r\nBootDriveLetter=F\r\n' >"$many/#/disrec.ini"
: >"$many/#/HPoint.dat"
for folder in 0 1 2 3 4 5 6 7 8 9; do
    mkdir -p "$many/F/d$folder"
    for file in $(seq 1 300); do echo "$folder $file" >"$many/F/d$folder/f$file.txt"; done
done
rm -rf "$env/f/"*
: >"$screen"
status=0
{
    until grep -q "Counting objects" "$screen"; do sleep 0.1; done
    printf '\003'
    # The terminal's input stays open until keflhost has ended (at most 20 s).
    for _ in $(seq 1 100); do grep -q "Script done" "$screen" && break; sleep 0.2; done
} | script -qfec "exec '$run' '$env/x/Program Files/Morvane/DURN/keflhost.exe' --location 'R:\\TermMany'" "$screen" \
    >/dev/null || status=$?
grep -qF "stopped by the user" "$screen" || { echo "Ctrl+C did not stop the restore"; cat -v "$screen"; exit 1; }
[ "$status" -eq 18 ] || { echo "Ctrl+C: exit status $status, not 18 (cut short, files not restored)"; exit 1; }
echo "Ctrl+C stopped the restore, and keflhost said so"

# Two Ctrl+C during --resume --verify: no restore process is left, and the run's setting
# (KEFL_SkipUnchanged=1, in the restore process's environment) is left in no trace.ini.
settings() { cat "$env/z/DURN/trace.ini" "$env/x/Program Files/Morvane/DURN/trace.ini" 2>/dev/null || true; }
before=$(settings)
status=0
rm -rf "$env/f/"*
: >"$screen"
{
    until grep -q "Counting objects" "$screen"; do sleep 0.1; done
    printf '\003'; sleep 0.05; printf '\003'
    for _ in $(seq 1 100); do grep -q "Script done" "$screen" && break; sleep 0.2; done
} | script -qfec "exec '$run' '$env/x/Program Files/Morvane/DURN/keflhost.exe' --location 'R:\\TermMany' --resume --verify" \
    "$screen" >/dev/null || status=$?
# The second ends keflhost at once (16) unless the first had ended the run already (18).
[ "$status" -eq 16 ] || [ "$status" -eq 18 ] || { echo "two Ctrl+C: exit status $status"; cat -v "$screen"; exit 1; }
# A process that has ended but is not yet reaped (Z) is gone as Windows sees it.
alive=$(ps -eo stat=,args= | awk '$1 !~ /^Z/ && /keflrestore\.exe/ && !/awk/')
[ -z "$alive" ] || { echo "a restore process outlived keflhost: $alive"; exit 1; }
[ "$(settings)" = "$before" ] || { echo "trace.ini changed: $(settings)"; exit 1; }
echo "two Ctrl+C during --resume --verify left no restore process and trace.ini as it was"
