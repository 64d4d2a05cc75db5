#!/usr/bin/env bash
# The trace of a program without exported symbols: every frame has its module
# offset, its three functions are named, and `vrkexc symbolize` gives the
# frames the same names from the offsets alone, leaving the other lines as
# they are; a broken binary names nothing and breaks nothing.
# usage: trace_check.sh path/to/trace_program path/to/vrkexc
set -uo pipefail
prog=$1 exe=$2
fail() { echo "FAIL: $1"; echo "$trace"; exit 1; }
# Started under another name, as a link or a launcher may start it: its
# frames still name its file.
trace=$(exec -a renamed "$prog") || fail "the program failed"
frames=$(grep -E '^#[0-9]+ ' <<<"$trace")
[ "$(wc -l <<<"$frames")" -ge 4 ] || fail "too few frames"
grep -vqE ' \([^ ()]+\+0x[0-9a-f]+\)( at .*)?$' <<<"$frames" && fail "a frame without module offset"
for f in 'trace_external()' 'trace_static()' '(anonymous namespace)::trace_in_anonymous()'; do
  grep -qF " $f+0x" <<<"$frames" || fail "$f not named"
done
# Only address and module offset left, behind a log prefix that holds a '#',
# then named again from the binary.
bare=$(sed -E 's/^(#[0-9]+ +0x[0-9a-f]+) .*(\([^ ()]+\+0x[0-9a-f]+\)).*$/\1 \2/; s/^/[conn #7] /' <<<"$trace")
again=$("$exe" symbolize -e "$prog" <<<"$bare") || fail "symbolize failed"
[ "$again" = "$(sed 's/^/[conn #7] /' <<<"$trace")" ] ||
  { echo "--- symbolized"; echo "$again"; fail "symbolize named differently"; }
# A module whose name holds '+', found among the tool's own libraries; a CR
# LF line stays CR LF.
lib=$(ldd "$exe" | awk '/libstdc\+\+/ {print $3}')
at=$(nm -D --defined-only "$lib" | awk '$3 ~ /^__cxa_throw@/ {print $1}')
line=$(printf '#0  0x00007f0000000005 (libstdc++.so.6+0x%x)\r' $((0x$at + 5)))
again=$("$exe" symbolize <<<"$line")
[[ $again == "#0  0x00007f0000000005 __cxa_throw+0x5 (libstdc++.so.6+0x"*$'\r' ]] ||
  fail "libstdc++ frame: $again"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
name=$(basename "$prog")
for size in 0 63 64 2000 $(( $(stat -c %s "$prog") - 100 )); do
  head -c "$size" "$prog" > "$tmp/$name"
  again=$("$exe" symbolize -e "$tmp/$name" <<<"$bare") || fail "symbolize failed on $size bytes"
  grep -q 'trace_static' <<<"$again" && fail "named from $size bytes"
done
echo "trace: all checks passed"
