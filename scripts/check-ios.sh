#!/usr/bin/env bash
# Type-checks the iOS binding (every .mm and .cpp under platform/ios) and the core's .cpp files
# for arm64-apple-ios15.0 against an iOS SDK's headers. Nothing is built or linked: we cannot
# build for iOS on Linux, but clang can tell us whether the code compiles there.
#
#   VIRELA_IOS_SDK=/path/to/iPhoneOS16.5.sdk scripts/check-ios.sh
#
# Environment:
#   VIRELA_IOS_SDK           the SDK folder (required; without it the check is skipped)
#   VIRELA_NLOHMANN_INCLUDE  the folder that holds nlohmann/json.hpp's "nlohmann" directory
#                            (default /usr/include)
#   CXX                      the clang driver (default clang++)
#
# The C++ standard library comes from the SDK (usr/include/c++/v1), never from this machine.
# nlohmann/json is the one header library taken from the host; it is exposed through a folder
# that contains only it, so no other host header can stand in for a missing SDK header.

set -euo pipefail

if [[ -z "${VIRELA_IOS_SDK:-}" || ! -d "${VIRELA_IOS_SDK}" ]]; then
    echo "ios check skipped: VIRELA_IOS_SDK is not set (see README)"
    exit 0
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
sdk="${VIRELA_IOS_SDK}"
cxx="${CXX:-clang++}"
nlohmann_parent="${VIRELA_NLOHMANN_INCLUDE:-/usr/include}"

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

third_party="$(mktemp -d)"
trap 'rm -rf "${third_party}"' EXIT
ln -s "${nlohmann_parent}/nlohmann" "${third_party}/nlohmann"

# The version header CMake generates from project(... VERSION ...), made the same way here.
generated="${third_party}/generated"
mkdir -p "${generated}/core/base"
version="$(sed -nE 's/^project\(VirelaAgent VERSION ([0-9.]+).*/\1/p' "${root}/CMakeLists.txt")"
sed "s/@PROJECT_VERSION@/${version}/" "${root}/cmake/version.hpp.in" > "${generated}/core/base/version.hpp"

# The same warnings the CMake build makes errors of on our own code.
warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
          -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough -Werror)
common=(-std=c++20 -stdlib=libc++ -target arm64-apple-ios15.0 -isysroot "${sdk}" -fsyntax-only
        "${warnings[@]}" -I"${root}" -I"${generated}" -I"${root}/platform/ios/include" -isystem "${third_party}")

echo "ios check: ${cxx} ($("${cxx}" --version | head -n 1))"
echo "ios check: SDK ${sdk}"

failed=0
checked=0
check() {
    local language="$1" file="$2"
    shift 2
    local relative="${file#"${root}"/}"
    if "${cxx}" -x "${language}" "${common[@]}" "$@" "${file}"; then
        echo "ok      ${relative}"
    else
        echo "FAILED  ${relative}"
        failed=$((failed + 1))
    fi
    checked=$((checked + 1))
}

while IFS= read -r -d '' file; do
    check objective-c++ "${file}" -fobjc-arc
done < <(find "${root}/platform/ios" -name '*.mm' -print0 | sort -z)

# The public header as a pure Objective-C client (and Swift's importer) sees it.
header_probe="${third_party}/public_header.m"
printf '#import "VirelaAgent/Virela.h"\n' > "${header_probe}"
if "${cxx}" -x objective-c -target arm64-apple-ios15.0 -isysroot "${sdk}" -fobjc-arc \
        -fsyntax-only -Wall -Wextra -Werror -I"${root}/platform/ios/include" "${header_probe}"; then
    echo "ok      platform/ios/include/VirelaAgent/Virela.h (as Objective-C)"
else
    echo "FAILED  platform/ios/include/VirelaAgent/Virela.h (as Objective-C)"
    failed=$((failed + 1))
fi
checked=$((checked + 1))

while IFS= read -r -d '' file; do
    check c++ "${file}"
done < <(find "${root}/platform/ios/src" "${root}/core" -name '*.cpp' -print0 | sort -z)

echo "ios check: ${checked} checked, ${failed} failed"
[[ ${failed} -eq 0 ]]
