// url-downloader-bench: the library's cache-hit latency, memory per
// outstanding request and submission cost, through the public API only.
// scripts/bench.sh runs it with a private cache database folder.
//
//   url-downloader-bench cache-hit BASE_URL DIR   (BASE_URL/f0000 .. f0999 exist)
//   url-downloader-bench memory DIR COUNT
//   url-downloader-bench submit DIR COUNT...
//   url-downloader-bench sync-cost DIR COUNT BYTES
//
// Results are printed as "name key=value..." lines on stdout; errors as
// "error: ..." lines there too, since stderr carries libcurl's trace.
#include <fcntl.h>
#include <glib.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

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

bool Submit(url_downloader_h service, const std::string& path, const std::string& url, bool use_cache)
{
    url_downloader_api_h request = nullptr;
    const url_downloader_error rc =
        url_downloader_download(service, path.c_str(), url.c_str(), use_cache, nullptr, &request);
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::printf("error: url_downloader_download failed (%d)\n", static_cast<int>(rc));
        return false;
    }
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
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, SOMAXCONN) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
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

    for (size_t i = 0; i < count; ++i)
        if (!Submit(service, dir + "/mem/" + Name("f", 5, i), url + Name("", 0, i), false))
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
    std::printf("memory outstanding=%zu callbacks_meanwhile=%zu rss_before_kib=%ld rss_after_kib=%ld "
                "per_request_kib=%.2f\n",
                count, delivery.delivered, before, after, static_cast<double>(after - before) / count);
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
    } else {
        std::fprintf(stderr,
                     "usage: url-downloader-bench cache-hit BASE_URL DIR | memory DIR COUNT | submit DIR COUNT... |"
                     " sync-cost DIR COUNT BYTES\n");
    }
    g_main_loop_unref(delivery.loop);
    return rc;
}
