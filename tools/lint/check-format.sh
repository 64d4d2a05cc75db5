#!/usr/bin/env bash
# Checks the layout of the C++ sources (the library in sys/src, its tests,
# fuzz targets, benchmarks, examples and tools) against .clang-format and
# reports, per file, how many lines would change. Exits 1 when any file
# differs.
# usage: tools/lint/check-format.sh [--fix] [FILE...]
#   --fix    reformat the files in place instead of checking them
#   FILE...  only these files (default: every tracked .hpp and .cpp of
#            sys/src, tests, fuzz, bench, examples and tools)
set -euo pipefail
cd "$(dirname "$0")/../.."
fmt=${CLANG_FORMAT:-clang-format}
command -v "$fmt" >/dev/null || { echo "check-format: $fmt not found" >&2; exit 2; }
fix=0 files=()
for arg in "$@"; do
  case $arg in
    --fix) fix=1 ;;
    *) files+=("$arg") ;;
  esac
done
[ ${#files[@]} -gt 0 ] || mapfile -t files < <(git ls-files -- {sys/src,tests,fuzz,bench,examples,tools}/'*.'{hpp,cpp})
if [ $fix -eq 1 ]; then
  "$fmt" --style=file -i "${files[@]}"
  echo "check-format: reformatted ${#files[@]} files"
  exit 0
fi
bad=0 total=0
for f in "${files[@]}"; do
  n=$("$fmt" --style=file "$f" | diff "$f" - | grep -c '^[<>]' || true)
  if [ "$n" -gt 0 ]; then
    printf '%6d %s\n' "$n" "$f"
    bad=$((bad + 1)) total=$((total + n))
  fi
done
if [ $bad -gt 0 ]; then
  echo "check-format: $bad of ${#files[@]} files differ ($total changed lines); fix with tools/lint/check-format.sh --fix"
  exit 1
fi
echo "check-format: ${#files[@]} files formatted"
