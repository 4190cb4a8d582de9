#!/bin/sh
# The release as an administrator gets it: builds the package (cmake --preset release), checks
# that the archive holds the three binaries, the example trace.ini and the README and nothing else,
# that the binaries are stripped and their symbols are in the second archive, and that SHA256SUMS
# matches; then unpacks it into an empty folder (X:\Program Files\Morvane\DURN, as on the medium)
# and runs keflhost from there in a Wine prefix of its own, without the build tree: every version it reports (the version resources of all three
# binaries, the library's own, its trace's banner) is `git describe`'s, and it lists the sample
# backup. Wine lacks a network provider and volume paths, so the test build's keflwine.dll stands
# in for them from outside the unpacked folder (KEFL_WINE_STAND_INS), as the Windows it lacks would.
set -eu
export LC_ALL=C
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
fail() { echo "release check: $*"; exit 1; }

version=$(git describe --tags --dirty --always)
package=build/release/package
archive="$package/KEFL-$version-win64.zip"
symbols="$package/KEFL-$version-win64-symbols.zip"
[ -f "$archive" ] || fail "no $archive"
[ -f "$symbols" ] || fail "no $symbols"
(cd "$package" && sha256sum --quiet -c SHA256SUMS) || fail "SHA256SUMS does not match the archives"

check=$(mktemp -d)
trap 'WINEPREFIX="$check/prefix" /usr/lib/wine/wineserver -k 2>/dev/null || true; rm -rf "$check"' EXIT
# The empty folder is the recovery host's own, as the medium has it: X:\Program Files\Morvane\DURN.
media="$check/x/Program Files/Morvane/DURN"
mkdir -p "$media" "$check/symbols"
(cd "$media" && cmake -E tar xf "$OLDPWD/$archive")
(cd "$check/symbols" && cmake -E tar xf "$OLDPWD/$symbols")
[ "$(cd "$media" && ls | sort | tr '\n' ' ')" = "KEFL.dll README.txt keflhost.exe keflrestore.exe trace.ini " ] ||
    fail "the archive holds $(ls "$media" | tr '\n' ' ')"
[ "$(cd "$check/symbols" && ls | sort | tr '\n' ' ')" = "KEFL.dll.debug keflhost.exe.debug keflrestore.exe.debug " ] ||
    fail "the symbols archive holds $(ls "$check/symbols" | tr '\n' ' ')"
for binary in KEFL.dll keflhost.exe keflrestore.exe; do
    sections=$(x86_64-w64-mingw32-objdump -h "$media/$binary")
    echo "$sections" | grep -q '\.debug_info' && fail "$binary is not stripped"
    echo "$sections" | grep -q '\.gnu_debuglink' || fail "$binary names no debug file"
    x86_64-w64-mingw32-objdump -h "$check/symbols/$binary.debug" | grep -q '\.debug_info' ||
        fail "$binary.debug holds no debug information"
done
grep -q "KEFL_CheckpointSeconds" "$media/trace.ini" || fail "trace.ini lacks the checkpoint keys"

# A Wine prefix of the check's own: Z: is / in it.
export WINEPREFIX="$check/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" PATH="/usr/lib/wine:$PATH"
wineboot -i >/dev/null 2>&1
ln -s "$check/x" "$WINEPREFIX/dosdevices/x:"
winpath() { printf 'Z:%s\n' "$1" | tr / '\\'; }
keflhost() { (cd "$media" && wine64 keflhost.exe "$@"); }

versions=$(keflhost --version | tr -d '\r')
echo "$versions"
[ "$(echo "$versions" | grep -c " $version\$")" -eq 3 ] || fail "the binaries' versions are not $version"

scripts/make-sample-backup.sh "$check/backup" "$check/backup.ini" >/dev/null
export KEFL_WINE_STAND_INS="$(winpath "$PWD/build/release/env/x/Program Files/Morvane/DURN/keflwine.dll")"
listed=$(keflhost --location "$(winpath "$check/backup")" --list | tr -d '\r') || fail "keflhost --list failed: $listed"
printf '%s\n' "$listed"
printf '%s\n' "$listed" | grep -q "^Version:       1.0.0 (build $version)\$" || fail "the library's version is not $version"
printf '%s\n' "$listed" | grep -q "^  E:   E:" || fail "the sample backup's E: was not listed"
grep -aq "\*\* KEFL.DLL 1.0.0 (build $version) \*\*" "$media/Logfiles/KEFL_trace.log" ||
    fail "the trace's banner does not name $version"
echo "release check: KEFL-$version-win64.zip works from an empty folder"
