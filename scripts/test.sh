#!/usr/bin/env bash
# Builds everything and runs every check: unit and integration tests (plainly and under the
# address and undefined-behaviour sanitizers), the console's tests in a real browser, the lint of
# the protocol documents and the check of real traffic against them, the API reference (which
# fails on an undocumented public name), the guide's C++ examples against the installed package,
# a short fuzzing run, a short benchmark run, and the iOS type-check (skipped, with a message,
# when VIRELA_IOS_SDK is not set).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${CHECK_PACKAGES[@]}"
# Before configuring: the build renders the protocol reference with them.
ensure_protocol_tools

jobs="$(nproc)"
cmake -S . -B build/test -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/test -- -j"$jobs"

echo "== benchmarks (short run; see README for a full one)"
build/test/bench/virela_bench --benchmark_min_time=0.01 >/dev/null

echo "== iOS type-check"
scripts/check-ios.sh

echo "== the API reference, with every public name documented"
scripts/api-reference.sh

echo "== tests"
ctest --test-dir build/test --output-on-failure -j"$jobs"

echo "== the console in Debian's Chromium, driven by Playwright"
VIRELA_DEMO=build/test/apps/demo/virela-demo scripts/browser-test.sh

echo "== the protocol documents, linted"
scripts/check-protocol.sh

echo "== the protocol documents, held to the traffic of the integration tests and the demo"
scripts/check-traffic.sh

echo "== the installed package, used by a program outside the tree"
# Install what was just built, then build one small program against it with find_package and
# run it against the local backend.
rm -rf build/test/install build/test/consumer
cmake --install build/test --prefix build/test/install >/dev/null
cmake -S tests/consumer -B build/test/consumer -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_PREFIX_PATH="$PWD/build/test/install" >/dev/null
cmake --build build/test/consumer >/dev/null
build/test/consumer/virela-consumer build/test/consumer/state

echo "== the guide's C++ examples, built against the installed package and run"
tests/guide/check-snippets.sh build/test/install build/test/guide

echo "== fuzzing the realtime dispatcher (a fixed, short run; see README for a longer one)"
CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVIRELA_FUZZ=ON \
      -DVIRELA_TESTS=OFF -DVIRELA_BENCH=OFF -DVIRELA_DEMO=OFF >/dev/null
cmake --build build/fuzz --target virela_dispatch_fuzz -- -j"$jobs"
mkdir -p build/fuzz/corpus
build/fuzz/fuzz/virela_dispatch_fuzz -runs=100000 -seed=1 -dict=fuzz/dispatch.dict \
    build/fuzz/corpus fuzz/corpus/dispatch 2>&1 | tail -n 1
echo "== fuzzing remote input against locked views (a fixed, short run)"
cmake --build build/fuzz --target virela_input_fuzz -- -j"$jobs"
mkdir -p build/fuzz/corpus-input
build/fuzz/fuzz/virela_input_fuzz -runs=20000 -seed=1 build/fuzz/corpus-input 2>&1 | tail -n 1
echo "== fuzzing the local backend's request handling (a fixed, short run)"
cmake --build build/fuzz --target virela_backend_fuzz -- -j"$jobs"
mkdir -p build/fuzz/corpus-backend
build/fuzz/fuzz/virela_backend_fuzz -runs=20000 -seed=1 -dict=fuzz/backend.dict \
    build/fuzz/corpus-backend fuzz/corpus/backend 2>&1 | tail -n 1

echo "== tests under address and undefined-behaviour sanitizers"
cmake -S . -B build/sanitize -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVIRELA_SANITIZE=ON \
      -DVIRELA_BENCH=OFF -DVIRELA_DEMO=OFF >/dev/null
cmake --build build/sanitize -- -j"$jobs"
ctest --test-dir build/sanitize --output-on-failure -j"$jobs"
