#!/usr/bin/env bash
# The checked build: everything built with clang under AddressSanitizer and
# UndefinedBehaviorSanitizer (an undefined-behaviour report aborts) into build-asan, the whole
# test suite run there, then each fuzz target over its corpus and a few thousand fresh inputs.
#   scripts/sanitize.sh            build, test and fuzz
#   RQ_FUZZ_RUNS=0 scripts/sanitize.sh   build and test, fuzz the corpus only
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${RQ_ASAN_BUILD_DIR:-$root/build-asan}"
"$root/scripts/setup.sh"
CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DRQ_SANITIZE=ON -DRQ_BUILD_FUZZ=ON >/dev/null
cmake --build "$build" -j "$(nproc)"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
(cd "$build" && ctest --output-on-failure -j "$(nproc)")
"$root/scripts/fuzz.sh" "$build"
