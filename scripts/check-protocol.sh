#!/usr/bin/env bash
# Lints the protocol documents in docs/protocol: openapi.yaml with Redocly CLI (its recommended
# rules, as docs/protocol/redocly.yaml adjusts them) and asyncapi.yaml with the AsyncAPI parser,
# tests the reference page rendered from both, and checks that the realtime fuzzer's seeds are
# still the ones asyncapi.yaml gives. Fails on any error. Installs Node and the pinned npm packages
# when missing.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_protocol_tools

# A lint reaches nothing beyond this machine: no usage reports, no update checks.
export SCARF_ANALYTICS=false
export REDOCLY_TELEMETRY=off
export REDOCLY_SUPPRESS_UPDATE_NOTICE=true

modules=tests/protocol/node_modules

status=0
"$modules/.bin/redocly" lint --config docs/protocol/redocly.yaml docs/protocol/openapi.yaml ||
    status=1
node tests/protocol/lint-asyncapi.mjs docs/protocol/asyncapi.yaml || status=1
# The reference page the local backend serves at /docs, rendered from both documents.
if ! out="$(node --test tests/protocol/render-reference.test.mjs 2>&1)"; then
    echo "$out"
    status=1
fi
# The realtime fuzzer's dictionary and seeds are generated from asyncapi.yaml and committed.
node tests/protocol/fuzz-seeds.mjs --check || status=1
exit "$status"
