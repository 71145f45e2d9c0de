#!/usr/bin/env bash
# Demo: builds the url-downloader client, serves a small sample folder over
# HTTP on 127.0.0.1, downloads it once, then again with --cache, and shows
# from the server's log that the second run made no transfer. No internet.
#
# It uses the device's shared cache database, /opt/dbspace/.urlcache.db, and
# so runs as root. Its cache rows are deleted again at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "$(id -u)" -ne 0 ]; then
    echo "The demo uses the shared cache database /opt/dbspace/.urlcache.db: run it as root." >&2
    exit 1
fi

. scripts/deps.sh
ud_install_deps

echo "=== Building the client (default preset)"
cmake --preset default >/dev/null
cmake --build --preset default --target url-downloader
client=$PWD/build/default/cli/url-downloader
app=url-downloader-demo

work=$(mktemp -d /tmp/url-downloader-demo.XXXXXX)
server_pid=""
cleanup() {
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

echo "=== Making the sample folder $work/site"
mkdir -p "$work/site/docs" "$work/site/media"
printf 'Hello from the demo server.\n' >"$work/site/hello.txt"
seq 1 20000 >"$work/site/docs/numbers.txt"
head -c 1048576 /dev/urandom >"$work/site/media/noise-1MiB.bin"
head -c 262144 /dev/urandom >"$work/site/media/noise-256KiB.bin"
printf '<html><body>index</body></html>\n' >"$work/site/index.html"
files=(hello.txt docs/numbers.txt media/noise-1MiB.bin media/noise-256KiB.bin index.html)

echo "=== Starting a local HTTP server on 127.0.0.1"
log=$work/server.log
# Port 0: the system picks a free port, which the server prints.
python3 -u -m http.server --bind 127.0.0.1 --directory "$work/site" 0 >"$log" 2>&1 &
server_pid=$!
port=""
for _ in $(seq 1 100); do
    port=$(sed -n 's/^Serving HTTP on .* port \([0-9][0-9]*\) .*/\1/p' "$log" | head -n 1)
    [ -n "$port" ] && break
    kill -0 "$server_pid" 2>/dev/null || break
    sleep 0.1
done
if [ -z "$port" ]; then
    echo "The HTTP server did not start:" >&2
    cat "$log" >&2
    exit 1
fi
echo "Serving $work/site at http://127.0.0.1:$port/"
urls=()
for f in "${files[@]}"; do
    urls+=("http://127.0.0.1:$port/$f")
done

transfers() { grep -c '"GET ' "$log" || true; }

# The library's transfer engine writes its diagnostics to standard error;
# they go to a file so that the client's own output stays readable.
run_client() {
    local name=$1
    shift
    local status=0
    "$client" "$@" 2>"$work/$name.stderr" || status=$?
    if [ "$status" -ne 0 ]; then
        echo "The client failed (exit status $status); its diagnostics:" >&2
        tail -n 40 "$work/$name.stderr" >&2
        exit 1
    fi
}

echo
echo "=== Run 1: downloading ${#urls[@]} files"
before=$(transfers)
run_client run1 get --app "$app" -P "$work/downloads" "${urls[@]}"
run1=$(( $(transfers) - before ))
echo "Server log: $run1 requests during run 1"

echo
echo "=== Run 2: the same batch with --cache"
echo "(cache database: /opt/dbspace/.urlcache.db, shared by every process on this machine)"
before=$(transfers)
run_client run2 get --cache --app "$app" -P "$work/downloads" "${urls[@]}"
run2=$(( $(transfers) - before ))
echo "Server log: $run2 requests during run 2"

echo
echo "=== Removing the demo's rows from the cache"
run_client clean clean --app "$app"

echo
if [ "$run1" -eq "${#urls[@]}" ] && [ "$run2" -eq 0 ]; then
    echo "Demo passed: run 1 transferred ${#urls[@]} files, run 2 was answered from the cache with no transfer."
else
    echo "Demo FAILED: expected ${#urls[@]} requests in run 1 and 0 in run 2, saw $run1 and $run2." >&2
    exit 1
fi
