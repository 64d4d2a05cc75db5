#!/usr/bin/env bash
# Runs the benchmarks of a release build and prints each of our figures
# beside its peer's from the same run: "case, ours ns, peer, peer ns, ratio".
#
#   bench/run.sh [build-dir] [extra benchmark options]   (default build/release)
#   bench/run.sh --smoke [build-dir]                      run each case once, no table
#
# A benchmark named "<case>/vrk" is ours; every "<case>/<other>" is a peer.
# Each binary runs with five repetitions and the table shows the medians.
set -euo pipefail
cd "$(dirname "$0")/.."

smoke=0
if [ "${1:-}" = "--smoke" ]; then
  smoke=1
  shift
fi
build="${1:-build/release}"
[ $# -gt 0 ] && shift
benches=(vrk_bench_itoa vrk_bench_streams vrk_bench_messages vrk_bench_exception vrk_bench_serialize)

if [ "$smoke" = 1 ]; then
  for b in "${benches[@]}"; do
    "$build/bench/$b" --benchmark_min_time=0.001 --benchmark_repetitions=1 >/dev/null
    echo "$b: ok"
  done
  exit 0
fi

out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
echo "load: $(uptime)"
for b in "${benches[@]}"; do
  "$build/bench/$b" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
    --benchmark_format=json --benchmark_out_format=json --benchmark_out="$out/$b.json" \
    "$@" >/dev/null
done

python3 - "$out"/*.json <<'PY'
import json, sys

medians = {}
order = []
for path in sys.argv[1:]:
    with open(path) as f:
        text = f.read()
    # A binary none of whose cases a --benchmark_filter matched writes nothing.
    if not text.strip():
        continue
    for b in json.loads(text)["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        name = b["run_name"]
        # Thread counts and real-time markers are part of the run's name.
        parts = [p for p in name.split("/") if p != "real_time" and not p.startswith("threads:")]
        # The implementation is the last part that is not an argument.
        i = max(k for k, p in enumerate(parts) if not p.lstrip("-").isdigit())
        impl = parts[i]
        case = "/".join(parts[:i] + parts[i + 1:])
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
        # Multi-threaded cases are measured in real time.
        t = b["real_time" if "real_time" in name.split("/") else "cpu_time"] * scale
        if case not in medians:
            medians[case] = {}
            order.append(case)
        medians[case][impl] = t

rows = []
for case in order:
    impls = medians[case]
    if "vrk" not in impls:
        continue
    for peer, t in impls.items():
        if peer != "vrk":
            rows.append((case, impls["vrk"], peer, t, impls["vrk"] / t))
if not rows:
    sys.exit("no pair of ours and a peer ran")
w = max(len(r[0]) for r in rows)
print(f"{'case':<{w}}  {'ours ns':>10}  {'peer':<16} {'peer ns':>10}  {'ratio':>6}")
for case, ours, peer, t, ratio in rows:
    print(f"{case:<{w}}  {ours:>10.1f}  {peer:<16} {t:>10.1f}  {ratio:>6.2f}")
PY
