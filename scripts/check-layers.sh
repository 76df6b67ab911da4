#!/usr/bin/env bash
# Checks every include under core/, platform/, tools/ and apps/ against the include graph in
# scripts/layers.txt. The check is a small C++ program (tools/layers/check_layers.cpp); this builds
# it with the plain compiler when it is missing or older than its source, so that it runs before
# any CMake build exists. CTest runs the same program as Layers.IncludesFollowTheGraph.
set -euo pipefail
cd "$(dirname "$0")/.."

source=tools/layers/check_layers.cpp
program=build/layers/virela-check-layers
if [[ ! -x "$program" || "$source" -nt "$program" ]]; then
    mkdir -p build/layers
    "${CXX:-c++}" -std=c++20 -O1 -o "$program" "$source"
fi
exec "$program" . scripts/layers.txt
