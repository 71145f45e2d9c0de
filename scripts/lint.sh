#!/usr/bin/env bash
# Lint gate for the C and C++ sources: checks that every tracked file is
# formatted as .clang-format says, then runs clang-tidy (.clang-tidy) over the
# library, its platform stand-ins and the command-line client (not the tests
# or the benchmark). Any finding fails the run.
#
# Usage, from the repository root:
#   scripts/lint.sh BUILD_DIR        (BUILD_DIR holds compile_commands.json,
#                                     e.g. build/default after
#                                     `cmake --preset default`)
# Needs clang-format-14, clang-tidy-14 and run-clang-tidy (Debian packages
# clang-format-14 and clang-tidy-14).
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
build_dir=$1
if [ ! -f "$build_dir/compile_commands.json" ]; then
    echo "lint: no compile_commands.json in $build_dir (run cmake --preset default first)" >&2
    exit 2
fi
if [ ! -f .clang-format ] || [ ! -f .clang-tidy ] ||
    [ "$(git rev-parse --show-toplevel 2>/dev/null)" != "$(pwd -P)" ]; then
    echo "lint: run from the repository root" >&2
    exit 2
fi

pick() { # first tool of the list that is installed
    local t
    for t in "$@"; do
        if command -v "$t" >/dev/null 2>&1; then
            echo "$t"
            return 0
        fi
    done
    echo "lint: none of $* is installed" >&2
    exit 2
}
clang_format=$(pick clang-format-14 clang-format)
clang_tidy=$(pick clang-tidy-14 clang-tidy)
run_clang_tidy=$(pick run-clang-tidy-14 run-clang-tidy)

status=0

# ---- formatting ----
# The client's header keeps the layout it was given in.
mapfile -t sources < <(git ls-files '*.c' '*.h' '*.cpp' ':!:utils/url-downloader/include/url-downloader.h')
unformatted=()
for f in "${sources[@]}"; do
    if ! "$clang_format" --dry-run -Werror "$f" >/dev/null 2>&1; then
        unformatted+=("$f")
    fi
done
if [ ${#unformatted[@]} -gt 0 ]; then
    echo "format: ${#unformatted[@]} of ${#sources[@]} files differ from .clang-format:"
    printf '  %s\n' "${unformatted[@]}"
    echo "  fix with: $clang_format -i <file>..."
    status=1
else
    echo "format: ${#sources[@]} files ok"
fi

# ---- clang-tidy ----
# The library's translation units; headers are checked through them
# (HeaderFilterRegex in .clang-tidy).
mapfile -t units < <(git ls-files 'platform/*.c' 'utils/url-downloader/src/*.cpp' \
    'utils/url-downloader/cli/*.cpp' 'utils/url-downloader/cli/*.c' \
    ':!:utils/url-downloader/cli/tests/*')
root=$(pwd -P)
missing=()
for u in "${units[@]}"; do
    grep -qF "\"file\": \"$root/$u\"" "$build_dir/compile_commands.json" || missing+=("$u")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "tidy: not in $build_dir/compile_commands.json (stale or other checkout?):"
    printf '  %s\n' "${missing[@]}"
    exit 1
fi
# run-clang-tidy takes regular expressions matched against the absolute paths
# of the compilation database: one alternation of the escaped paths.
pattern=$(printf '%s\n' "${units[@]/#/$root/}" | sed 's/[][\.*^$+?(){}|]/\\&/g' | paste -sd '|' -)

log=$(mktemp)
trap 'rm -f "$log"' EXIT
start=$(date +%s)
tidy_rc=0
"$run_clang_tidy" -clang-tidy-binary "$(command -v "$clang_tidy")" -p "$build_dir" -quiet -j "$(nproc)" \
    "^($pattern)\$" >"$log" 2>&1 || tidy_rc=$?
elapsed=$(($(date +%s) - start))

# run-clang-tidy colours its output; findings repeat once per unit that
# includes a header: strip the colour and report each finding once.
findings=$(sed 's/\x1b\[[0-9;]*m//g' "$log" | grep -E '^/.*:[0-9]+:[0-9]+: (warning|error): ' |
    sed "s|^$root/||; s/,-warnings-as-errors\]\$/]/" | sort -u || true)
if [ -n "$findings" ]; then
    count=$(printf '%s\n' "$findings" | wc -l)
    echo "tidy: $count findings in ${#units[@]} units (${elapsed}s):"
    printf '%s\n' "$findings" | sed 's/^/  /'
    echo "tidy: per check:"
    printf '%s\n' "$findings" | grep -oE '\[[^]]+\]$' | sort | uniq -c | sort -rn | sed 's/^/  /'
    status=1
elif [ "$tidy_rc" -ne 0 ]; then
    echo "tidy: run-clang-tidy failed (exit $tidy_rc):"
    sed 's/\x1b\[[0-9;]*m//g' "$log" | grep -v 'warnings generated' | tail -n 40 | sed 's/^/  /'
    status=1
else
    echo "tidy: ${#units[@]} units clean (${elapsed}s)"
fi

exit "$status"
