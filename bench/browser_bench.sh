#!/usr/bin/env bash
# The window's idle CPU, idle traffic and change-to-screen latency (bench/window_bench.mjs).
#   bench/window_bench.sh [build dir]      QUIET_SECONDS=30 SAMPLES=200 by default
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="$(realpath "${1:-$ROOT/build}")"
export TAVROTEST="$BUILD/app/tavrotest" TAVROSIM="$BUILD/sim/tavrosim"
if [[ ! -d "$ROOT/tests/browser/node_modules/playwright-core" ]]; then
  (cd "$ROOT/tests/browser" && npm ci --no-audit --no-fund --ignore-scripts >/dev/null)
fi
exec node "$ROOT/bench/window_bench.mjs"
