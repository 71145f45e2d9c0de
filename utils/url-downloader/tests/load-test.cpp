// Many clients and many outstanding requests: every request answered exactly
// once with the right file, and no deadlock when the processing pipe fills up.
// Prints the figures of each run.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include "main-loop.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define UD_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define UD_SANITIZED 1
#endif
#endif
#ifdef UD_SANITIZED
constexpr int kScale = 2; // sanitizers are several times slower
#else
constexpr int kScale = 1;
#endif

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define __SANITIZE_THREAD__ 1
#endif
#endif
#ifdef __SANITIZE_THREAD__
// GLib hands its main-context and allocator state between threads under
// futexes the race detector cannot see, and is not instrumented; what it does
// inside is not ours to check. Weak, so a harness-wide list takes precedence.
extern "C" __attribute__((weak)) const char* __tsan_default_suppressions()
{
    return "called_from_lib:libglib-2.0.so.0\n";
}
#endif

using namespace ud_test;
using namespace std::chrono_literals;

namespace {
constexpr int kUrls = 16;
std::string Body(int url) { return Pattern(1000 + 313 * url, url); }

// Request i's outcome, written by the callback on the main-loop thread.
struct Outcome {
    std::atomic<int> calls{0};
    bool right = false;
};
std::vector<Outcome>* g_outcomes;
std::atomic<int> g_delivered{0};
std::vector<std::string> g_expected; // expected content by request

bool Record(url_downloader_api_h, void* path, void* user_data, int error)
{
    size_t i = (size_t)(uintptr_t)user_data;
    Outcome& o = (*g_outcomes)[i];
    o.right = error == 0 && path != nullptr && ReadFile((const char*)path) == g_expected[i];
    ++o.calls;
    ++g_delivered;
    return true;
}

size_t Threads()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/task"))
        ++n;
    return n;
}

// Runs the main loop until all n are delivered; checks exactly-once and
// contents and prints the figures.
void AwaitAndReport(const char* name, int n, std::chrono::steady_clock::time_point start)
{
    size_t peak_threads = 0;
    EXPECT_TRUE(RunMainLoopUntil(
        [&] {
            peak_threads = std::max(peak_threads, Threads());
            return g_delivered >= n;
        },
        180s))
        << g_delivered << " of " << n << " delivered";
    RunMainLoopUntil([] { return false; }, 100ms); // a duplicate would show up now
    int wrong = 0, not_once = 0;
    for (int i = 0; i < n; ++i) {
        not_once += (*g_outcomes)[i].calls != 1;
        wrong += !(*g_outcomes)[i].right;
    }
    EXPECT_EQ(0, not_once);
    EXPECT_EQ(0, wrong);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%s: requests=%d seconds=%.2f peak_rss_kb=%ld peak_threads=%zu\n", name, n,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), usage.ru_maxrss,
                peak_threads);
}

class Load : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (int u = 0; u < kUrls; ++u)
            server.Route("/f" + std::to_string(u), {200, {}, Body(u)});
    }
    void TearDown() override { url_downloader_finalize(); }
    void Expect(int n, const std::function<std::string(int)>& content)
    {
        outcomes = std::vector<Outcome>(n);
        g_outcomes = &outcomes;
        g_delivered = 0;
        g_expected.clear();
        for (int i = 0; i < n; ++i)
            g_expected.push_back(content(i));
    }
    TestServer server;
    std::vector<Outcome> outcomes;
};

TEST_F(Load, EightClientThreadsOverTwoServices)
{
    const int kThreads = 8, kEach = 250 / kScale, kWindow = 16, n = kThreads * kEach;
    Expect(n, [](int i) { return Body(i % kUrls); });
    url_downloader_h services[2];
    for (auto& s : services)
        ASSERT_EQ(0, url_downloader_register("load", Record, nullptr, &s));
    auto start = std::chrono::steady_clock::now();
    std::atomic<int> refused{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < kThreads; ++t)
        clients.emplace_back([&, t] {
            for (int k = 0; k < kEach; ++k) {
                const int i = t * kEach + k;
                // A client keeps a bounded number of requests open, as a real one
                // would; the server runs a thread per connection.
                for (auto end = std::chrono::steady_clock::now() + 60s;
                     i - g_delivered >= kThreads * kWindow && std::chrono::steady_clock::now() < end;)
                    std::this_thread::sleep_for(1ms);
                url_downloader_api_h api;
                std::string url = server.Url("/f" + std::to_string(i % kUrls));
                refused += url_downloader_download(services[t % 2], TempPath("m" + std::to_string(i)).c_str(),
                                                   url.c_str(), false, (void*)(uintptr_t)i, &api) != 0;
            }
        });
    AwaitAndReport("8 threads x 2 services", n, start);
    for (auto& c : clients)
        c.join();
    EXPECT_EQ(0, refused);
}

TEST_F(Load, TenThousandOutstandingRequestsComplete)
{
    const int n = 10000 / kScale, kEveryNthFetched = 50;
    // Most are answered from the cache, a share goes to the network, all are
    // submitted before any result is taken: the pipe fills up, the list and
    // the idle queue hold them all at once.
    Expect(n, [](int i) { return i % kEveryNthFetched == 0 ? Body(i % kUrls) : Body(0); });
    url_downloader_h svc;
    url_downloader_api_h api;
    ASSERT_EQ(0, url_downloader_register("load", Record, nullptr, &svc));
    std::vector<Outcome> priming(1);
    g_outcomes = &priming;
    ASSERT_EQ(0, url_downloader_download(svc, TempPath("cached").c_str(), server.Url("/f0").c_str(), false, nullptr, &api));
    ASSERT_TRUE(RunMainLoopUntil([] { return g_delivered == 1; }, 10s));
    g_outcomes = &outcomes;
    g_delivered = 0;

    auto start = std::chrono::steady_clock::now();
    size_t fetched_f0 = 0;
    for (int i = 0; i < n; ++i) {
        bool fetch = i % kEveryNthFetched == 0;
        fetched_f0 += fetch && i % kUrls == 0;
        std::string url = server.Url("/f" + std::to_string(fetch ? i % kUrls : 0));
        ASSERT_EQ(0, url_downloader_download(svc, TempPath("o" + std::to_string(i)).c_str(), url.c_str(), !fetch,
                                             (void*)(uintptr_t)i, &api));
    }
    AwaitAndReport("outstanding at once", n, start);
    EXPECT_EQ(1 + fetched_f0, server.RequestCount("/f0")); // the cache answered the rest
}
} // namespace
