#!/usr/bin/env bash
# Sets up the machine, builds rqopt and applies the rules to a bundled sample request.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${RQ_BUILD_DIR:-$root/build}"
"$root/scripts/build.sh" >/dev/null
exec "$build/tools/rqopt" "$@"
