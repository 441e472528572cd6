#!/usr/bin/env bash
# Runs one of the benchmarks that drive TavroTest and the simulated board through a browser:
#   bench/browser_bench.sh window [build dir]   the window's idle CPU, idle traffic and
#                                               change-to-screen latency (QUIET_SECONDS=30 SAMPLES=200)
#   bench/browser_bench.sh pages [build dir]    CPU with each tab in front; CPU and pass timing of
#                                               axis test ramps; CPU and tick spacing of the
#                                               Lights page's ring cycle (QUIET_SECONDS=20 RUNS=4)
#   bench/browser_bench.sh plot [build dir]     a plot's frame time with 4 channels x 30,000
#                                               points, panned and following (FRAMES=300)
#   bench/browser_bench.sh stop [build dir]     STOP click to the axis handed back at the board,
#                                               a hung tab to the same, and the floor of one
#                                               click's transfer (SAMPLES=40 HANGS=5)
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
NAME="${1:?usage: browser_bench.sh window|pages|plot|stop [build dir]}"
[[ -f "$ROOT/bench/${NAME}_bench.mjs" ]] || { echo "no benchmark named $NAME" >&2; exit 2; }
BUILD="$(realpath "${2:-$ROOT/build}")"
export TAVROTEST="$BUILD/app/tavrotest" TAVROSIM="$BUILD/sim/tavrosim"
if [[ ! -d "$ROOT/tests/browser/node_modules/playwright-core" ]]; then
  (cd "$ROOT/tests/browser" && npm ci --no-audit --no-fund --ignore-scripts >/dev/null)
fi
exec node "$ROOT/bench/${NAME}_bench.mjs"
