#!/usr/bin/env bash
# Runs every fuzzer of the build in build/fuzz for a number of seconds (20), beginning with its seed
# corpus. New inputs go into a folder of the build; a finding ends the run with its input's path.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-20}
for fuzzer in "$root"/build/fuzz/bin/*_fuzz; do
  name=$(basename "$fuzzer")
  found=$root/build/fuzz/corpus/$name
  mkdir -p "$found"
  seeds=()
  [ -d "$root/fuzz/corpus/$name" ] && seeds=("$root/fuzz/corpus/$name")
  echo "--- $name, $seconds s"
  "$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
    -print_final_stats=1 -verbosity=0 -artifact_prefix="$found/" "$found" "${seeds[@]}" 2>&1 |
    grep -vE '^(INFO|stat::(new|slowest|peak))' || exit "${PIPESTATUS[0]}"
  status=${PIPESTATUS[0]}
  [ "$status" = 0 ] || exit "$status"
done
