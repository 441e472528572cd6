#!/usr/bin/env bash
# Runs one browser test file with Node's test runner, after making sure playwright-core is there.
#   tests/browser/run.sh <test file> [NAME=VALUE ...]
# The NAME=VALUE pairs go to the test's environment (the programs it drives, a screenshot folder).
# Exits 77 (skipped) when node, chromium or playwright-core cannot be had.
set -euo pipefail
HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
TEST="${1:?usage: run.sh <test file> [NAME=VALUE ...]}"
shift
for pair in "$@"; do
  export "${pair?}"
done

command -v node >/dev/null || { echo "node not found: skipped"; exit 77; }
[[ -x /usr/bin/chromium ]] || { echo "/usr/bin/chromium not found: skipped"; exit 77; }
cd "$HERE"
# Browser tests start in parallel (ctest -j): one installs playwright-core while the others wait
# for it, so none sees a half-installed package.
exec 9>"$HERE/.install.lock"
flock 9
if [[ ! -f node_modules/playwright-core/package.json ]]; then
  # playwright-core only: it brings no browser of its own.
  npm ci --no-audit --no-fund --ignore-scripts >/dev/null 2>&1 ||
    { echo "playwright-core could not be installed: skipped"; exit 77; }
fi
flock -u 9
exec node --test --test-concurrency=1 "$TEST"
