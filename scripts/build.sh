#!/usr/bin/env bash
# Configures and builds the project into ./build (or $RQ_BUILD_DIR).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${RQ_BUILD_DIR:-$root/build}"
"$root/scripts/setup.sh"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
