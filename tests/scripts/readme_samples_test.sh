#!/usr/bin/env bash
# Every README block introduced by `<!-- sample: PATH -->` must be the file
# PATH exactly, so the README never shows code that the build does not
# compile and run. Each sample under examples/readme/ must be quoted.
# usage: readme_samples_test.sh SOURCE_DIR
set -euo pipefail
src=$1
readme=$src/README.md
status=0
quoted=$(sed -n 's/^<!-- sample: \(.*\) -->$/\1/p' "$readme")
for path in $quoted; do
  # The fenced block right after the marker, without its fences.
  block=$(awk -v mark="<!-- sample: $path -->" '
    $0 == mark { state = 1; next }
    state == 1 && /^```/ { state = 2; next }
    state == 2 && /^```$/ { exit }
    state == 2 { print }' "$readme")
  if [ ! -f "$src/$path" ]; then
    echo "README quotes $path, which does not exist"; status=1
  elif [ "$block" != "$(cat "$src/$path")" ]; then
    echo "README's copy of $path differs from the file:"
    diff <(printf '%s\n' "$block") "$src/$path" || true
    status=1
  fi
done
for f in "$src"/examples/readme/*; do
  rel=${f#"$src"/}
  grep -qx "<!-- sample: $rel -->" "$readme" || { echo "README does not quote $rel"; status=1; }
done
exit $status
