#!/usr/bin/env bash
# Checks the sources, then builds the library and runs the whole test suite
# four times: plain, under AddressSanitizer+UBSan (with LeakSanitizer), under
# ThreadSanitizer, and cross-built for the device (32-bit ARM, armhf) under
# qemu-user. The check (run "lint") is clang-format and clang-tidy
# (scripts/lint.sh) and clang's thread-safety analysis of the locks
# (scripts/thread-safety.sh). Any finding, failing test or sanitizer report
# fails the command.
#   scripts/test.sh              all five runs
#   scripts/test.sh default      only the named runs (lint, default, asan, tsan, armhf)
# UD_SKIP_ARMHF=1 leaves the armhf run out, and says so at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
ud_install_deps

runs=("$@")
[ ${#runs[@]} -eq 0 ] && runs=(lint default asan tsan armhf)
skipped=()
if [ "${UD_SKIP_ARMHF:-0}" = 1 ] && [[ " ${runs[*]} " == *" armhf "* ]]; then
    runs=("${runs[@]/armhf/}")
    skipped+=(armhf)
fi
if [[ " ${runs[*]} " == *" armhf "* ]]; then
    # The cross compiler and the emulator come from the host's own packages;
    # the target's libraries go into a private sysroot (cached).
    ud_install_deps g++-arm-linux-gnueabihf qemu-user-static
    echo "=== armhf: sysroot"
    start=$SECONDS
    UD_ARMHF_SYSROOT=$(bash scripts/armhf-sysroot.sh | tail -n 1)
    export UD_ARMHF_SYSROOT
    echo "sysroot ready in $((SECONDS - start)) s: $UD_ARMHF_SYSROOT"
fi

# Reports abort the test process, so ctest sees a failure.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:halt_on_error=1:detect_stack_use_after_return=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export LSAN_OPTIONS="report_objects=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:exitcode=66"

jobs=$(( $(nproc) * 2 ))
failed=()
for preset in "${runs[@]}"; do
    [ -n "$preset" ] || continue
    if [ "$preset" = lint ]; then
        ud_install_deps clang-14 clang-format-14 clang-tidy-14
        echo "=== lint: format, clang-tidy, thread-safety analysis"
        cmake --preset default >/dev/null
        if ! bash scripts/lint.sh build/default || ! bash scripts/thread-safety.sh build/default; then
            failed+=(lint)
        fi
        continue
    fi
    echo "=== ${preset}: configure and build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    echo "=== ${preset}: test"
    if ! ctest --preset "$preset" -j "$jobs"; then
        failed+=("$preset")
    fi
done

if [ ${#failed[@]} -ne 0 ]; then
    echo "FAILED runs: ${failed[*]}"
    exit 1
fi
echo "All runs passed: ${runs[*]}"
if [ ${#skipped[@]} -ne 0 ]; then
    echo "!!! SKIPPED runs (UD_SKIP_ARMHF=1): ${skipped[*]} - the device's build was NOT tested !!!"
fi
