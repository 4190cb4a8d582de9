#!/bin/sh
# Fails when a source file includes a header of a folder that floors.txt does not let its folder
# include: includes run one way, down. Folders the table does not name (tests, bench) may include
# anything. Usage: check-floors.sh [SOURCE_DIR]
set -eu
cd "${1:-$(dirname "$0")/..}"
table=floors.txt
floors=$(grep -v '^#' "$table" | awk 'NF { print $1 }')
status=0
for folder in $floors; do
    allowed=" $folder $(awk -v f="$folder" '$1 == f { for (i = 2; i <= NF; i++) print $i }' "$table" | tr '\n' ' ')"
    for file in $(find "$folder" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.rc' -o -name '*.in' \)); do
        for used in $(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([A-Za-z0-9_]*\)\/.*/\1/p' "$file" | sort -u); do
            case "$allowed" in
            *" $used "*) ;;
            *)
                echo "$file includes $used/, which $folder may not include ($table)"
                status=1
                ;;
            esac
        done
    done
done
[ "$status" -eq 0 ] && echo "every include runs down ($(echo $floors | wc -w) floors)"
exit "$status"
