#!/usr/bin/env bash
# Builds the header-parser fuzz target (clang, libFuzzer + ASan/UBSan) and
# runs it for a bounded time on a scratch copy of the seed corpus.
#   scripts/fuzz.sh [seconds]    default 60
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
case "$seconds" in ''|*[!0-9]*) echo "usage: $0 [seconds]" >&2; exit 2 ;; esac
. scripts/deps.sh
ud_install_deps clang libclang-rt-14-dev

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target header-parser-fuzz

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cp -r utils/url-downloader/tests/fuzz/corpus "$work/corpus"
mkdir -p "$work/artifacts"
# Crashing inputs stay in the build folder for a look afterwards.
keep="build/fuzz/artifacts"
mkdir -p "$keep"

set +e
build/fuzz/fuzz/header-parser-fuzz "$work/corpus" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$keep/" 2>"$work/log"
status=$?
set -e
grep -E '^(stat::|#[0-9]+ *DONE)|ERROR|SUMMARY' "$work/log" || true
if [ "$status" -ne 0 ]; then
    tail -n 40 "$work/log"
    echo "fuzzer failed (exit $status); artifacts in $keep" >&2
    exit "$status"
fi
echo "fuzzing passed: ${seconds}s"
