#!/bin/sh
# keflhost on a terminal, as an administrator watches it: the library's Init makes a console of its
# own in the restore process, and every line after it still reaches the screen, the progress bar
# among them. A Windows program cannot read a Wine console's screen back, so the terminal is a
# pseudo-terminal of script(1), whose record is read here.
# Usage: host-on-terminal.sh SOURCE_DIR ENV_DIR RUN_IN_WINE
set -eu
src=$1
env=$2
run=$3
backup="$env/r/TermSample"
"$src/scripts/make-sample-backup.sh" "$backup" "$env/r/TermSample.ini"
rm -rf "$env/e/"*
screen=$(mktemp)
trap 'rm -rf "$screen" "$backup" "$env/r/TermSample.ini" "$env/e/"*' EXIT
script -qfec "'$run' '$env/x/Program Files/Morvane/DURN/keflhost.exe' --location 'R:\\TermSample' --restore E" \
    "$screen" >/dev/null </dev/null
for said in 'Filespaces:' '[info] Successfully restored drive letter E:' '[####################] 100%' \
    'E:  6 of 6 files and 6 of 6 folders came back'; do
    grep -qF "$said" "$screen" || { echo "not on the screen: $said"; cat -v "$screen"; exit 1; }
done
echo "every line after the library's Init reached the terminal"
