#!/usr/bin/env bash
# Memcheck over the main test binary and the tool's demo: reads of
# uninitialised bytes, accesses outside a block and leaks that the sanitizer
# builds do not see (the test allocators sit on the C heap, so a block a test
# forgot shows up here too).
#
# Usage: tests/scripts/valgrind.sh [build-dir]   (default: build/dev)
# The build dir must be configured; the script builds vrk_tests in it.
#
# Left out, with --gtest_filter:
#   Itoa.MatchesToCharsForEveryType: a pure arithmetic comparison with the
#   standard conversions over millions of values, nothing allocated; about
#   90 s under memcheck with nothing there for memcheck to find.
# Death tests stay in: their children abort on purpose and are not checked
# (--child-silent-after-fork).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build/dev}

# Root on Debian installs it; elsewhere the install fails and says why.
command -v valgrind >/dev/null 2>&1 || { apt-get update -qq && apt-get install -y -qq valgrind; } >/dev/null

cmake --build "$build" -j2 --target vrk_tests vrkexc
filter='-Itoa.MatchesToCharsForEveryType*'
valgrind --error-exitcode=1 --leak-check=full --show-leak-kinds=definite,indirect,possible \
  --errors-for-leak-kinds=definite,indirect,possible --child-silent-after-fork=yes -q \
  "$build/tests/vrk_tests" --gtest_filter="$filter"
# The tests' allocators fill their blocks; the tool's demo runs on the plain
# C heap, where a read of a fresh block's bytes shows. libdw keeps its tables
# for the process: only definite leaks count there.
valgrind --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite,indirect -q \
  "$build/tools/vrkexc/vrkexc" demo >/dev/null
