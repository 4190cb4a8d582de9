#!/bin/sh
# Installs what building and testing KEFL.dll needs on Debian 12, if anything is missing:
# the mingw-w64 cross compiler, Wine, CMake, Ninja, GoogleTest's sources and the JSON library
# (header-only) that our host writes its report with; and the second opinions: clang-14 with
# LLVM's linker, clang-tidy.
set -eu
packages="g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 wine wine64 cmake ninja-build googletest nlohmann-json3-dev perl clang-14 lld-14 clang-tidy-14"
missing=""
for package in $packages; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing="$missing $package"
done
[ -z "$missing" ] && exit 0

echo "Installing:$missing"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update
# shellcheck disable=SC2086
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends $missing
