#!/usr/bin/env bash
# Sets up the machine, builds everything and runs the whole test suite.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${RQ_BUILD_DIR:-$root/build}"
"$root/scripts/build.sh"
cd "$build"
ctest --output-on-failure -j "$(nproc)"
