#!/usr/bin/env bash
# Runs vrkexc as a user does: encode | decode in raw and hexadecimal form,
# bad input, usage errors, and the demo.
# usage: test_vrkexc.sh path/to/vrkexc
set -uo pipefail
exe=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
check() { # name, expected, actual
  if [ "$2" != "$3" ]; then
    echo "FAIL: $1"; echo "--- expected"; echo "$2"; echo "--- got"; echo "$3"; failures=$((failures + 1))
  fi
}

encode_args=(--error 42 --file net/client.cpp --line 7 --message 'Cannot reach $HOST$ on port $PORT$'
  --arg HOST=db1 --arg PORT=5432 --error 43 --line 9 --message 'Login failed'
  --append --error 11 --file io.cpp --line -1 --message 'Timed out after $MS$ ms' --arg MS=250)

long_expected='exception  1: no.42  (net/client.cpp:7)
    Cannot reach db1 on port 5432
exception  1: no.43  (net/client.cpp:9)
    Login failed
NO exception throw location recorded. Stack generation suppressed.
exception  2: no.11  (io.cpp:-1)
    Timed out after 250 ms
NO exception throw location recorded. Stack generation suppressed.'
short_expected='exception 42: Cannot reach db1 on port 5432
exception 43: Login failed
exception 11: Timed out after 250 ms'

check "raw round trip" "$long_expected" "$("$exe" encode "${encode_args[@]}" | "$exe" decode)"
check "short form, no stack" "$short_expected" \
  "$("$exe" encode "${encode_args[@]}" | "$exe" decode --short --no-stack)"

# Hex as pasted from a log: line breaks, indentation, lower case; two
# exceptions one after the other.
"$exe" encode --hex -o "$tmp/one.hex" "${encode_args[@]}" || { echo "FAIL: encode -o"; failures=$((failures + 1)); }
{ sed 's/^/    /' "$tmp/one.hex" | tr 'A-F' 'a-f'; echo; cat "$tmp/one.hex"; } > "$tmp/two.hex"
check "hex, two exceptions" "$short_expected
$short_expected" "$("$exe" decode --short --no-stack "$tmp/two.hex")"

# The bytes of the smallest exception, to the byte.
check "exact bytes" "FA CE 00 00 FA CA DE 01 AD DD EE D2 00 00 00 07
00 00 00 04 00 00 00 2A 00 00 00 05 61 2E 73 72
63 00 00 00 04 62 6F 6F 6D 00 00 00 00 AD DE DC
AB" "$("$exe" encode --hex --no-stack --error 7 --file a.src --line 42 --message boom)"

# Bad input: a clear message and exit status 1.
printf 'FA CE 00 00 FA CA DE 01 00 00 00 00\n' > "$tmp/bad.hex"
out=$("$exe" decode "$tmp/bad.hex" 2>&1); rc=$?
check "bad pattern status" 1 "$rc"
check "bad pattern text" 'vrkexc decode: exception 1 (at byte 0) is not valid:
exception 1001: Runtime error
exception 1001: Exception deserialization. Bad data pattern: 0, expected: 2917002962' "$out"
out=$(printf 'FA CE zz' | "$exe" decode 2>&1); rc=$?
check "bad hex" "1 vrkexc decode: bad hexadecimal text at offset 6" "$rc $out"
"$exe" encode --error 1 --message x | head -c 20 > "$tmp/cut.bin"
"$exe" decode "$tmp/cut.bin" > /dev/null 2>&1; check "truncated status" 1 $?
"$exe" decode "$tmp/missing" > /dev/null 2>&1; check "missing file status" 1 $?
printf '' | "$exe" decode > /dev/null 2>&1; check "empty input status" 1 $?

# Usage errors: status 2; help: status 0.
"$exe" encode --arg X=1 > /dev/null 2>&1; check "arg before message" 2 $?
"$exe" encode > /dev/null 2>&1; check "nothing to encode" 2 $?
"$exe" bogus > /dev/null 2>&1; check "unknown command" 2 $?
for cmd in decode encode symbolize demo; do
  "$exe" "$cmd" --help | grep -q "usage: vrkexc $cmd" || { echo "FAIL: $cmd --help"; failures=$((failures + 1)); }
done

# The demo checks its own round trip and says so.
out=$("$exe" demo); rc=$?
check "demo status" 0 "$rc"
grep -q "decoded form matches the original: yes" <<<"$out" || { echo "FAIL: demo match"; failures=$((failures + 1)); }
grep -q "Checksum of block 17 failed after 3 tries" <<<"$out" || { echo "FAIL: demo chain"; failures=$((failures + 1)); }

[ "$failures" -eq 0 ] && echo "vrkexc: all checks passed"
exit $((failures != 0))
