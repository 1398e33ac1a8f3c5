#!/usr/bin/env bash
# Runs each fuzz target over its seed corpus (tests/fuzz/corpus) and then on fresh inputs,
# a bounded number of them, so that the run takes a few minutes at most. New inputs the
# fuzzer finds go to a scratch directory, not into the repository; a crash leaves its input
# in the build directory (crash-*), prints the fuzzer's report and fails the script.
#   scripts/fuzz.sh [build-dir] [fresh-inputs-per-target]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build-asan}" && pwd)"
runs="${2:-${RQ_FUZZ_RUNS:-5000}}"
seconds="${RQ_FUZZ_SECONDS:-120}"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
for target in request catalog sqlcheck; do
  corpus="$root/tests/fuzz/corpus/$target"
  if [ "$target" = sqlcheck ]; then corpus="$root/tests/fuzz/corpus/request"; fi
  mkdir -p "$scratch/$target"
  # The corpus is read first; -runs then bounds the fresh inputs that follow it.
  status=0
  (cd "$build" && "$build/tests/fuzz_$target" -runs="$runs" -max_total_time="$seconds" \
     -max_len=8192 -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 \
     "$scratch/$target" "$corpus") >"$scratch/$target.log" 2>&1 || status=$?
  if [ "$status" -ne 0 ]; then
    cat "$scratch/$target.log"
    echo "fuzz: $target FAILED (exit $status)"
    exit 1
  fi
  units="$(grep -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$scratch/$target.log" | grep -o '[0-9]*$')"
  echo "fuzz: $target: $units inputs, no crash, leak or undefined behaviour"
done
