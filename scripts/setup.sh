#!/usr/bin/env bash
# Installs the Debian packages the project needs (only those missing) and builds one preset.
# Usage: scripts/setup.sh [default|asan|tsan|fuzz]   (default: default)
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}

# pkg-config: the install test builds a program with it; dpkg-dev and file: cpack -G DEB lists
# the package's shared-library dependencies with dpkg-shlibdeps.
packages=(g++ cmake ninja-build libfmt-dev libgtest-dev libgmock-dev libbenchmark-dev libicu-dev
          libsqlite3-dev libcli11-dev pkg-config dpkg-dev file libcurl4-openssl-dev libexpat1-dev)
[ "$preset" != fuzz ] || packages+=(clang-16 libclang-rt-16-dev)  # clang 15+ for std::source_location
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
    echo "Installing ${missing[*]}" >&2
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
