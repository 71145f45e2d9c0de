#!/usr/bin/env bash
# Installs the build into a temporary prefix, runs the installed client, then
# builds install-project's tiny C99 client against the installed tree with
# pkg-config and with CMake's find_package and runs both (no network).
#   [TOOLCHAIN= SYSROOT= EMULATOR=] install-test.sh BUILD_DIR DB_REDIRECT_LIBRARY [SANITIZER_FLAGS]
set -euo pipefail
build=$1 redirect=$2 sanitize=${3:-} cmake=${CMAKE:-cmake}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix project=$(dirname "$0")/install-project
read -r -a emulator <<<"${EMULATOR:-}"
# A cross build: the installed tree is one more root beside the sysroot.
cross_cc=(${SYSROOT:+"--sysroot=$SYSROOT"})
cross_cmake=(${SYSROOT:+"-DCMAKE_TOOLCHAIN_FILE=$TOOLCHAIN" "-DUD_EXTRA_FIND_ROOT=$prefix"})
# Runs like the client under test: the cache database kept away from the real one.
run() {
    LD_PRELOAD=$redirect UD_TEST_DB_DIR=$tmp ASAN_OPTIONS="${ASAN_OPTIONS:-}:verify_asan_link_order=0" \
        "${emulator[@]}" "$@" >/dev/null || { echo "FAIL: $* failed" >&2; exit 1; }
}

"$cmake" --install "$build" --prefix "$prefix" >"$tmp/install.log"
run "$prefix/bin/url-downloader" --help
libdir=$(dirname "$(find "$prefix" -name libvelmora-urldownloader.so)")
# shellcheck disable=SC2046,SC2086
"${CC:-gcc}" "${cross_cc[@]}" -std=c99 -Wall -Wextra -Werror $sanitize "$project/tiny.c" -o "$tmp/tiny-pc" \
    $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs velmora-urldownloader) -Wl,-rpath,"$libdir"
run "$tmp/tiny-pc"
"$cmake" -S "$project" -B "$tmp/build" "${cross_cmake[@]}" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="$sanitize" >"$tmp/cmake.log" 2>&1 && "$cmake" --build "$tmp/build" >>"$tmp/cmake.log" 2>&1 ||
    { cat "$tmp/cmake.log"; echo "FAIL: find_package project does not build" >&2; exit 1; }
run "$tmp/build/tiny"
