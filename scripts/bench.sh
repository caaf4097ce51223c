#!/usr/bin/env bash
# Builds the benchmarks and runs them with their peers interleaved, once free and once pinned to one
# processor, and prints the medians. Machines are noisy: judge by the ratio to the peer in the same run.
# Arguments name benchmarks (concurrency multicaster pool message log xml mixed_data guid encrypt ini registry history socket serial print sound); without any, all run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh" bench
cd "$root"
cmake --preset release -DQMUTILS_BUILD_TESTS=OFF >/dev/null
cmake --build --preset release >/dev/null

run() {
  "$@" --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true --benchmark_min_time=0.1 2>/dev/null |
    awk '/_median/ { sub(/_median/, ""); printf "  %-60s %12s %s\n", $1, $2, $3 }'
}

names=("$@")
[ ${#names[@]} != 0 ] || for bench in build/release/bin/*_bench; do
  names+=("$(basename "$bench" _bench)")
done
for name in "${names[@]}"; do
  echo "$name, free"
  run "build/release/bin/${name}_bench"
  echo "$name, on one processor"
  run taskset -c 0 "build/release/bin/${name}_bench"
done
