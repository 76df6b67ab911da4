#!/usr/bin/env bash
# Runs the console's browser tests: Debian's Chromium, driven by the pinned playwright-core,
# against the demo's --console mode. Installs Chromium, Node and the npm packages when missing.
# The demo binary: $VIRELA_DEMO (default build/test/apps/demo/virela-demo), built beforehand.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages chromium nodejs
command -v npm >/dev/null 2>&1 || ensure_packages npm

# npm ci only when the lock file changed since the last install, or nothing is installed.
modules=tests/browser/node_modules
if [ ! -f "$modules/.package-lock.json" ] ||
   [ tests/browser/package-lock.json -nt "$modules/.package-lock.json" ]; then
    (cd tests/browser && npm ci --no-audit --no-fund)
fi

export VIRELA_DEMO="${VIRELA_DEMO:-build/test/apps/demo/virela-demo}"
exec node --test tests/browser/
