// Many clients and many outstanding requests: every request answered exactly
// once with the right file, and no deadlock when the processing pipe is full.
// Prints the figures of each run.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include "main-loop.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader.h"

using namespace ud_test;
using namespace std::chrono_literals;

namespace {
constexpr int kUrls = 16;
std::string Body(int url) { return Pattern(1000 + 313 * url, url); }

std::vector<std::atomic<int>>* g_calls; // callbacks per request
std::vector<std::string> g_expected;    // content per request
std::atomic<int> g_delivered{0}, g_wrong{0};

bool Record(url_downloader_api_h, void* path, void* user_data, int error)
{
    size_t i = (size_t)(uintptr_t)user_data;
    g_wrong += error != 0 || path == nullptr || ReadFile((const char*)path) != g_expected[i];
    ++(*g_calls)[i];
    ++g_delivered;
    return true;
}

class Load : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (int u = 0; u < kUrls; ++u)
            server.Route("/f" + std::to_string(u), {200, {}, Body(u)});
    }
    void TearDown() override { url_downloader_finalize(); }
    void Expect(int n, std::string (*content)(int))
    {
        calls = std::vector<std::atomic<int>>(n);
        g_calls = &calls;
        g_delivered = g_wrong = 0;
        g_expected.clear();
        for (int i = 0; i < n; ++i)
            g_expected.push_back(content(i));
        start = std::chrono::steady_clock::now();
    }
    // Runs the main loop until all are delivered, checks exactly-once, prints the figures.
    void AwaitAndReport(const char* name)
    {
        size_t peak_threads = 0;
        const int n = (int)calls.size();
        EXPECT_TRUE(RunMainLoopUntil(
            [&] {
                auto it = std::filesystem::directory_iterator("/proc/self/task");
                peak_threads = std::max(peak_threads, (size_t)std::distance(it, std::filesystem::directory_iterator()));
                return g_delivered >= n;
            },
            180s))
            << g_delivered << " of " << n << " delivered";
        RunMainLoopUntil([] { return false; }, 100ms); // a duplicate would show now
        EXPECT_EQ(0, std::count_if(calls.begin(), calls.end(), [](auto& c) { return c != 1; }));
        EXPECT_EQ(0, g_wrong);
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        std::printf("%s: requests=%d seconds=%.2f peak_rss_kb=%ld peak_threads=%zu\n", name, n,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), usage.ru_maxrss,
                    peak_threads);
    }
    TestServer server;
    std::vector<std::atomic<int>> calls;
    std::chrono::steady_clock::time_point start;
};

TEST_F(Load, EightClientThreadsOverTwoServices)
{
    const int kThreads = 8, kEach = 250 / kScale;
    Expect(kThreads * kEach, [](int i) { return Body(i % kUrls); });
    url_downloader_h services[2];
    for (auto& s : services)
        ASSERT_EQ(0, url_downloader_register("load", Record, nullptr, &s));
    std::vector<std::thread> clients;
    for (int t = 0; t < kThreads; ++t)
        clients.emplace_back([&, t] {
            for (int i = t * kEach; i < (t + 1) * kEach; ++i) {
                // Clients keep a bounded number of requests open; the server
                // runs a thread per connection.
                for (int wait = 0; i - g_delivered >= 128 && wait < 60000; ++wait)
                    std::this_thread::sleep_for(1ms);
                url_downloader_api_h api;
                EXPECT_EQ(0, url_downloader_download(services[t % 2], TempPath("m" + std::to_string(i)).c_str(),
                                                     server.Url("/f" + std::to_string(i % kUrls)).c_str(), false,
                                                     (void*)(uintptr_t)i, &api));
            }
        });
    AwaitAndReport("8 threads x 2 services");
    for (auto& c : clients)
        c.join();
}

TEST_F(Load, TenThousandOutstandingRequestsComplete)
{
    // Every 50th goes to the network, the rest are cache hits; all are
    // submitted before any result is taken, so the pipe fills up and the list
    // and the idle queue hold them all at once.
    const int n = 10000 / kScale;
    auto fetched = [](int i) { return i % 50 == 0; };
    url_downloader_h svc;
    url_downloader_api_h api;
    ASSERT_EQ(0, url_downloader_register("load", Record, nullptr, &svc));
    Expect(1, [](int) { return Body(0); });
    ASSERT_EQ(0, url_downloader_download(svc, TempPath("cached").c_str(), server.Url("/f0").c_str(), false, nullptr, &api));
    ASSERT_TRUE(RunMainLoopUntil([] { return g_delivered == 1; }, 10s));

    Expect(n, [](int i) { return Body(i % 50 == 0 ? i % kUrls : 0); });
    size_t f0_fetches = 1;
    for (int i = 0; i < n; ++i) {
        f0_fetches += fetched(i) && i % kUrls == 0;
        std::string url = server.Url("/f" + std::to_string(fetched(i) ? i % kUrls : 0));
        ASSERT_EQ(0, url_downloader_download(svc, TempPath("o" + std::to_string(i)).c_str(), url.c_str(), !fetched(i),
                                             (void*)(uintptr_t)i, &api));
    }
    AwaitAndReport("outstanding at once");
    EXPECT_EQ(f0_fetches, server.RequestCount("/f0")); // the cache answered the rest
}
} // namespace
