#!/usr/bin/env bash
# Holds real traffic to the protocol documents: the integration tests and the scripted demo run
# against the local backend with its traffic log on, and tests/protocol/validate-traffic.mjs
# checks every recorded exchange and socket frame against docs/protocol, then prints what it saw
# of each operation and message. Fails on any mismatch and on any documented operation or
# message that never showed up. Needs the build in build/test (BUILD overrides); installs the
# pinned npm packages when missing. The recordings stay in $BUILD/traffic for a look afterwards.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_protocol_tools

build="${BUILD:-build/test}"
tests="$build/tests/virela_integration_tests"
demo="$build/apps/demo/virela-demo"
for program in "$tests" "$demo"; do
    if [ ! -x "$program" ]; then
        echo "check-traffic: $program is not built" >&2
        exit 1
    fi
done
started=$SECONDS
traffic="$build/traffic"
rm -rf "$traffic"
mkdir -p "$traffic"
# Both at once: each backend writes a file of its own.
VIRELA_TRAFFIC_DIR="$traffic" "$tests" >"$traffic/integration.log" 2>&1 &
tests_pid=$!
"$demo" --traffic "$traffic/demo.jsonl" --state-dir "$traffic/demo-state" \
    --out "$traffic/demo-captures" >"$traffic/demo.log" 2>&1 &
demo_pid=$!

status=0
if ! wait "$tests_pid"; then
    echo "check-traffic: the integration tests failed; see $traffic/integration.log" >&2
    status=1
fi
if ! wait "$demo_pid"; then
    echo "check-traffic: the demo failed; see $traffic/demo.log" >&2
    status=1
fi
node tests/protocol/validate-traffic.mjs "$traffic" || status=1
echo "traffic recorded and checked in $((SECONDS - started)) s"
exit "$status"
