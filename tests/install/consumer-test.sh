#!/usr/bin/env bash
# Installs a build into a fresh prefix and builds the consumer program against it four ways: the
# CMake package's shared and static libraries, and pkg-config's flags for each. Each program must
# print what the library computes, and nothing may come from the source or build tree: the
# consumer is copied out of the sources, package searches are limited to the prefix, and the
# shared programs must load the prefix's library.
# Last, the Debian package is made and its contents and dependencies checked.
# Usage: consumer-test.sh BUILD_DIR CONSUMER_DIR CMAKE GENERATOR MAKE_PROGRAM CXX
set -euo pipefail
build=$1 consumer=$2 cmake=$3 generator=$4 make_program=$5 cxx=$6

work=$(mktemp -d "${TMPDIR:-/tmp}/qnicloud-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
unset CPATH CPLUS_INCLUDE_PATH LIBRARY_PATH LD_LIBRARY_PATH CMAKE_PREFIX_PATH PKG_CONFIG_PATH

fail() {
    echo "FAIL: $*" >&2
    exit 1
}
quietly() {  # runs a command, showing its output only when it fails
    local out
    out=$("$@" 2>&1) || fail "$*"$'\n'"$out"
}

expected='file:///Container/My%20Documents/Caf%C3%A9/Note.txt
same path: yes
cache entries: 3, found: yes
version: 1.0'
check_output() {  # NAME PROGRAM
    local out
    out=$("$2") || fail "$1: the program failed: $out"
    [ "$out" = "$expected" ] || fail "$1: unexpected output:"$'\n'"$out"
}
check_links() {  # NAME PROGRAM shared|static
    local deps
    deps=$(ldd "$2")
    if [ "$3" = shared ]; then
        grep -q "libQNiCloud\.so\.1 => $prefix/" <<<"$deps" ||
            fail "$1 does not load the installed library:"$'\n'"$deps"
    elif grep -q libQNiCloud <<<"$deps"; then
        fail "$1 should not need the shared library:"$'\n'"$deps"
    fi
}

quietly "$cmake" --install "$build" --prefix "$prefix"
cp -R "$consumer" "$work/src"
[ -x "$prefix/bin/qnicloud" ] || fail "the qnicloud command line is not installed"

# The installed headers compile with nothing but the prefix: none may include a private header.
find "$prefix/include" -name '*.h' -printf '#include "%P"\n' >"$work/headers.cpp"
"$cxx" -std=c++20 -fsyntax-only -I"$prefix/include" "$work/headers.cpp" ||
    fail "the installed headers do not compile on their own"

for kind in shared static; do
    static=OFF
    [ "$kind" = static ] && static=ON
    quietly "$cmake" -S "$work/src" -B "$work/cmake-$kind" -G "$generator" \
        -DCMAKE_MAKE_PROGRAM="$make_program" -DCMAKE_CXX_COMPILER="$cxx" \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
        -DCONSUMER_STATIC=$static
    grep -qx "QNiCloud_DIR:PATH=$prefix/.*" "$work/cmake-$kind/CMakeCache.txt" ||
        fail "CMake ($kind) found the package outside the prefix"
    quietly "$cmake" --build "$work/cmake-$kind"
    check_links "CMake ($kind)" "$work/cmake-$kind/consumer" $kind
    check_output "CMake ($kind)" "$work/cmake-$kind/consumer"
done

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name QNiCloud.pc)")
[ "$(pkg-config --modversion QNiCloud)" = 1.0 ] || fail "pkg-config does not find version 1.0"
# shellcheck disable=SC2046  # the flags are meant to be split
"$cxx" -std=c++20 -o "$work/pc-shared" "$work/src/main.cpp" $(pkg-config --cflags --libs QNiCloud)
libdir=$(pkg-config --variable=libdir QNiCloud)
LD_LIBRARY_PATH=$libdir check_links "pkg-config (shared)" "$work/pc-shared" shared
LD_LIBRARY_PATH=$libdir check_output "pkg-config (shared)" "$work/pc-shared"
# The whole archive, not just what the program uses, so that every dependency of the static
# library must be among the flags of `pkg-config --static`.
static_libs=$(pkg-config --static --libs QNiCloud)
static_libs=${static_libs/-lQNiCloud/-Wl,--whole-archive -l:libQNiCloud.a -Wl,--no-whole-archive}
# shellcheck disable=SC2046,SC2086
"$cxx" -std=c++20 -o "$work/pc-static" "$work/src/main.cpp" $(pkg-config --cflags QNiCloud) \
    $static_libs
check_links "pkg-config (static)" "$work/pc-static" static
check_output "pkg-config (static)" "$work/pc-static"

# The Debian package holds the same installation and says what it needs.
quietly "${cmake%/cmake}/cpack" --config "$build/CPackConfig.cmake" -G DEB -B "$work/deb"
deb=$(find "$work/deb" -maxdepth 1 -name 'qnicloud_*.deb')
[ -n "$deb" ] || fail "cpack made no Debian package"
contents=$(dpkg-deb -c "$deb")
for file in ./usr/bin/qnicloud ./usr/lib/libQNiCloud.so.1 ./usr/lib/libQNiCloud.a \
    ./usr/include/QNiCloud/QNiCloudDocumentsPresenter.h ./usr/lib/pkgconfig/QNiCloud.pc \
    ./usr/lib/cmake/QNiCloud/QNiCloudConfig.cmake; do
    grep -q " $file" <<<"$contents" || fail "the Debian package lacks $file"
done
depends=$(dpkg-deb -f "$deb" Depends)
for package in libfmt-dev libicu libsqlite3; do
    grep -q "$package" <<<"$depends" || fail "the Debian package does not depend on $package: $depends"
done
echo "installed, built against it with CMake and pkg-config, shared and static, and packaged"
