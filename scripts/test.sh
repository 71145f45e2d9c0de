#!/usr/bin/env bash
# Builds the library and runs the whole test suite three times: plain,
# under AddressSanitizer+UBSan (with LeakSanitizer) and under ThreadSanitizer.
# Any failing test or sanitizer report fails the command.
#   scripts/test.sh              all three runs
#   scripts/test.sh default      only the named runs (default, asan, tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
ud_install_deps

runs=("$@")
[ ${#runs[@]} -eq 0 ] && runs=(default asan tsan)

# Reports abort the test process, so ctest sees a failure.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:halt_on_error=1:detect_stack_use_after_return=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export LSAN_OPTIONS="report_objects=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:exitcode=66"

jobs=$(( $(nproc) * 2 ))
failed=()
for preset in "${runs[@]}"; do
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
