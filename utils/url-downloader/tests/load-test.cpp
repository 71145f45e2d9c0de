// Many clients and many outstanding requests: every request answered exactly
// once, successfully, with the right file.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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
    const size_t i = (size_t)(uintptr_t)user_data;
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
    }
    void ExpectEachOnceAndRight()
    {
        const int n = (int)calls.size();
        EXPECT_TRUE(RunMainLoopUntil([&] { return g_delivered >= n; }, 180s)) << g_delivered << " of " << n;
        RunMainLoopUntil([] { return false; }, 100ms); // a duplicate would show now
        for (int i = 0; i < n; ++i)
            ASSERT_EQ(1, calls[i]) << "request " << i;
        EXPECT_EQ(0, g_wrong) << "failed or with the wrong content";
    }
    TestServer server;
    std::vector<std::atomic<int>> calls;
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
                // At most 128 open at once: the server runs a thread per connection.
                for (int wait = 0; i - g_delivered >= 128 && wait < 60000; ++wait)
                    std::this_thread::sleep_for(1ms);
                url_downloader_api_h api;
                EXPECT_EQ(0, url_downloader_download(services[t % 2], TempPath("m" + std::to_string(i)).c_str(),
                                                     server.Url("/f" + std::to_string(i % kUrls)).c_str(), false,
                                                     (void*)(uintptr_t)i, &api));
            }
        });
    ExpectEachOnceAndRight();
    for (auto& c : clients)
        c.join();
}

TEST_F(Load, TenThousandOutstandingRequestsComplete)
{
    // Every 50th goes to the network, the rest are cache hits; all are asked
    // for before any result is taken, so the pipe fills up.
    const int n = 10000 / kScale;
    auto fetched = [](int i) { return i % 50 == 0; };
    url_downloader_h svc;
    url_downloader_api_h api;
    ASSERT_EQ(0, url_downloader_register("load", Record, nullptr, &svc));
    Expect(1, [](int) { return Body(0); });
    ASSERT_EQ(0, url_downloader_download(svc, TempPath("cached").c_str(), server.Url("/f0").c_str(), false, nullptr, &api));
    ExpectEachOnceAndRight();
    Expect(n, [](int i) { return Body(i % 50 == 0 ? i % kUrls : 0); });
    size_t f0_fetches = 1;
    for (int i = 0; i < n; ++i) {
        f0_fetches += fetched(i) && i % kUrls == 0;
        std::string url = server.Url("/f" + std::to_string(fetched(i) ? i % kUrls : 0));
        ASSERT_EQ(0, url_downloader_download(svc, TempPath("o" + std::to_string(i)).c_str(), url.c_str(), !fetched(i),
                                             (void*)(uintptr_t)i, &api));
    }
    ExpectEachOnceAndRight();
    EXPECT_EQ(f0_fetches, server.RequestCount("/f0")); // the cache answered the rest
}
} // namespace
