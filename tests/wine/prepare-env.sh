#!/bin/sh
# Makes (once) and starts the Wine prefix in which the tests and the host run: a recovery system
# as the host sees it. Windows 5.2 with the MiniNT key (a pre-installation environment), and the
# drive letters of a recovery:
#   X:  the host's installation ("X:\Program Files\Morvane\DURN")
#   Z:  the host's configuration ("Z:\DURN")
#   R:  a backup drive
#   E:, F:  restore targets
# Letters get their volume names only when they exist before the Wine server starts, so the server
# is restarted here, and then warmed: Wine's background services must be started by us, with
# nothing of ours on their standard handles, and not by the first test.
# Usage: prepare-env.sh PREFIX ENV_DIR
set -eu
prefix=$1
envdir=$2
export WINEPREFIX="$prefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
export PATH="/usr/lib/wine:$PATH"

# Wine's server and services outlive this script: they must not inherit any descriptor of ours
# (a build tool's or test runner's output pipe, the lock below), or whoever reads that pipe waits
# for them.
quiet() { perl -e 'use POSIX (); POSIX::close($_) for 3 .. 1023; exec @ARGV or exit 127' "$@" </dev/null >/dev/null 2>&1; }

mkdir -p "$envdir/x/Program Files/Morvane/DURN" "$envdir/z/DURN/Logfiles" "$envdir/r" "$envdir/e" "$envdir/f"
mkdir -p "$(dirname "$prefix")"

# One preparation at a time (a build and a test run may both ask for it).
exec 9>"$prefix.lock"
flock 9

if [ ! -f "$prefix/system.reg" ]; then
    echo "Creating the Wine prefix $prefix (once)"
    quiet wineboot -i
    quiet wine64 winecfg /v win2003
    quiet wine64 reg add 'HKLM\SYSTEM\CurrentControlSet\Control\MiniNT' /f
fi

quiet wineserver -k || true
quiet wineserver -w || true
for letter in x z r e f; do
    link="$prefix/dosdevices/$letter:"
    if [ "$(readlink "$link" 2>/dev/null)" != "$envdir/$letter" ]; then
        rm -f "$link"
        ln -s "$envdir/$letter" "$link"
    fi
done

# Persistent for ten idle minutes: a test run right after the build starts warm. A server still
# going down refuses the persistent start, and a first start can fail while one goes down: then the
# server is ended and started once more, and a second failure says which prefix would not start.
warm() { quiet wineserver -p 600 || true; quiet wine64 cmd /c exit; }
if ! warm; then
    quiet wineserver -k || true
    quiet wineserver -w || true
    warm || { echo "Wine did not start in the prefix $prefix" >&2; exit 1; }
fi
