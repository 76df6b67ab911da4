#!/usr/bin/env bash
# Builds the C++ examples of docs/guide.md against the installed package, and runs them.
#
# Every ```cpp block of the guide is a complete translation unit: it includes what it uses and
# defines functions, one of them main. Each block is compiled on its own, with warnings as errors,
# and all are linked into one program, so a block may call a function another defines by
# declaring it, as a header would. The program then runs against the local backend it starts
# itself. An example that no longer compiles, links or works fails the test command.
#
#   tests/guide/check-snippets.sh INSTALL_PREFIX BUILD_DIR
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
prefix="$(cd "$1" && pwd)"
build="$2"

rm -rf "${build}"
mkdir -p "${build}"
build="$(cd "${build}" && pwd)"
count="$("${root}/tests/guide/extract-snippets.sh" cpp cpp "${root}/docs/guide.md" \
    "${build}/snippets")"
cmake -S "${root}/tests/guide" -B "${build}" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_PREFIX_PATH="${prefix}" -DVIRELA_SNIPPETS_DIR="${build}/snippets" >/dev/null
if ! cmake --build "${build}" > "${build}/build.log" 2>&1; then
    cat "${build}/build.log" >&2
    exit 1
fi
echo "guide: ${count} C++ examples compiled and linked; running them"
"${build}/virela-guide" "${build}/state" </dev/null ||
    { echo "guide: the examples' program failed" >&2; exit 1; }
