#!/usr/bin/env bash
# Builds and runs the demo: a whole support session against the embedded local backend.
# Arguments go to virela-demo (try --help).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BUILD_PACKAGES[@]}"
# Before configuring: the build renders the protocol reference the backend serves at /docs.
ensure_protocol_tools

cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DVIRELA_TESTS=OFF -DVIRELA_BENCH=OFF >/dev/null
cmake --build build/demo --target virela-demo -- -j"$(nproc)"
exec build/demo/apps/demo/virela-demo "$@"
