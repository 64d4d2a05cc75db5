#!/usr/bin/env bash
# Runs vrkexc as a user does: encode | decode in every input form, bad
# input, the JSON document read back, usage errors, and the demo.
# usage: test_vrkexc.sh path/to/vrkexc   (needs xxd, hexdump and python3)
set -uo pipefail
exe=$1
tmp=$(mktemp -d)
trap 'chmod -R u+rwx "$tmp"; rm -rf "$tmp"' EXIT
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

# Every input form spells the same bytes: raw bytes, an xxd dump, 0x and
# comma-separated bytes, log lines with a prefix before the hex, and bare
# hex (indented, lower case, two exceptions one after the other).
"$exe" encode "${encode_args[@]}" > "$tmp/one.bin"
"$exe" encode --hex -o "$tmp/one.hex" "${encode_args[@]}" || { echo "FAIL: encode -o"; failures=$((failures + 1)); }
xxd "$tmp/one.bin" > "$tmp/xxd"
xxd -i < "$tmp/one.bin" > "$tmp/0x"
hexdump -C "$tmp/one.bin" > "$tmp/hexdump" # its last line is the offset alone
tr -s ' \n' ',' < "$tmp/one.hex" > "$tmp/commas"
sed 's/^/2026-11-23 10:01:02 ERROR worker-3: /' "$tmp/one.hex" > "$tmp/log"
{ printf '\xef\xbb\xbf'; sed 's/$/\r/' "$tmp/one.hex"; } > "$tmp/windows" # BOM, CR LF
for form in one.bin xxd hexdump 0x commas log windows; do
  check "form $form" "$short_expected" "$("$exe" decode --short --no-stack "$tmp/$form" 2>&1)"
done
# hexdump -C leaves out repeated lines ("*"): the offsets bring them back.
"$exe" encode --no-stack --message "$(printf 'z%.0s' {1..100})" > "$tmp/rep.bin"
check "hexdump repeated lines" "$("$exe" decode "$tmp/rep.bin")" "$(hexdump -C "$tmp/rep.bin" | "$exe" decode)"
{ sed 's/^/    /' "$tmp/one.hex" | tr 'A-F' 'a-f'; echo; cat "$tmp/one.hex"; } > "$tmp/bare"
check "bare hex, two exceptions" "$short_expected
$short_expected" "$("$exe" decode --short --no-stack - < "$tmp/bare")"

# The bytes of the smallest exception, to the byte.
check "exact bytes" "FA CE 00 00 FA CA DE 01 AD DD EE D2 00 00 00 07
00 00 00 04 00 00 00 2A 00 00 00 05 61 2E 73 72
63 00 00 00 04 62 6F 6F 6D 00 00 00 00 AD DE DC
AB" "$("$exe" encode --hex --no-stack --error 7 --file a.src --line 42 --message boom)"

# Bad input: where and why, status 1. Raw bytes that begin with hex-digit
# characters are read as bytes. Of several inputs each is decoded, and a
# bad one makes the status 1.
printf 'FA CE 00 00 FA CA DE 01 00 00 00 00\n' > "$tmp/bad.hex"
printf 'ABCD\0\0\0\0' > "$tmp/abcd.bin"
printf 'FA CE 0\n' > "$tmp/odd.hex"
echo '0xFA,0xCE,0x0,0x0,0xFA,0xCA,0xDE,0x1,ADDDEED2 00000001 00000000 00000001 FFFFFFFF' > "$tmp/long.hex"
head -c 40 "$tmp/one.bin" > "$tmp/cut.bin"
mkdir "$tmp/dir"
runtime='\nexception 1001: Runtime error\nexception 1001: Exception deserialization.'
while IFS='|' read -r name files expected; do
  files=${files//@/$tmp/} expected=${expected//@/$tmp/}
  out=$(echo 'INFO started' | "$exe" decode --short --no-stack $files 2>&1); rc=$?
  check "$name" "1 $(printf '%b' "${expected//\$runtime/$runtime}")" "$rc $out"
done <<'TABLE'
bad word|@bad.hex|vrkexc decode: @bad.hex: exception 1 (from byte 0) is not valid: at byte 8: found 0x00000000, expected 0xADDDEED2$runtime Bad data pattern: 0, expected: 2917002962
hex-digit start|@abcd.bin|vrkexc decode: @abcd.bin: exception 1 (from byte 0) is not valid: at byte 0: found 0x41424344, expected 0xFACE0000$runtime Bad data pattern: 1094861636, expected: 4207804416
truncated|@cut.bin|vrkexc decode: @cut.bin: exception 1 (from byte 0) is not valid: the input ends at byte 40, inside a text of 14 bytes$runtime Input ends inside a text: 14 bytes expected, 12 read
over the limit|@long.hex|vrkexc decode: @long.hex: exception 1 (from byte 0) is not valid: at byte 24: a length of 4294967295 bytes, over the limit of 16777216$runtime Bad length: 4294967295, limit: 16777216
several, odd digits|@odd.hex @one.hex|vrkexc decode: @odd.hex: line 1, column 7: hexadecimal digits that do not make whole bytes\nexception 42: Cannot reach db1 on port 5432\nexception 43: Login failed\nexception 11: Timed out after 250 ms
no hex|-|vrkexc decode: standard input: no hexadecimal bytes in the text
empty|/dev/null|vrkexc decode: /dev/null: the input is empty
directory|@dir|vrkexc: cannot read @dir: Is a directory
read error|/proc/self/mem|vrkexc: cannot read /proc/self/mem: Input/output error
missing|@missing|vrkexc: cannot open @missing: No such file or directory
TABLE
out=$("$exe" decode "$tmp/one.hex" 2>&1 >/dev/full)
check "write error" "1 vrkexc: cannot write the output" "$? $out"
if [ "$(id -u)" != 0 ]; then
  cp "$tmp/one.bin" "$tmp/locked"; chmod 000 "$tmp/locked"
  check "permission" "vrkexc: cannot open $tmp/locked: Permission denied" "$("$exe" decode "$tmp/locked" 2>&1)"
fi

# Texts cannot drive the terminal; a stack text without its line end does
# not run into the next heading.
check "control characters" $'exception 1: red \\x1b[31m \\x9b\\xc2\\x9b \xc3\xa9 [X=a\tb]' \
  "$("$exe" encode --message $'red \e[31m \x9b\xc2\x9b \xc3\xa9' --arg X=$'a\tb' | "$exe" decode --short --no-stack)"
python3 - "$tmp/nolf.bin" <<'PY'
import struct, sys
w = lambda *v: struct.pack(">%dI" % len(v), *v)
node = lambda no, text: w(0xADDDEED2, no, 0, 3, 1) + b"f" + w(len(text)) + text
stack = b"#0 frame"
body = node(1, b"one") + w(len(stack)) + stack + node(2, b"two") + w(0) + w(0xADDEDCAB)
open(sys.argv[1], "wb").write(w(0xFACE0000, 0xFACADE01) + body)
PY
check "stack text without line end" 'exception  1: no.1  (f:3)
    one
#0 frame
exception  2: no.2  (f:3)
    two
NO exception throw location recorded. Bad alloc.code: 0' "$("$exe" decode "$tmp/nolf.bin")"

# --json: one document for all inputs, read back by a JSON reader.
"$exe" encode "${encode_args[@]}" --arg 'NOTE=a, b]' --message $'\e' > "$tmp/args.bin"
"$exe" decode --json "$tmp/args.bin" "$tmp/log" "$tmp/nolf.bin" | python3 -c '
import json, sys
d = json.load(sys.stdin)
assert [(x["input"].split("/")[-1], x["offset"], x["type"]) for x in d] == \
    [("args.bin", 0, 0), ("log", 0, 0), ("nolf.bin", 0, 0)], d
a = d[0]
assert (a["error"], a["file"], a["line"]) == (42, "net/client.cpp", 7), a
m = a["messages"]
assert [(x["error"], x["file"], x["line"], x["text"], x["arguments"]) for x in m] == [
    (42, "net/client.cpp", 7, "Cannot reach db1 on port 5432", {}),
    (43, "net/client.cpp", 9, "Login failed", {})], m
assert a["stack"].startswith("NO exception throw location recorded."), a
l = a["linked"]
assert [(x["error"], x["file"], x["line"]) for x in l] == [(11, "io.cpp", -1)], l
m = l[0]["messages"]
assert [(x["text"], x["arguments"]) for x in m] == [
    ("Timed out after 250 ms [NOTE=a\\, b\\]]", {"NOTE": "a, b]"}), ("\x1b", {})], m
n = d[2]
assert n["stack"] == "#0 frame" and n["linked"][0]["stack"] is None, n
' || { echo "FAIL: json"; failures=$((failures + 1)); }
version=$("$exe" --version)
[[ $version =~ ^vrkexc\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || { echo "FAIL: version '$version'"; failures=$((failures + 1)); }
check "decode --version" "$version" "$("$exe" decode --version)"

# Usage errors: status 2; help: status 0.
"$exe" encode --arg X=1 > /dev/null 2>&1; check "arg before message" 2 $?
"$exe" encode > /dev/null 2>&1; check "nothing to encode" 2 $?
"$exe" bogus > /dev/null 2>&1; check "unknown command" 2 $?
"$exe" decode --json --short "$tmp/one.bin" > /dev/null 2>&1; check "json and short" 2 $?
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
