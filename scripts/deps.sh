#!/usr/bin/env bash
# Installs the Debian packages the build needs, only when some are missing.
# Sourced by demo.sh and test.sh; pass the package names to ensure_packages.

ensure_packages() {
    local missing=()
    local pkg
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
            missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "installing: ${missing[*]}"
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then
        if command -v sudo >/dev/null 2>&1; then
            sudo="sudo"
        else
            echo "missing packages (${missing[*]}) and no root rights to install them" >&2
            return 1
        fi
    fi
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# What the library, the local backend and the demo need to build.
BUILD_PACKAGES=(cmake ninja-build g++ pkg-config libboost1.81-dev nlohmann-json3-dev libssl-dev
                libpng-dev libjpeg62-turbo-dev ca-certificates)
# What the checks add: tests, benchmarks, clang for the fuzzers and the iOS type-check, Doxygen
# for the API reference. locales-all gives the tests a locale whose decimal mark is a comma.
CHECK_PACKAGES=(libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev locales-all
                doxygen)

# Node and the pinned npm packages of tests/protocol, which lint the protocol documents, render
# them as the local backend's /docs page (at build time, so before configuring) and generate the
# realtime fuzzer's seeds. npm ci only when the lock file changed since the last install, or
# nothing is installed. Run from the repository's root.
ensure_protocol_tools() {
    ensure_packages nodejs || return 1
    command -v npm >/dev/null 2>&1 || ensure_packages npm || return 1
    local modules=tests/protocol/node_modules
    if [ ! -f "$modules/.package-lock.json" ] ||
       [ tests/protocol/package-lock.json -nt "$modules/.package-lock.json" ]; then
        # No usage report at install time (Scarf's).
        (cd tests/protocol && SCARF_ANALYTICS=false npm ci --no-audit --no-fund)
    fi
}
