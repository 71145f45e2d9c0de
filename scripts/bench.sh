#!/usr/bin/env bash
# Benchmark: the url-downloader client against curl (the same libcurl) on a
# private nginx over loopback, the library's cache-hit latency, memory per
# outstanding request and submission cost, and what another process holding the
# cache database's write lock does to a client (url-downloader-bench).
#
#   bash scripts/bench.sh
#
# Environment:
#   UD_BENCH_REPS=5         repetitions of each download workload
#   UD_BENCH_ONLY="..."     only these parts (default all): small medium https
#                           big pyserver fdlimit lib cachelock (the last holds
#                           the cache database's lock for 20 s, then 60 s)
#   UD_BENCH_BUILD=DIR      build folder whose client and library are measured,
#                           e.g. an older build (default: the tool build below)
#   UD_BENCH_TOOL_BUILD=DIR where this checkout is configured with the default
#                           preset and built (default: build/default); it gives
#                           url-downloader-bench when UD_BENCH_BUILD has none
#   UD_BENCH_TMP=DIR        parent of the private work folder (default: /var/tmp);
#                           it must be on the same disk as /work
#
# Runs as root: every measurement runs in a private mount namespace where a
# folder of the work folder covers /opt/dbspace, so the device cache database
# is never touched.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
SCRIPT="$ROOT/scripts/bench.sh"

die() {
    echo "bench: $*" >&2
    exit 1
}

now() { echo "$EPOCHREALTIME"; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2; print m }'; }
best() { printf '%s\n' "$@" | sort -g | head -n 1; }
add() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a + b }'; }
ratio() { awk -v r="$1" -v c="$2" 'BEGIN { x = c > 0 ? r / c : 0; printf "%.2f", x }'; }
field() { sed -n "s/.*[[:space:]]$1=\([^[:space:]]*\).*/\1/p" <<<"$2"; }

# Everything below runs inside the private mount namespace.
measure() {
    cd "$WORK"
    local db="$WORK/opt/dbspace"
    mkdir -p "$db"
    if [ -d /opt/dbspace ]; then
        mount --bind "$db" /opt/dbspace
    else
        # No folder to cover: cover /opt itself (in this namespace only), so
        # nothing is created on the host.
        mount --bind "$WORK/opt" /opt
    fi
    [ "$(stat -c %d:%i /opt/dbspace)" = "$(stat -c %d:%i "$db")" ] ||
        die "could not put a private folder over /opt/dbspace"

    local reps="$UD_BENCH_REPS" out="$WORK/out" small=() medium=() https=() py=() many=() i
    for i in $(seq -f %04g 0 1999); do
        many+=("http://127.0.0.1:$HTTP_PORT/small/f$i")
        [ "$i" -ge 1000 ] && continue
        small+=("http://127.0.0.1:$HTTP_PORT/small/f$i")
        https+=("https://127.0.0.1:$HTTPS_PORT/small/f$i")
        [ "$i" -lt 200 ] && py+=("http://127.0.0.1:$PY_PORT/small/f$i")
    done
    for i in $(seq -f %03g 0 99); do medium+=("http://127.0.0.1:$HTTP_PORT/medium/f$i"); done
    local big="http://127.0.0.1:$HTTP_PORT/big/file"

    fresh() { rm -rf "$out" && mkdir -p "$out" && sync; }
    # Downloads that did not end as a whole file (a failed or unanswered one
    # leaves none or a part); a setup fault still stops the benchmark.
    failures() { # files bytes-each
        echo $(($1 - $(find "$out" -type f -size "$2c" | wc -l)))
    }
    # Runs a command with the descriptor limit (0: as it is), at most 120 s;
    # leaves "wall cpu" (user + system) seconds in TIMED.
    timed() {
        local limit="$1" TIMEFORMAT='%R %U %S' t
        shift
        t=$({ time (if [ "$limit" -gt 0 ]; then ulimit -n "$limit"; fi
            timeout 120 "$@" >"$WORK/run.out" 2>/dev/null); } 2>&1) || true
        TIMED=$(awk '{ printf "%.3f %.3f", $1, $2 + $3 }' <<<"$t")
    }
    client() { timed "$LIMIT" "$CLIENT" get -k -P "$out" "$@"; }
    curls() { timed "$LIMIT" curl --parallel --parallel-max 16 -s -k --remote-name-all --output-dir "$out" "$@"; }
    want() { [ -z "${UD_BENCH_ONLY:-}" ] || [[ " $UD_BENCH_ONLY " == *" $1 "* ]]; }
    row() { # name client curl reference aim client-cpu curl-cpu failed
        ROWS+=("$(printf '%-22s %7s %7s %9s %7s %9s %7s %7s %7s   %s' "$1" "$2" "$3" "$4" \
            "$(ratio "$3" "$2")" "$(ratio "$4" "$2")" "$6" "$7" "$8" "$5")")
    }

    # name, files, bytes each, sync-cost key, aim, URLs...
    workload() {
        local name="$1" files="$2" bytes="$3" key="$4" aim="$5" rep c=() u=() cc=() uc=() s=() cf=0 uf=0
        shift 5
        for rep in $(seq "$reps"); do
            fresh; client "$@"; c+=("${TIMED% *}"); cc+=("${TIMED#* }"); cf=$((cf + $(failures "$files" "$bytes")))
            fresh; curls "$@"; u+=("${TIMED% *}"); uc+=("${TIMED#* }"); uf=$((uf + $(failures "$files" "$bytes")))
            if [ -z "${SYNC_COST[$key]:-}" ]; then
                fresh
                s+=("$(field seconds "$("$TOOL" sync-cost "$out" "$files" "$bytes")")")
            fi
        done
        [ -n "${SYNC_COST[$key]:-}" ] || SYNC_COST[$key]=$(median "${s[@]}")
        local cm um
        cm=$(median "${c[@]}") um=$(median "${u[@]}")
        row "$name" "$cm" "$um" "$(add "$um" "${SYNC_COST[$key]}")" "$aim" "$(median "${cc[@]}")" \
            "$(median "${uc[@]}")" "$cf/$uf"
        CPU_PER_FILE["$name"]="$(awk -v a="$(median "${cc[@]}")" -v b="$(median "${uc[@]}")" -v n="$files" \
            'BEGIN { printf "client %.3f ms, curl %.3f ms", a * 1000 / n, b * 1000 / n }')"
        echo "  $name: client ${c[*]} (cpu ${cc[*]}) | curl ${u[*]} (cpu ${uc[*]}) | sync() x $files:" \
            "${SYNC_COST[$key]} s | failed $cf/$uf" >&2
    }

    declare -gA SYNC_COST=() CPU_PER_FILE=()
    ROWS=()
    LIMIT=0
    echo "Measuring ($reps repetitions each)..." >&2
    ! want small || workload "1000 x 4 KiB" 1000 4096 small ">= 1.2 vs curl+sync" "${small[@]}"
    ! want medium || workload "100 x 256 KiB" 100 262144 medium ">= 0.9 vs curl+sync" "${medium[@]}"
    ! want https || workload "HTTPS 1000 x 4 KiB" 1000 4096 small ">= 1.0 vs curl+sync" "${https[@]}"
    ! want pyserver || workload "small server 200x4KiB" 200 4096 py "all 200, <= 3x curl" "${py[@]}"
    LIMIT=256
    ! want fdlimit || workload "2000 x 4 KiB, 256 fds" 2000 4096 many "2000 of 2000" "${many[@]}"
    LIMIT=0
    if want big; then
        # Large-file times jump between two modes on a shared machine: best of each.
        local rep c=() u=() us=() cc=() uc=() cf=0 uf=0 gib=1073741824
        for rep in $(seq "$reps"); do
            fresh; client "$big"; c+=("${TIMED% *}"); cc+=("${TIMED#* }"); cf=$((cf + $(failures 1 $gib)))
            fresh; timed 0 curl -s -o "$out/file" "$big"; u+=("${TIMED% *}"); uc+=("${TIMED#* }")
            uf=$((uf + $(failures 1 $gib)))
            fresh; timed 0 sh -c 'curl -s -o "$1" "$2" && sync' - "$out/file" "$big"; us+=("${TIMED% *}")
        done
        echo "  1 GiB: client ${c[*]} | curl ${u[*]} | curl && sync ${us[*]} | failed $cf/$uf" >&2
        row "1 GiB (best of $reps)" "$(best "${c[@]}")" "$(best "${u[@]}")" "$(best "${us[@]}")" \
            ">= 1.5 vs curl -o && sync" "$(best "${cc[@]}")" "$(best "${uc[@]}")" "$cf/$uf"
    fi
    rm -rf "$out"

    # The library figures, each in a fresh process with an empty cache.
    local lib="$WORK/lib" hit="" mem="" fin="" sub="" svc=""
    if want lib; then
        echo "Library figures..." >&2
        find "${db:?}" -mindepth 1 -delete && rm -rf "$lib" && mkdir -p "$lib"
        hit=$("$TOOL" cache-hit "http://127.0.0.1:$HTTP_PORT/small" "$lib" 2>/dev/null) || die "cache-hit: $hit"
        find "${db:?}" -mindepth 1 -delete && rm -rf "$lib" && mkdir -p "$lib"
        mem=$("$TOOL" memory "$lib" 10000 2>/dev/null) || die "memory: $mem"
        fin=$(grep '^finalize' <<<"$mem")
        find "${db:?}" -mindepth 1 -delete && rm -rf "$lib" && mkdir -p "$lib"
        sub=$("$TOOL" submit "$lib" 1000 2000 4000 8000 2>/dev/null) || die "submit: $sub"
        svc=$("$TOOL" services 100000 50 2>/dev/null) || die "services: $svc"
        rm -rf "$lib"
    fi

    # A peer holding the cache database's write lock, 20 s then 60 s; each run
    # tags its URLs, so the rows of the first never answer the second.
    local locked="$WORK/cachelock" holds=(20 60) locks=() hold
    if want cachelock; then
        echo "Cache database locked by a peer (${holds[*]} s)..." >&2
        find "${db:?}" -mindepth 1 -delete # the database is a dot file
        for hold in "${holds[@]}"; do
            rm -rf "$locked" && mkdir -p "$locked"
            locks+=("$(timeout $((hold + 300)) "$TOOL" cache-lock "http://127.0.0.1:$HTTP_PORT" "$locked" \
                /opt/dbspace/.urlcache.db "$hold" 2>/dev/null)") || true
            echo "  ${locks[-1]//$'\n'/$'\n'  }" >&2
        done
        rm -rf "$locked"
    fi

    echo
    echo "==================== url-downloader bench ===================="
    echo "library:  $(readlink -f "$LIBRARY")"
    echo "client:   $CLIENT"
    echo "curl:     $(curl --version | head -n 1 | cut -d' ' -f1-3)"
    echo "server:   nginx, 1 worker, HTTP/1.1 on 127.0.0.1 (HTTPS: self-signed RSA 2048, TLS, no HTTP/2);"
    echo "          small server: python3 -m http.server (threads, listen backlog 5, HTTP/1.0)"
    echo "disk:     $(df --output=source,fstype "$WORK" | tail -n 1 | tr -s ' ') (downloads and cache database)"
    echo
    echo "Downloads: seconds, median of $reps runs (1 GiB: best run); ratio = reference / client, > 1: client faster;"
    echo "cpu: user + system seconds of the process (median; 1 GiB: best); failed: client/curl, all runs"
    printf '%-22s %7s %7s %9s %7s %9s %7s %7s %7s   %s\n' workload client curl curl+sync "vs curl" "vs c+sync" \
        "cpu cl" "cpu curl" failed aim
    printf '%s\n' "${ROWS[@]}"
    local name
    for name in "1000 x 4 KiB" "HTTPS 1000 x 4 KiB"; do
        [ -z "${CPU_PER_FILE[$name]:-}" ] || echo "cpu per file, $name: ${CPU_PER_FILE[$name]}"
    done
    echo
    echo "client:    url-downloader get -k -P DIR URL... (all URLs at once; stderr to /dev/null)"
    echo "curl:      curl --parallel --parallel-max 16 -s -k --remote-name-all --output-dir DIR URL... (stderr too)"
    echo "curl+sync: median curl time + median total time of N sync() calls, each made right after"
    echo "           writing one more file of the workload's size into the same folder (only the"
    echo "           sync() calls are timed; url-downloader-bench sync-cost). HTTPS reuses the"
    echo "           4 KiB figure. 1 GiB: 'curl -s -o FILE URL && sync' timed whole."
    echo "failed:    files missing or not of their full size after the run (each run ends after 120 s)."
    echo "256 fds:   client and curl run with 'ulimit -n 256'."
    echo "Every run starts with an empty output folder and a sync (not timed)."
    echo
    if [ -n "$hit" ]; then
        echo "Library (url-downloader-bench, normal logging):"
        printf '  %-44s %-36s %s\n' "cache hit, 1000 rows, one request at a time" \
            "median $(field median_us "$hit") us, p99 $(field p99_us "$hit") us" "aim < 100 us median, < 250 us p99"
        printf '  %-44s %s\n' "" "($(field hits "$hit") of 1000 answered from the cache)"
        printf '  %-44s %-36s %s\n' "memory per outstanding request (10,000)" "$(field per_request_kib "$mem") KiB" \
            "aim <= 16 KiB"
        printf '  %-44s %s\n' "" "(VmRSS $(field rss_before_kib "$mem") -> $(field rss_after_kib "$mem") KiB;" \
            "" "$(field callbacks_meanwhile "$mem") callbacks came meanwhile; silent loopback listener)"
        local poll
        poll=$(grep '^progress' <<<"$mem" || true)
        printf '  %-44s %-36s %s\n' "progress poll of all 10,000 (extension)" \
            "$(field per_sweep_ms "$poll") ms a sweep, $(field per_call_ns "$poll") ns a call" \
            "every 100 ms: $(awk -v ms="$(field per_sweep_ms "$poll")" 'BEGIN { printf "%.1f", ms / 100 * 100 }')% of a core"
        printf '  %-44s %s\n' "finalize with them outstanding" \
            "$(if [ "$(field returned "$fin")" = yes ]; then echo "returned in $(field ms "$fin") ms"; else echo "DID NOT RETURN in 60 s"; fi)"
        printf '  %-44s %s\n' "100,000 register/deregister cycles" \
            "VmRSS $(field rss_before_kib "$svc") -> $(field rss_after_kib "$svc") KiB ($(field bytes_per_cycle "$svc") bytes per cycle)"
        printf '  %-44s %s\n' "finalize of an idle library (50 rounds)" "mean $(field mean_ms "$(grep '^finalize-idle' <<<"$svc")") ms"
        local line first=""
        while read -r line; do
            local n us
            n=$(field requests "$line") us=$(field per_request_us "$line")
            [ -n "$first" ] || first="$us"
            printf '  %-44s %-36s %s\n' "submission, $n requests" \
                "$us us/request ($(field total_ms "$line") ms)" "aim linear: $(ratio "$us" "$first") x of 1000's"
        done <<<"$sub"
    fi
    if [ "${#locks[@]}" -gt 0 ]; then
        echo "Cache database write-locked by a peer process (url-downloader-bench cache-lock):"
        echo "  service A asks for one new URL every 0.5 s with use_cache; at half the hold service B"
        echo "  asks for 3 and cancels them all from another thread; callback times from the submission."
        printf '  %-6s %-10s %-17s %-12s %-10s %-11s %-13s %s\n' hold downloads "callbacks/failed" "slowest" \
            median "cancel-all" "rows/success" "all rows after release"
        local i result line
        for i in "${!locks[@]}"; do
            result="${locks[$i]}"
            line=$(grep '^cache-lock' <<<"$result" || true)
            if [ -z "$line" ]; then
                printf '  %-6s %s\n' "${holds[$i]} s" "no result"
            else
                local ok rows_ms
                ok=$(($(field delivered "$line") - $(field failed "$line")))
                rows_ms=$(field rows_ms_after_release "$line")
                [ "$rows_ms" != -1 ] && rows_ms="$rows_ms ms" || rows_ms="not within 10 s"
                printf '  %-6s %-10s %-17s %-12s %-10s %-11s %-13s %s\n' "$(field hold_s "$line") s" \
                    "$(field downloads "$line")" "$(field delivered "$line")/$(field failed "$line")" \
                    "$(field slowest_ms "$line") ms" "$(field median_ms "$line") ms" \
                    "$(field cancel_all_ms "$line") ms" "$(field rows "$line")/$ok" "$rows_ms"
            fi
            grep '^error' <<<"$result" | sed 's/^/    /' || true
        done
    fi
    echo "=============================================================="
}

if [ "${1:-}" = __measure ]; then
    measure
    exit 0
fi

[ "$(id -u)" -eq 0 ] || die "needs root: the measurements run in a private mount namespace (unshare --mount)"
unshare --mount --propagation private true ||
    die "cannot make a private mount namespace (unshare --mount): refusing to run next to the device cache"
source "$ROOT/scripts/deps.sh"
ud_install_deps nginx curl

export UD_BENCH_REPS="${UD_BENCH_REPS:-5}"
TOOL_BUILD="$(realpath -m "${UD_BENCH_TOOL_BUILD:-$ROOT/build/default}")"
BUILD="$(realpath -m "${UD_BENCH_BUILD:-$TOOL_BUILD}")"
targets=(url-downloader-bench)
[ -n "${UD_BENCH_BUILD:-}" ] || targets+=(url-downloader)
if [ -z "${UD_BENCH_BUILD:-}" ] || [ ! -x "$BUILD/bench/url-downloader-bench" ]; then
    echo "Building ${targets[*]} in $TOOL_BUILD..." >&2
    mkdir -p "$TOOL_BUILD"
    log="$TOOL_BUILD/bench-build.log"
    (cd "$ROOT" && cmake --preset default -B "$TOOL_BUILD" && cmake --build "$TOOL_BUILD" --target "${targets[@]}") \
        >"$log" 2>&1 || { tail -n 30 "$log" >&2; die "build failed (log: $log)"; }
fi
export CLIENT="$BUILD/cli/url-downloader"
export LIBRARY="$BUILD/libvelmora-urldownloader.so.0"
export TOOL="$BUILD/bench/url-downloader-bench"
[ -x "$TOOL" ] || TOOL="$TOOL_BUILD/bench/url-downloader-bench"
[ -x "$CLIENT" ] && [ -e "$LIBRARY" ] && [ -x "$TOOL" ] || die "no client, library or bench program in $BUILD"
# The bench program only uses the public interface: it runs on the library
# under test whichever build it came from.
export LD_LIBRARY_PATH="$BUILD${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"

parent="${UD_BENCH_TMP:-/var/tmp}"
export WORK
WORK="$(mktemp -d "$parent/ud-bench.XXXXXX")"
NGINX_PID=""
PY_PID=""
cleanup() {
    local pid
    for pid in $NGINX_PID $PY_PID; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null || true; done
    rm -rf "$WORK"
}
trap cleanup EXIT
chmod 755 "$WORK"
[ "$(stat -c %d "$WORK")" = "$(stat -c %d /work 2>/dev/null || stat -c %d "$ROOT")" ] ||
    die "$parent is not on the same disk as /work: set UD_BENCH_TMP"
[ "$(stat -f -c %T "$WORK")" != tmpfs ] || die "$parent is a tmpfs: set UD_BENCH_TMP"

echo "Making the test files in $WORK..." >&2
mkdir -p "$WORK/www/small" "$WORK/www/medium" "$WORK/www/big" "$WORK/nginx" "$WORK/opt"
head -c $((2000 * 4096)) /dev/urandom | split -b 4096 -d -a 4 - "$WORK/www/small/f"
head -c $((100 * 262144)) /dev/urandom | split -b 262144 -d -a 3 - "$WORK/www/medium/f"
head -c 1073741824 /dev/urandom >"$WORK/www/big/file"
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 \
    -keyout "$WORK/nginx/key.pem" -out "$WORK/nginx/cert.pem" 2>/dev/null

read -r HTTP_PORT HTTPS_PORT PY_PORT < <(python3 -c '
import socket
s = [socket.socket() for _ in range(3)]
for x in s: x.bind(("127.0.0.1", 0))
print(*[x.getsockname()[1] for x in s])')
export HTTP_PORT HTTPS_PORT PY_PORT
n="$WORK/nginx"
cat >"$n/nginx.conf" <<EOF
worker_processes 1;
pid $n/nginx.pid;
error_log $n/error.log warn;
events { worker_connections 4096; }
http {
    access_log off;
    client_body_temp_path $n/body;
    proxy_temp_path $n/proxy;
    fastcgi_temp_path $n/fastcgi;
    uwsgi_temp_path $n/uwsgi;
    scgi_temp_path $n/scgi;
    default_type application/octet-stream;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 100000;
    server { listen 127.0.0.1:$HTTP_PORT; root $WORK/www; }
    server {
        listen 127.0.0.1:$HTTPS_PORT ssl;
        ssl_certificate $n/cert.pem;
        ssl_certificate_key $n/key.pem;
        root $WORK/www;
    }
}
EOF
nginx -p "$n/" -e "$n/error.log" -c "$n/nginx.conf" -g 'daemon off;' &
NGINX_PID=$!
for _ in $(seq 50); do
    curl -sfk -o /dev/null "https://127.0.0.1:$HTTPS_PORT/small/f0000" &&
        curl -sf -o /dev/null "http://127.0.0.1:$HTTP_PORT/small/f0000" && break
    sleep 0.1
done
curl -sf -o /dev/null "http://127.0.0.1:$HTTP_PORT/small/f0000" || die "nginx did not start: $(tail -n 5 "$n/error.log")"
# A folder served the way people do it in a hurry: Python's threading server
# with its default listen backlog (5) and one connection per request.
python3 -m http.server --bind 127.0.0.1 --directory "$WORK/www" "$PY_PORT" >/dev/null 2>&1 &
PY_PID=$!
for _ in $(seq 50); do curl -sf -o /dev/null "http://127.0.0.1:$PY_PORT/small/f0000" && break; sleep 0.1; done
curl -sf -o /dev/null "http://127.0.0.1:$PY_PORT/small/f0000" || die "python3 -m http.server did not start"

unshare --mount --propagation private -- bash "$SCRIPT" __measure || die "the measurements failed"
