#!/usr/bin/env bash
# Writes the library's API reference (the public C++ and Objective-C headers, and the Swift surface
# described in docs/api/mainpage.md) to build/api-reference/html/ with Doxygen, and fails on any
# warning: an undocumented public name, a broken doc comment. Installs Doxygen when missing.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages doxygen

out=build/api-reference
rm -rf "$out"
mkdir -p "$out"
doxygen docs/api/Doxyfile
echo "API reference: $out/html/index.html"
