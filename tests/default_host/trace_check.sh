#!/usr/bin/env bash
# The trace of a program without exported symbols: every frame has its module
# offset, its three functions are named, and `vrkexc symbolize` gives the
# frames the same names from the offsets alone.
# usage: trace_check.sh path/to/trace_program path/to/vrkexc
set -uo pipefail
prog=$1 exe=$2
fail() { echo "FAIL: $1"; echo "$trace"; exit 1; }
trace=$("$prog") || fail "the program failed"
frames=$(grep -E '^#[0-9]+ ' <<<"$trace")
[ "$(wc -l <<<"$frames")" -ge 4 ] || fail "too few frames"
grep -vqE ' \([^ ()]+\+0x[0-9a-f]+\)( at .*)?$' <<<"$frames" && fail "a frame without module offset"
for f in 'trace_external()' 'trace_static()' '(anonymous namespace)::trace_in_anonymous()'; do
  grep -qF " $f+0x" <<<"$frames" || fail "$f not named"
done
# Only address and module offset left, then named again from the binary.
bare=$(sed -E 's/^(#[0-9]+ +0x[0-9a-f]+) .*(\([^ ()]+\+0x[0-9a-f]+\)).*$/\1 \2/' <<<"$frames")
again=$("$exe" symbolize -e "$prog" <<<"$bare") || fail "symbolize failed"
[ "$again" = "$frames" ] || { echo "--- symbolized"; echo "$again"; fail "symbolize named differently"; }
echo "trace: all checks passed"
