#!/usr/bin/env bash
# Sets up the machine, builds everything and runs the whole test suite; then the checked
# build (scripts/sanitize.sh): the suite again under AddressSanitizer and
# UndefinedBehaviorSanitizer, and the fuzz targets. RQ_SKIP_SANITIZE=1 skips the second part.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${RQ_BUILD_DIR:-$root/build}"
"$root/scripts/build.sh"
(cd "$build" && ctest --output-on-failure -j "$(nproc)")
if [ "${RQ_SKIP_SANITIZE:-0}" != 1 ]; then
  "$root/scripts/sanitize.sh"
fi
