#!/usr/bin/env bash
# The thread test (and the rest of the suite's threaded tests) under ThreadSanitizer, in
# build-tsan. Not part of scripts/test.sh: a second instrumented build of everything would
# double the time CI spends building, and the thread test also runs, unsanitized and under
# AddressSanitizer, in every test run.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${RQ_TSAN_BUILD_DIR:-$root/build-tsan}"
"$root/scripts/setup.sh"
CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DRQ_TSAN=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target test_threads test_platform
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
"$build/tests/test_threads"
"$build/tests/test_platform" --gtest_filter='*Thread*'
