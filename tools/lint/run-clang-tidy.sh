#!/usr/bin/env bash
# Runs clang-tidy (config: .clang-tidy) over the library's sources (sys/src)
# and reports each finding once, with a count per file. Exits 1 when there
# are findings.
# usage: tools/lint/run-clang-tidy.sh [-p BUILD_DIR] [--fix] [FILE...]
#   -p BUILD_DIR  a configured build with compile_commands.json (default
#                 build/dev; configured with the dev preset when missing)
#   --fix         apply clang-tidy's fixes (renames) in place
#   FILE...       only these sources (default: every sys/src/**/*.cpp)
set -euo pipefail
cd "$(dirname "$0")/../.."
build=build/dev fix=() files=()
while [ $# -gt 0 ]; do
  case $1 in
    -p) build=$2; shift 2 ;;
    --fix) fix=(--fix --fix-errors); shift ;;
    *) files+=("$1"); shift ;;
  esac
done
tidy=${CLANG_TIDY:-clang-tidy}
command -v "$tidy" >/dev/null || { echo "run-clang-tidy: $tidy not found" >&2; exit 2; }
if [ ! -f "$build/compile_commands.json" ]; then
  cmake --preset dev >/dev/null
  build=build/dev
fi
[ ${#files[@]} -gt 0 ] || mapfile -t files < <(git ls-files 'sys/src/*.cpp')
out=$(mktemp)
trap 'rm -f "$out"' EXIT
# Fixes are applied one file at a time: parallel runs would edit the same
# header twice.
jobs=2
[ ${#fix[@]} -eq 0 ] || jobs=1
printf '%s\n' "${files[@]}" |
  xargs -P "$jobs" -I{} "$tidy" -p "$build" --quiet "${fix[@]}" {} 2>/dev/null |
  grep -E '^[^ ].*:[0-9]+:[0-9]+: (warning|error): ' | sort -u > "$out" || true
if [ ! -s "$out" ]; then
  echo "clang-tidy: no findings in ${#files[@]} files"
  exit 0
fi
cat "$out"
echo
echo "clang-tidy findings per file:"
sed -E "s|^$PWD/||; s|:[0-9]+:[0-9]+: .*||" "$out" | sort | uniq -c | sort -rn
echo "total: $(wc -l < "$out")"
exit 1
