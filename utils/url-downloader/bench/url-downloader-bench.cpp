// url-downloader-bench: measures the library through its public API.
// The cache-hit latency, memory per outstanding request, submission cost and
// behaviour while another process holds the cache database's write lock.
// scripts/bench.sh runs it with a private cache database folder.
//
//   url-downloader-bench cache-hit BASE_URL DIR   (BASE_URL/f0000 .. f0999 exist)
//   url-downloader-bench memory DIR COUNT
//   url-downloader-bench submit DIR COUNT...
//   url-downloader-bench sync-cost DIR COUNT BYTES
//   url-downloader-bench cache-lock BASE_URL DIR DB HOLD_S
//                                       (BASE_URL/small/f0000 .. f1999 exist)
//
// Results are printed as "name key=value..." lines on stdout; errors as
// "error: ..." lines there too, since stderr carries libcurl's trace.
#include <fcntl.h>
#include <glib.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "url-downloader-extension.h"
#include "url-downloader.h"

namespace {

using Clock = std::chrono::steady_clock;

double Micros(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::micro>(to - from).count();
}

// What the callback saw; callbacks run only inside the main loop.
struct Delivery {
    GMainLoop* loop = nullptr;
    size_t awaited = 0;
    size_t delivered = 0;
    size_t failed = 0;
    Clock::time_point last;
    std::string last_path;
};
Delivery delivery;

bool OnResult(url_downloader_api_h, void* path, void*, int error)
{
    delivery.last = Clock::now();
    ++delivery.delivered;
    if (error != URL_DOWNLOADER_ERROR_NONE)
        ++delivery.failed;
    delivery.last_path = path != nullptr ? static_cast<const char*>(path) : "";
    if (delivery.awaited > 0 && --delivery.awaited == 0)
        g_main_loop_quit(delivery.loop);
    return true;
}

void WaitFor(size_t count)
{
    if (count == 0)
        return;
    delivery.awaited = count;
    g_main_loop_run(delivery.loop);
}

// Runs pending callbacks for about ms milliseconds.
void Pump(int ms)
{
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < end) {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

url_downloader_h Register()
{
    url_downloader_h service = nullptr;
    const url_downloader_error rc = url_downloader_register("url-downloader-bench", OnResult, nullptr, &service);
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::printf("error: registration failed (%d)\n", static_cast<int>(rc));
        std::exit(1);
    }
    return service;
}

bool Submit(url_downloader_h service, const std::string& path, const std::string& url, bool use_cache,
            std::vector<url_downloader_api_h>* requests = nullptr)
{
    url_downloader_api_h request = nullptr;
    const url_downloader_error rc = url_downloader_download(service, path.c_str(), url.c_str(), use_cache, nullptr,
                                                            &request);
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::printf("error: url_downloader_download failed (%d)\n", static_cast<int>(rc));
        return false;
    }
    if (requests != nullptr)
        requests->push_back(request);
    return true;
}

// prefix followed by index, zero-padded to width digits.
std::string Name(const char* prefix, size_t width, size_t index)
{
    std::string digits = std::to_string(index);
    return prefix + std::string(digits.size() < width ? width - digits.size() : 0, '0') + digits;
}

long RssKiB()
{
    FILE* status = std::fopen("/proc/self/status", "r");
    long kib = -1;
    char line[256];
    while (status != nullptr && std::fgets(line, sizeof line, status) != nullptr)
        if (std::sscanf(line, "VmRSS: %ld kB", &kib) == 1)
            break;
    if (status != nullptr)
        std::fclose(status);
    return kib;
}

// Thousands of sockets at once need more than the usual soft limit.
void RaiseFdLimit()
{
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// A loopback port that takes connections into its backlog and never
// accepts or answers them.
int SilentListener(int* port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, SOMAXCONN) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::printf("error: cannot open a listening socket\n");
        std::exit(1);
    }
    *port = ntohs(address.sin_port);
    return fd;
}

int CacheHit(const std::string& base, const std::string& dir)
{
    const size_t count = 1000;
    const std::string fill = dir + "/fill/";
    const std::string asked = dir + "/hit/";
    g_mkdir_with_parents(fill.c_str(), 0755);
    g_mkdir_with_parents(asked.c_str(), 0755);
    url_downloader_h service = Register();

    // One download each puts the rows into the cache.
    for (size_t i = 0; i < count; ++i)
        if (!Submit(service, fill + Name("f", 4, i), base + "/" + Name("f", 4, i), false))
            return 1;
    WaitFor(count);
    if (delivery.failed != 0) {
        std::printf("error: %zu of %zu downloads into the cache failed\n", delivery.failed, count);
        return 1;
    }

    std::vector<double> latency;
    size_t hits = 0;
    for (size_t i = 0; i < count; ++i) {
        const std::string name = Name("f", 4, i);
        const Clock::time_point start = Clock::now();
        if (!Submit(service, asked + name, base + "/" + name, true))
            return 1;
        WaitFor(1);
        latency.push_back(Micros(start, delivery.last));
        hits += delivery.last_path == fill + name ? 1 : 0; // a hit names the cached copy
    }
    url_downloader_finalize();
    std::sort(latency.begin(), latency.end());
    const double median = (latency[count / 2 - 1] + latency[count / 2]) / 2;
    const double p99 = latency[(count * 99 + 99) / 100 - 1];
    std::printf("cache-hit requests=%zu hits=%zu median_us=%.1f p99_us=%.1f\n", count, hits, median, p99);
    return 0;
}

// What a client pays to poll the progress of every request: sweeps over
// all of them, as a client polling every 100 ms would make ten a second.
void PollProgress(url_downloader_h service, const std::vector<url_downloader_api_h>& requests)
{
    const int sweeps = 20;
    size_t refused = 0;
    const Clock::time_point start = Clock::now();
    for (int sweep = 0; sweep < sweeps; ++sweep)
        for (url_downloader_api_h request : requests) {
            url_downloader_progress_t progress;
            refused += url_downloader_get_progress(service, request, &progress) != URL_DOWNLOADER_ERROR_NONE;
        }
    const double per_sweep_us = Micros(start, Clock::now()) / sweeps;
    std::printf("progress requests=%zu sweeps=%d per_sweep_ms=%.2f per_call_ns=%.0f refused=%zu\n", requests.size(),
                sweeps, per_sweep_us / 1000, per_sweep_us * 1000 / static_cast<double>(requests.size()), refused);
}

int Memory(const std::string& dir, size_t count)
{
    RaiseFdLimit();
    int port = 0;
    const int listener = SilentListener(&port);
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/never/";
    g_mkdir_with_parents((dir + "/mem").c_str(), 0755);
    url_downloader_h service = Register();
    Pump(300); // the library's threads are up and idle
    const long before = RssKiB();

    std::vector<url_downloader_api_h> requests;
    requests.reserve(count);
    for (size_t i = 0; i < count; ++i)
        if (!Submit(service, dir + "/mem/" + Name("f", 5, i), url + Name("", 0, i), false, &requests))
            return 1;
    // The processing thread sets up the transfers after the calls return:
    // wait until the resident size stops growing (at most 20 s).
    long after = RssKiB();
    int steady = 0;
    for (int tick = 0; tick < 100 && steady < 4; ++tick) {
        Pump(200);
        const long now = RssKiB();
        steady = now == after ? steady + 1 : 0;
        after = now;
    }
    std::printf(
        "memory outstanding=%zu callbacks_meanwhile=%zu rss_before_kib=%ld rss_after_kib=%ld "
        "per_request_kib=%.2f\n",
        count, delivery.delivered, before, after, static_cast<double>(after - before) / count);
    PollProgress(service, requests);
    std::fflush(stdout);

    std::atomic<bool> returned{false};
    std::thread watchdog([&returned] {
        for (int i = 0; i < 600 && !returned.load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (!returned.load()) {
            std::printf("finalize returned=no waited_ms=60000\n");
            std::fflush(stdout);
            _exit(1);
        }
    });
    const Clock::time_point start = Clock::now();
    url_downloader_finalize();
    returned = true;
    std::printf("finalize returned=yes ms=%.1f\n", Micros(start, Clock::now()) / 1000);
    watchdog.join();
    close(listener);
    return 0;
}

// What registrations leave behind: the resident size after count
// register/deregister cycles (past a warm-up), and what finalizing an idle
// library costs, averaged over rounds.
int Services(size_t count, size_t rounds)
{
    const auto cycle = [] {
        url_downloader_h service = Register();
        return url_downloader_deregister(service) == URL_DOWNLOADER_ERROR_NONE;
    };
    for (int i = 0; i < 3000; ++i) // past the tombstones the library keeps
        if (!cycle())
            return 1;
    const long before = RssKiB();
    for (size_t i = 0; i < count; ++i)
        if (!cycle())
            return 1;
    const long after = RssKiB();
    std::printf("services cycles=%zu rss_before_kib=%ld rss_after_kib=%ld bytes_per_cycle=%.2f\n", count, before, after,
                static_cast<double>(after - before) * 1024 / count);
    double total_us = 0;
    for (size_t i = 0; i < rounds; ++i) {
        Register();
        const Clock::time_point start = Clock::now();
        url_downloader_finalize();
        total_us += Micros(start, Clock::now());
    }
    std::printf("finalize-idle rounds=%zu mean_ms=%.2f\n", rounds, total_us / 1000 / rounds);
    return 0;
}

int SubmitCost(const std::string& dir, const std::vector<size_t>& counts)
{
    RaiseFdLimit();
    g_mkdir_with_parents((dir + "/submit").c_str(), 0755);
    for (size_t count : counts) {
        int port = 0;
        const int listener = SilentListener(&port);
        const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/never/";
        std::vector<std::string> paths, urls;
        for (size_t i = 0; i < count; ++i) {
            paths.push_back(dir + "/submit/" + Name("f", 5, i));
            urls.push_back(url + Name("", 0, i));
        }
        url_downloader_h service = Register();
        Pump(100);
        const Clock::time_point start = Clock::now();
        for (size_t i = 0; i < count; ++i)
            if (!Submit(service, paths[i], urls[i], false))
                return 1;
        const double us = Micros(start, Clock::now());
        std::printf("submit requests=%zu total_ms=%.2f per_request_us=%.2f\n", count, us / 1000, us / count);
        std::fflush(stdout);
        url_downloader_finalize();
        close(listener);
        GMainLoop* loop = delivery.loop;
        delivery = Delivery();
        delivery.loop = loop;
    }
    return 0;
}

// Seconds spent in sync() when it follows each of count files of bytes
// written into dir; the writes themselves are not counted.
int SyncCost(const std::string& dir, size_t count, size_t bytes)
{
    std::vector<char> data(bytes);
    for (size_t i = 0; i < bytes; ++i)
        data[i] = static_cast<char>(g_random_int());
    double seconds = 0;
    for (size_t i = 0; i < count; ++i) {
        const std::string path = dir + "/" + Name("s", 5, i);
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        size_t written = 0;
        while (fd >= 0 && written < bytes) {
            const ssize_t n = write(fd, data.data() + written, bytes - written);
            if (n <= 0)
                break;
            written += static_cast<size_t>(n);
        }
        if (fd < 0 || written != bytes || close(fd) != 0) {
            std::printf("error: cannot write %s\n", path.c_str());
            return 1;
        }
        const Clock::time_point start = Clock::now();
        sync();
        seconds += Micros(start, Clock::now()) / 1e6;
    }
    std::printf("sync-cost files=%zu bytes=%zu seconds=%.4f\n", count, bytes, seconds);
    return 0;
}

// cache-lock: what a peer process holding the cache database's write lock
// does to a client's callbacks, cancellations and cache rows.
struct LockRequest {
    Clock::time_point submitted;
    Clock::time_point answered;
    int error = -1; // -1: no callback yet
};
struct LockRun {
    std::map<url_downloader_api_h, size_t> pending; // handle -> index into requests
    std::vector<LockRequest> requests;
};
LockRun lock_run;

bool OnLockResult(url_downloader_api_h request, void*, void*, int error)
{
    const Clock::time_point now = Clock::now();
    // A handle is dead once its callback returns and its address may come
    // back for a later request: forget it here.
    const auto found = lock_run.pending.find(request);
    if (found != lock_run.pending.end()) {
        lock_run.requests[found->second].answered = now;
        lock_run.requests[found->second].error = error;
        lock_run.pending.erase(found);
    }
    return true;
}

url_downloader_h RegisterAs(const char* name)
{
    url_downloader_h service = nullptr;
    const url_downloader_error rc = url_downloader_register(name, OnLockResult, nullptr, &service);
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::printf("error: registration of %s failed (%d)\n", name, static_cast<int>(rc));
        std::exit(1);
    }
    return service;
}

// Index of the request in lock_run.requests, or -1 if it was refused.
long SubmitTimed(url_downloader_h service, const std::string& path, const std::string& url, bool use_cache)
{
    LockRequest timed;
    timed.submitted = Clock::now();
    url_downloader_api_h request = nullptr;
    const url_downloader_error rc = url_downloader_download(service, path.c_str(), url.c_str(), use_cache, nullptr,
                                                            &request);
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::printf("error: url_downloader_download of %s failed (%d)\n", url.c_str(), static_cast<int>(rc));
        return -1;
    }
    lock_run.requests.push_back(timed);
    lock_run.pending[request] = lock_run.requests.size() - 1;
    return static_cast<long>(lock_run.requests.size() - 1);
}

// Delivers callbacks until the deadline or until done() holds; a short
// sleep keeps the callback times within about a millisecond.
bool PumpUntil(Clock::time_point deadline, const std::function<bool()>& done = nullptr)
{
    while (!(done && done())) {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        const Clock::time_point now = Clock::now();
        if (now >= deadline)
            return done == nullptr;
        std::this_thread::sleep_for(std::min<Clock::duration>(deadline - now, std::chrono::milliseconds(1)));
    }
    return true;
}

// The peer: waits for "go", takes the write lock, says so, holds it for
// hold_s seconds, commits and reports the steady-clock time of the release.
[[noreturn]] void LockPeer(const std::string& db, size_t hold_s, int go_fd, int report_fd)
{
    char go = 0;
    if (read(go_fd, &go, 1) != 1)
        _exit(1);
    sqlite3* connection = nullptr;
    char state = 'e';
    if (sqlite3_open(db.c_str(), &connection) == SQLITE_OK && sqlite3_busy_timeout(connection, 10000) == SQLITE_OK &&
        sqlite3_exec(connection, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) == SQLITE_OK)
        state = 'l';
    if (write(report_fd, &state, 1) != 1 || state != 'l')
        _exit(1);
    std::this_thread::sleep_for(std::chrono::seconds(hold_s));
    if (sqlite3_exec(connection, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
        _exit(1);
    const int64_t released =
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
    const bool told = write(report_fd, &released, sizeof released) == sizeof released;
    sqlite3_close(connection);
    _exit(told ? 0 : 1);
}

// Rows of this run's downloads by service A, or -1 if the query failed.
long CountRows(sqlite3* connection, const std::string& tag)
{
    // B's URLs carry the same tag followed by "b": those rows are not A's.
    const std::string sql = "select count(*) from qeturlcache where url like '%?lock=" + tag +
                            "-%' and url not like '%?lock=" + tag + "-b%'";
    sqlite3_stmt* statement = nullptr;
    long count = -1;
    if (sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW)
        count = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return count;
}

int CacheLock(const std::string& base, const std::string& dir, const std::string& db, size_t hold_s)
{
    // The peer is forked before the library starts: a child of a process
    // with the library's threads and SQLite connections could inherit a lock
    // held at the fork, or SQLite's record of the parent's file locks.
    int go[2], report[2];
    if (pipe2(go, O_CLOEXEC) != 0 || pipe2(report, O_CLOEXEC) != 0) {
        std::printf("error: cannot create pipes\n");
        return 1;
    }
    std::fflush(stdout);
    const pid_t peer = fork();
    if (peer < 0) {
        std::printf("error: cannot fork the peer\n");
        return 1;
    }
    if (peer == 0) {
        close(go[1]);
        close(report[0]);
        LockPeer(db, hold_s, go[0], report[1]);
    }
    close(go[0]);
    close(report[1]);

    int status = 0; // the return value: 1 once an error line is printed
    const std::string tag = std::to_string(getpid());
    const std::string small = base + "/small/";
    g_mkdir_with_parents(dir.c_str(), 0755);
    url_downloader_h a = RegisterAs("bench-lock-a");
    url_downloader_h b = RegisterAs("bench-lock-b");

    // Untimed: the database and its table exist before the peer opens it.
    const long warm = SubmitTimed(a, dir + "/warm", small + "f1999?warm=" + tag, false);
    if (warm < 0 ||
        !PumpUntil(Clock::now() + std::chrono::seconds(60), [warm] { return lock_run.requests[warm].error >= 0; })) {
        std::printf("error: the first download did not come back within 60 s\n");
        kill(peer, SIGKILL);
        waitpid(peer, nullptr, 0);
        return 1;
    }
    lock_run.requests.clear();

    const char start = 'g';
    char state = 0;
    struct pollfd ready = {report[0], POLLIN, 0};
    if (write(go[1], &start, 1) != 1 || poll(&ready, 1, 10000) != 1 || read(report[0], &state, 1) != 1 ||
        state != 'l') {
        std::printf("error: the peer did not take the database's write lock within 10 s\n");
        kill(peer, SIGKILL);
        waitpid(peer, nullptr, 0);
        url_downloader_finalize();
        return 1;
    }
    const Clock::time_point held = Clock::now();
    const Clock::time_point hold_end = held + std::chrono::seconds(hold_s);
    const Clock::time_point b_at = held + std::chrono::milliseconds(hold_s * 500);

    std::vector<size_t> a_requests;
    std::atomic<bool> cancelled{false};
    double cancel_ms = -1;
    std::thread canceller;
    // B's downloads, then the cancellation that sweeps them: it blocks, so
    // it runs off the main thread, which keeps delivering A's callbacks.
    auto cancel_b = [&] {
        for (size_t i = 0; i < 3; ++i)
            SubmitTimed(b, dir + "/" + Name("b", 4, i),
                        small + Name("f", 4, 1900 + i) + "?lock=" + tag + "-b" + std::to_string(i), true);
        canceller = std::thread([&cancelled, &cancel_ms, b] {
            const Clock::time_point from = Clock::now();
            const url_downloader_error rc = url_downloader_cancel_all_requests(b);
            cancel_ms = Micros(from, Clock::now()) / 1000;
            if (rc != URL_DOWNLOADER_ERROR_NONE)
                std::printf("error: url_downloader_cancel_all_requests failed (%d)\n", static_cast<int>(rc));
            cancelled = true;
        });
    };
    for (size_t i = 1;; ++i) {
        const Clock::time_point at = held + std::chrono::milliseconds(500 * i);
        if (at >= hold_end)
            break;
        if (!canceller.joinable() && b_at <= at) {
            PumpUntil(b_at);
            cancel_b();
        }
        PumpUntil(at);
        const size_t n = a_requests.size();
        const long index = SubmitTimed(a, dir + "/" + Name("d", 4, n),
                                       small + Name("f", 4, n) + "?lock=" + tag + "-" + std::to_string(n), true);
        if (index < 0)
            status = 1;
        else
            a_requests.push_back(static_cast<size_t>(index));
    }
    if (!canceller.joinable())
        cancel_b();
    PumpUntil(hold_end);

    int peer_status = 0;
    if (!PumpUntil(Clock::now() + std::chrono::seconds(15),
                   [&] { return waitpid(peer, &peer_status, WNOHANG) == peer; })) {
        std::printf("error: the peer did not end within 15 s of its hold\n");
        kill(peer, SIGKILL);
        waitpid(peer, &peer_status, 0);
        status = 1;
    }
    int64_t released_ns = 0;
    Clock::time_point released = Clock::now();
    if (WIFEXITED(peer_status) && WEXITSTATUS(peer_status) == 0 &&
        read(report[0], &released_ns, sizeof released_ns) == sizeof released_ns) {
        released = Clock::time_point(
            std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(released_ns)));
    } else {
        std::printf("error: the peer did not commit and report its release\n");
        status = 1;
    }
    close(go[1]);
    close(report[0]);

    auto all_answered = [&a_requests] {
        for (size_t index : a_requests)
            if (lock_run.requests[index].error < 0)
                return false;
        return true;
    };
    if (!PumpUntil(Clock::now() + std::chrono::seconds(120), all_answered)) {
        std::printf("error: not every download of A had its callback 120 s after the hold\n");
        status = 1;
    }
    if (!PumpUntil(Clock::now() + std::chrono::seconds(120), [&cancelled] { return cancelled.load(); })) {
        std::printf("error: url_downloader_cancel_all_requests did not return within 120 s of the hold\n");
        std::fflush(stdout);
        _exit(1);
    }
    canceller.join();

    std::vector<double> latency;
    size_t failed = 0;
    for (size_t index : a_requests) {
        const LockRequest& timed = lock_run.requests[index];
        if (timed.error < 0)
            continue;
        latency.push_back(Micros(timed.submitted, timed.answered) / 1000);
        failed += timed.error != URL_DOWNLOADER_ERROR_NONE ? 1 : 0;
    }
    std::sort(latency.begin(), latency.end());
    const size_t delivered = latency.size();
    const double slowest = delivered > 0 ? latency.back() : -1;
    const double median = delivered == 0 ? -1 : (latency[(delivered - 1) / 2] + latency[delivered / 2]) / 2;

    const long wanted = static_cast<long>(delivered - failed);
    long rows = -1;
    double rows_ms = -1;
    sqlite3* connection = nullptr;
    if (sqlite3_open(db.c_str(), &connection) != SQLITE_OK || sqlite3_busy_timeout(connection, 10000) != SQLITE_OK) {
        std::printf("error: cannot open %s\n", db.c_str());
        status = 1;
    } else {
        const Clock::time_point until = Clock::now() + std::chrono::seconds(10);
        for (;;) {
            rows = CountRows(connection, tag);
            if (rows == wanted) {
                rows_ms = Micros(released, Clock::now()) / 1000;
                break;
            }
            if (Clock::now() + std::chrono::milliseconds(100) > until)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    sqlite3_close(connection);

    url_downloader_deregister(a);
    url_downloader_deregister(b);
    url_downloader_finalize();
    std::printf(
        "cache-lock hold_s=%zu downloads=%zu delivered=%zu failed=%zu slowest_ms=%.1f median_ms=%.1f "
        "cancel_all_ms=%.1f rows=%ld rows_ms_after_release=%.0f\n",
        hold_s, a_requests.size(), delivered, failed, slowest, median, cancel_ms, rows, rows_ms);
    return status;
}

size_t Count(const char* text)
{
    const long value = std::strtol(text, nullptr, 10);
    return value > 0 ? static_cast<size_t>(value) : 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    delivery.loop = g_main_loop_new(nullptr, FALSE);
    int rc = 2;
    if (mode == "cache-hit" && argc == 4) {
        rc = CacheHit(argv[2], argv[3]);
    } else if (mode == "memory" && argc == 4 && Count(argv[3]) > 0) {
        rc = Memory(argv[2], Count(argv[3]));
    } else if (mode == "submit" && argc >= 4) {
        std::vector<size_t> counts;
        for (int i = 3; i < argc; ++i)
            counts.push_back(std::max<size_t>(1, Count(argv[i])));
        rc = SubmitCost(argv[2], counts);
    } else if (mode == "sync-cost" && argc == 5 && Count(argv[3]) > 0) {
        rc = SyncCost(argv[2], Count(argv[3]), Count(argv[4]));
    } else if (mode == "services" && argc == 4 && Count(argv[2]) > 0 && Count(argv[3]) > 0) {
        rc = Services(Count(argv[2]), Count(argv[3]));
    } else if (mode == "cache-lock" && argc == 6 && Count(argv[5]) > 0) {
        rc = CacheLock(argv[2], argv[3], argv[4], Count(argv[5]));
    } else {
        std::fprintf(stderr,
                     "usage: url-downloader-bench cache-hit BASE_URL DIR | memory DIR COUNT | submit DIR COUNT... |"
                     " sync-cost DIR COUNT BYTES | services COUNT ROUNDS | cache-lock BASE_URL DIR DB HOLD_S\n");
    }
    g_main_loop_unref(delivery.loop);
    return rc;
}
