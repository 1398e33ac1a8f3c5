#!/usr/bin/env bash
# Runs each fuzz target over its seed corpus (tests/fuzz/corpus) and then on fresh inputs,
# a bounded number of them, so that the run takes a few minutes at most. New inputs the
# fuzzer finds go to a scratch directory, not into the repository; a crash leaves its input
# in the build directory (crash-*) and fails the script.
#   scripts/fuzz.sh [build-dir] [runs-per-target]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build-asan}"
runs="${2:-${RQ_FUZZ_RUNS:-3000}}"
seconds="${RQ_FUZZ_SECONDS:-120}"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
for target in request catalog sqlcheck; do
  corpus="$root/tests/fuzz/corpus/$target"
  [ "$target" = sqlcheck ] && corpus="$root/tests/fuzz/corpus/request"
  mkdir -p "$scratch/$target"
  echo "fuzz: $target ($runs fresh inputs at most, ${seconds}s at most)"
  # The corpus is read first; -runs then bounds the fresh inputs that follow it.
  (cd "$build" && "$build/tests/fuzz_$target" -runs="$runs" -max_total_time="$seconds" \
     -max_len=8192 -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 \
     "$scratch/$target" "$corpus" 2>&1 | grep -E "^(stat::number_of_executed_units|fuzz:|==|SUMMARY|Done)|ERROR|runtime error" || true
   exit "${PIPESTATUS[0]}")
done
echo "fuzz: all targets passed"
