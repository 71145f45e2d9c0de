#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds a tiny C99 client
# against the installed tree with pkg-config and with CMake's find_package,
# and runs both (they register and finalize; no network).
#   install-test.sh BUILD_DIR DB_REDIRECT_LIBRARY [SANITIZER_FLAGS]
# A cross build also sets TOOLCHAIN, SYSROOT and EMULATOR (words of a command
# that runs the target's programs).
set -euo pipefail
build=$1 redirect=$2 sanitize=${3:-} cmake=${CMAKE:-cmake}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
read -r -a emulator <<<"${EMULATOR:-}"
cross_cc=() cross_cmake=()
if [ -n "${SYSROOT:-}" ]; then
    cross_cc=(--sysroot="$SYSROOT")
    # The installed tree is one more root beside the sysroot.
    cross_cmake=(-DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DUD_EXTRA_FIND_ROOT="$prefix")
fi
fail() { echo "FAIL: $*" >&2; exit 1; }

"$cmake" --install "$build" --prefix "$prefix" >"$tmp/install.log"
libdir=$(dirname "$(find "$prefix" -name libvelmora-urldownloader.so)")
for lib in libvelmora-urldownloader libvelmora-platform; do
    [ -L "$libdir/$lib.so" ] && [ -e "$libdir/$lib.so.0" ] || fail "$lib: links missing or dangling"
done
[ -f "$prefix/include/url-downloader.h" ] || fail "public header not installed"
"${emulator[@]}" "$prefix/bin/url-downloader" --help >/dev/null || fail "installed client does not run"

mkdir "$tmp/project"
cat >"$tmp/project/tiny.c" <<'EOF'
#include <stdio.h>
#include <url-downloader.h>

int main(void)
{
    url_downloader_h service = NULL;
    if (url_downloader_register("install-test", NULL, NULL, &service) != URL_DOWNLOADER_ERROR_NONE)
        return 1;
    url_downloader_finalize();
    puts("registered and finalized");
    return 0;
}
EOF
cat >"$tmp/project/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.16)
project(tiny C)
find_package(VelmoraUrlDownloader 0.1 REQUIRED)
add_executable(tiny tiny.c)
set_target_properties(tiny PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON)
target_link_libraries(tiny PRIVATE VelmoraUrlDownloader::velmora-urldownloader)
EOF

# Run like the client under test: the cache database kept away from the real one.
check() {
    local out
    out=$(LD_PRELOAD=$redirect UD_TEST_DB_DIR=$tmp \
          ASAN_OPTIONS="${ASAN_OPTIONS:-}:verify_asan_link_order=0" "${emulator[@]}" "$1") || fail "$1 failed"
    [ "$out" = "registered and finalized" ] || fail "$1 printed '$out'"
}

# shellcheck disable=SC2046,SC2086
"${CC:-gcc}" "${cross_cc[@]}" -std=c99 -Wall -Wextra -Werror $sanitize "$tmp/project/tiny.c" -o "$tmp/tiny-pc" \
    $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs velmora-urldownloader) -Wl,-rpath,"$libdir"
check "$tmp/tiny-pc"

"$cmake" -S "$tmp/project" -B "$tmp/project/build" "${cross_cmake[@]}" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$sanitize" \
    >"$tmp/cmake.log" 2>&1 && "$cmake" --build "$tmp/project/build" >>"$tmp/cmake.log" 2>&1 ||
    { cat "$tmp/cmake.log"; fail "find_package project does not build"; }
check "$tmp/project/build/tiny"
echo "installed tree works with pkg-config and find_package"
