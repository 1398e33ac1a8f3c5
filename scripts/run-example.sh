#!/usr/bin/env bash
# Sets up the machine, builds rqopt and shows what the default pipeline of rules does to a
# bundled sample request, as a unified diff per rule. With arguments, runs rqopt with them
# instead (from the repository root, so examples/... paths work).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${RQ_BUILD_DIR:-$root/build}"
"$root/scripts/setup.sh" >/dev/null
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target rqopt -j "$(nproc)" >/dev/null
cd "$root"
if [ "$#" -eq 0 ]; then
    set -- --diff examples/requests/clearance-revenue.rq
fi
exec "$build/tools/rqopt" "$@"
