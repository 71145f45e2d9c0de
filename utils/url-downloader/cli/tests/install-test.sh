#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds a tiny C99 client
# against the installed tree twice, with pkg-config and with CMake's
# find_package, and runs both (they register and finalize; no network).
#   install-test.sh BUILD_DIR DB_REDIRECT_LIBRARY [SANITIZER_FLAGS]
set -euo pipefail
build=$1
redirect=$2
sanitize=${3:-}
cmake=${CMAKE:-cmake}

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

"$cmake" --install "$build" --prefix "$prefix" >"$tmp/install.log"

fail() { echo "FAIL: $*" >&2; exit 1; }
libdir=$(dirname "$(find "$prefix" -name 'libvelmora-urldownloader.so' | head -n 1)")
[ -n "$libdir" ] && [ -d "$libdir" ] || fail "library not installed"
for lib in libvelmora-urldownloader libvelmora-platform; do
    [ -L "$libdir/$lib.so" ] || fail "$lib.so: no development link"
    [ -L "$libdir/$lib.so.0" ] || fail "$lib.so.0: no soname link"
    [ -e "$libdir/$lib.so.0" ] || fail "$lib.so.0: dangling link"
done
[ -f "$prefix/include/url-downloader.h" ] || fail "public header not installed"
[ -x "$prefix/bin/url-downloader" ] || fail "client not installed"
"$prefix/bin/url-downloader" --help >/dev/null || fail "installed client does not run"

cat >"$tmp/tiny.c" <<'EOF'
#include <stdio.h>
#include <url-downloader.h>

int main(void)
{
    url_downloader_h service = NULL;
    url_downloader_error rc = url_downloader_register("install-test", NULL, NULL, &service);
    if (rc != URL_DOWNLOADER_ERROR_NONE || service == NULL) {
        fprintf(stderr, "register: %d\n", (int)rc);
        return 1;
    }
    url_downloader_finalize();
    puts("registered and finalized");
    return 0;
}
EOF

# The tiny programs run like the client under test: with the cache database
# redirected away from the device's real one.
run() {
    LD_PRELOAD=$redirect UD_TEST_DB_DIR=$tmp ASAN_OPTIONS="${ASAN_OPTIONS:-}:verify_asan_link_order=0" "$@"
}

# pkg-config
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion velmora-urldownloader)" != "" ] || fail "pkg-config finds no version"
# shellcheck disable=SC2046,SC2086
gcc -std=c99 -Wall -Wextra -Werror $sanitize "$tmp/tiny.c" -o "$tmp/tiny-pc" \
    $(pkg-config --cflags --libs velmora-urldownloader) -Wl,-rpath,"$libdir"
out=$(run "$tmp/tiny-pc") || fail "pkg-config build: program failed"
[ "$out" = "registered and finalized" ] || fail "pkg-config build printed '$out'"

# find_package
mkdir -p "$tmp/project"
cp "$tmp/tiny.c" "$tmp/project/"
cat >"$tmp/project/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.16)
project(tiny C)
find_package(VelmoraUrlDownloader 0.1 REQUIRED)
add_executable(tiny tiny.c)
set_target_properties(tiny PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON)
target_link_libraries(tiny PRIVATE VelmoraUrlDownloader::velmora-urldownloader)
EOF
"$cmake" -S "$tmp/project" -B "$tmp/project/build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="$sanitize" >"$tmp/cmake.log" 2>&1 || { cat "$tmp/cmake.log"; fail "find_package project: configure"; }
"$cmake" --build "$tmp/project/build" >>"$tmp/cmake.log" 2>&1 || { cat "$tmp/cmake.log"; fail "find_package project: build"; }
out=$(run "$tmp/project/build/tiny") || fail "find_package build: program failed"
[ "$out" = "registered and finalized" ] || fail "find_package build printed '$out'"

echo "installed tree works with pkg-config and find_package"
