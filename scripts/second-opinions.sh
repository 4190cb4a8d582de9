#!/bin/sh
# A second compiler and a static analyzer over every change: Debian's clang builds the library,
# the host and the tests again with -Wall -Wextra -Werror, and clang-tidy reads the product code
# (everything but tests/ and bench/) with the checks that .clang-tidy names. The tests themselves
# run once, in the gcc build (scripts/test.sh).
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset clang >/dev/null
cmake --build --preset clang
# shellcheck disable=SC2046
run-clang-tidy-14 -p build/clang -j "$(nproc)" -quiet $(git ls-files '*.cpp' ':!tests/**' ':!bench/**')
echo "second opinions: clang builds everything without a warning, clang-tidy finds nothing"
