#!/usr/bin/env bash
# Runs the browser tests of the shell against the demo server.
#   tests/browser/run.sh <path to ui_demo> [--screenshot <png>]
# Exits 77 (skipped) when node, chromium or playwright-core cannot be had.
set -euo pipefail
HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
DEMO="$(realpath "${1:?usage: run.sh <ui_demo> [--screenshot <png>]}")"
shift
if [[ "${1:-}" == "--screenshot" ]]; then
  export TAVRO_SCREENSHOT="$(realpath -m "${2:?}")"
fi

command -v node >/dev/null || { echo "node not found: skipped"; exit 77; }
[[ -x /usr/bin/chromium ]] || { echo "/usr/bin/chromium not found: skipped"; exit 77; }
cd "$HERE"
if [[ ! -d node_modules/playwright-core ]]; then
  # playwright-core only: it brings no browser of its own.
  npm ci --no-audit --no-fund --ignore-scripts >/dev/null 2>&1 ||
    { echo "playwright-core could not be installed: skipped"; exit 77; }
fi
export TAVRO_UI_DEMO="$DEMO"
exec node --test --test-concurrency=1 shell.test.mjs
