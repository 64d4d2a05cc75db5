#!/bin/bash
# Fault injection: applies each break listed in mutations.txt, one at a time,
# to a copy of the tree, rebuilds the dev preset there and runs the unit
# tests. A break the tests notice (a failing test, or a build that fails) is
# "caught"; one they pass with is "missed"; one whose text is no longer in its
# file exactly once is "stale".
#
#   tools/mutation/run.sh [-l LIST] [-w WORKDIR] [-t SECONDS] [NAME-FILTER]
#
# The copy lives in WORKDIR (default build/mutation) and is kept between
# runs, so a second run rebuilds only what changed. Prints one line per
# break and a total; exits 1 when a break was missed or is stale.
set -u

root=$(cd "$(dirname "$0")/../.." && pwd)
list=$root/tools/mutation/mutations.txt
work=$root/build/mutation
timeout=60
while getopts "l:w:t:" opt; do
    case $opt in
    l) list=$OPTARG ;;
    w) work=$OPTARG ;;
    t) timeout=$OPTARG ;;
    *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
filter=${1:-}

tree=$work/tree
build=$tree/build/dev
log=$work/log
mkdir -p "$tree" "$log"
# The copy follows the sources: a file that differs is copied with a new
# time stamp (so ninja rebuilds what depends on it, whatever the source's
# own time stamp), a file that is gone is removed; the build directory stays.
stage=$work/stage
rm -rf "$stage"
mkdir -p "$stage"
tar -C "$root" --exclude=./build --exclude=./.git --exclude=./.cache -cf - . | tar -C "$stage" -xf -
(cd "$tree" && find . -path ./build -prune -o -type f -print) | while IFS= read -r f; do
    [[ -e $stage/$f ]] || rm -f "$tree/$f"
done
(cd "$stage" && find . -type f -print) | while IFS= read -r f; do
    if ! cmp -s "$stage/$f" "$tree/$f"; then
        mkdir -p "$(dirname "$tree/$f")"
        cp "$stage/$f" "$tree/$f"
    fi
done

# The installed-package check builds a product from scratch: it tests the
# packaging, not the code, and takes long.
tests() {
    ctest --test-dir "$build" -L unit -E '^installed_package_consumer$' --timeout "$timeout" \
        -j 2 --output-on-failure
}

# Replaces the one occurrence of $2 in file $1 by $3; status 3 when $2 is
# not there exactly once.
patch_file() {
    python3 - "$@" <<'PY'
import sys
path, old, new = (a.replace("\\n", "\n") for a in sys.argv[1:4])
text = open(path).read()
if text.count(old) != 1:
    sys.exit(3)
open(path, "w").write(text.replace(old, new))
PY
}

echo "baseline: configure, build and test the unchanged copy"
if ! { cmake --preset dev -S "$tree" >"$log/configure.txt" 2>&1 &&
    cmake --build "$build" >"$log/baseline-build.txt" 2>&1 &&
    tests >"$log/baseline-tests.txt" 2>&1; }; then
    echo "the unchanged tree does not pass; see $log"
    exit 2
fi

caught=0 missed=0 stale=0 n=0
run_one() {
    local name=$1 file=$2 old=$3 new=$4
    [[ -n $filter && $name != *$filter* ]] && return
    n=$((n + 1))
    local slug
    slug=$(printf '%02d' "$n")
    local path=$tree/$file
    if [[ ! -f $path ]]; then
        echo "stale   $slug $name (no file $file)"
        stale=$((stale + 1))
        return
    fi
    cp -p "$path" "$work/saved"
    if ! patch_file "$path" "$old" "$new"; then
        echo "stale   $slug $name (text not found once in $file)"
        stale=$((stale + 1))
        return
    fi
    local verdict how
    if ! cmake --build "$build" >"$log/$slug-build.txt" 2>&1; then
        verdict=caught how="build fails"
    elif tests >"$log/$slug-tests.txt" 2>&1; then
        verdict=missed how="all unit tests pass"
    else
        verdict=caught
        how=$(grep -cE '^\s*[0-9]+ - ' "$log/$slug-tests.txt")" failing test(s): "
        how+=$(grep -E '^\s*[0-9]+ - ' "$log/$slug-tests.txt" | sed -E 's/^\s*[0-9]+ - //; s/ \(.*//' |
            head -3 | paste -sd ' ')
    fi
    # Back to the saved file with a new time stamp, so the next build
    # recompiles what the break touched.
    cp "$work/saved" "$path"
    touch "$path"
    printf '%-7s %s %s -- %s\n' "$verdict" "$slug" "$name" "$how"
    if [[ $verdict == caught ]]; then caught=$((caught + 1)); else missed=$((missed + 1)); fi
}

# The list is read whole first: it may be edited while a run goes on.
mapfile -t lines <"$list"
name='' file='' old=''
for line in "${lines[@]}"; do
    case $line in
    '== '*) name=${line#== } file='' old='' ;;
    'file '*) file=${line#file } ;;
    '- '*) old=${line#- } ;;
    '+'*)
        new=${line#+}
        new=${new# }
        run_one "$name" "$file" "$old" "$new"
        ;;
    esac
done

# Leave the copy built as the tree is.
cmake --build "$build" >"$log/final-build.txt" 2>&1

echo "total: $n breaks, $caught caught, $missed missed, $stale stale"
[[ $missed -eq 0 && $stale -eq 0 ]]
