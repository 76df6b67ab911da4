#!/usr/bin/env bash
# Type-checks the iOS binding for arm64-apple-ios15.0 against an iOS SDK's headers: every .mm and
# .cpp of the Objective-C++ target, the core's .cpp files, and every public header on its own and
# through the umbrella header as a plain Objective-C client (and a Clang module, as Swift's
# importer builds it) sees them, and the Objective-C examples of docs/guide.md. Nothing is built
# or linked: we cannot build for iOS on Linux, but clang can tell us whether the code compiles
# there. Swift is NOT compiled here: there is no Swift toolchain for iOS on this machine, so the
# files under platform/ios/swift and platform/ios/tests/swift (and the guide's Swift examples)
# are checked by reading them.
#
#   VIRELA_IOS_SDK=/path/to/iPhoneOS16.5.sdk scripts/check-ios.sh
#
# Environment:
#   VIRELA_IOS_SDK           the SDK folder (required; without it the check is skipped)
#   VIRELA_NLOHMANN_INCLUDE  the folder that holds nlohmann/json's "nlohmann" directory, as
#                            installed (default /usr/include)
#   CXX                      the clang driver (default clang++)
#
# The C++ standard library comes from the SDK (usr/include/c++/v1), never from this machine.
# nlohmann/json is the one header library taken from the host, and it is exposed the way the Swift
# package of nlohmann/json exposes it: its single header, json.hpp, alone in a folder (so no other
# host header can stand in for a missing SDK header either). There is no <nlohmann/json.hpp>
# there, so a file that includes it directly instead of core/base/json.hpp fails here as it would
# in the package.
# Any warning fails the check.

set -euo pipefail

if [[ -z "${VIRELA_IOS_SDK:-}" || ! -d "${VIRELA_IOS_SDK}" ]]; then
    echo "ios check skipped: VIRELA_IOS_SDK is not set (see README)"
    exit 0
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
sdk="${VIRELA_IOS_SDK}"
cxx="${CXX:-clang++}"
nlohmann_parent="${VIRELA_NLOHMANN_INCLUDE:-/usr/include}"
objc="${root}/platform/ios/objc"
public="${objc}/include"

if ! "${cxx}" --version 2>/dev/null | grep -qi clang; then
    echo "ios check: ${cxx} is not clang (set CXX)" >&2
    exit 2
fi
if [[ ! -d "${sdk}/usr/include/c++/v1" ]]; then
    echo "ios check: ${sdk} has no C++ standard library headers (usr/include/c++/v1)" >&2
    exit 2
fi
if [[ ! -f "${nlohmann_parent}/nlohmann/json.hpp" ]]; then
    echo "ios check: nlohmann/json.hpp not found under ${nlohmann_parent}" >&2
    echo "           (set VIRELA_NLOHMANN_INCLUDE)" >&2
    exit 2
fi

scratch="$(mktemp -d)"
trap 'rm -rf "${scratch}"' EXIT

# The release's single header is the library's headers inlined into json.hpp, each once, where it
# is first included; make the same from the host's install.
declare -A inlined=()
nlohmann_include='^[[:space:]]*#[[:space:]]*include[[:space:]]*<nlohmann/([^>]+)>'
inline_json() {
    local file="$1" line
    [[ -n "${inlined[${file}]:-}" ]] && return 0
    inlined[${file}]=1
    while IFS= read -r line || [[ -n "${line}" ]]; do
        if [[ "${line}" =~ ${nlohmann_include} ]]; then
            inline_json "${nlohmann_parent}/nlohmann/${BASH_REMATCH[1]}"
        else
            printf '%s\n' "${line}"
        fi
    done < "${file}"
}
mkdir -p "${scratch}/json"
inline_json "${nlohmann_parent}/nlohmann/json.hpp" > "${scratch}/json/json.hpp"

target=(-target arm64-apple-ios15.0 -isysroot "${sdk}")
# The same warnings the CMake build makes errors of on our own code.
warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
          -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough -Werror)
common=(-std=c++20 -stdlib=libc++ "${target[@]}" -fsyntax-only "${warnings[@]}"
        -I"${root}" -I"${public}" -isystem "${scratch}/json")
# What an app's own Objective-C sees: everything clang has, minus the warnings about the
# app's build itself (padding, pre-C99 style, #import under modules: Apple's own headers).
client=(-x objective-c "${target[@]}" -fobjc-arc -fsyntax-only -I"${public}" -Werror
        -Weverything -Wno-padded -Wno-declaration-after-statement -Wno-poison-system-directories
        -Wno-auto-import)

echo "ios check: ${cxx} ($("${cxx}" --version | head -n 1))"
echo "ios check: SDK ${sdk}"
echo "ios check: Swift sources are not compiled here (no Swift toolchain for iOS)"

failed=0
checked=0
report() {
    local ok="$1" what="$2"
    if [[ "${ok}" == 0 ]]; then
        echo "ok      ${what}"
    else
        echo "FAILED  ${what}"
        failed=$((failed + 1))
    fi
    checked=$((checked + 1))
}

check() {
    local language="$1" file="$2"
    shift 2
    local status=0
    "${cxx}" -x "${language}" "${common[@]}" "$@" "${file}" || status=$?
    report "${status}" "${file#"${root}"/}"
}

while IFS= read -r -d '' file; do
    check objective-c++ "${file}" -fobjc-arc
done < <(find "${objc}" -name '*.mm' -print0 | sort -z)

# Each public header on its own: it must import whatever it uses.
while IFS= read -r -d '' header; do
    relative="${header#"${public}"/}"
    probe="${scratch}/probe.m"
    printf '#import <%s>\n' "${relative}" > "${probe}"
    status=0
    "${cxx}" "${client[@]}" "${probe}" || status=$?
    report "${status}" "platform/ios/objc/include/${relative} (alone, as Objective-C)"
done < <(find "${public}" -name '*.h' -print0 | sort -z)

# The umbrella header names every public header, so `@import` and Swift see all of them.
umbrella="VirelaAgentObjC/VirelaAgentObjC.h"
while IFS= read -r -d '' header; do
    relative="${header#"${public}"/}"
    [[ "${relative}" == "${umbrella}" ]] && continue
    status=0
    grep -qxF "#import <${relative}>" "${public}/${umbrella}" || status=$?
    report "${status}" "platform/ios/objc/include/${relative} (named by the umbrella header)"
done < <(find "${public}" -name '*.h' -print0 | sort -z)

# The umbrella header from a plain Objective-C file, and as the module Swift and `@import` use.
probe="${scratch}/umbrella.m"
printf '#import <%s>\n' "${umbrella}" > "${probe}"
status=0
"${cxx}" "${client[@]}" "${probe}" || status=$?
report "${status}" "platform/ios/objc/include/${umbrella} (umbrella, as Objective-C)"

mkdir -p "${scratch}/module"
cat > "${scratch}/module/module.modulemap" <<MAP
module VirelaAgentObjC {
    umbrella header "${public}/${umbrella}"
    export *
    module * { export * }
}
MAP
probe="${scratch}/module.m"
printf '@import VirelaAgentObjC;\n' > "${probe}"
status=0
"${cxx}" "${client[@]}" -fmodules -fmodules-cache-path="${scratch}/cache" \
    -fmodule-map-file="${scratch}/module/module.modulemap" -Wincomplete-umbrella "${probe}" ||
    status=$?
report "${status}" "platform/ios/objc/include/${umbrella} (as the module VirelaAgentObjC)"

while IFS= read -r -d '' file; do
    check c++ "${file}"
done < <(find "${objc}/src" "${root}/core" -name '*.cpp' -print0 | sort -z)

# The guide's Objective-C examples, each a complete file, as an app's Objective-C sees them.
guide_objc="${scratch}/guide-objc"
"${root}/tests/guide/extract-snippets.sh" objc m "${root}/docs/guide.md" "${guide_objc}" >/dev/null
while IFS= read -r -d '' file; do
    status=0
    "${cxx}" -x objective-c "${target[@]}" -fobjc-arc -fsyntax-only -I"${public}" -Wall -Wextra \
        -Werror "${file}" || status=$?
    report "${status}" "docs/guide.md, Objective-C example $(basename "${file}" .m)"
done < <(find "${guide_objc}" -name '*.m' -print0 | sort -z)

echo "ios check: ${checked} checked, ${failed} failed"
[[ ${failed} -eq 0 ]]
