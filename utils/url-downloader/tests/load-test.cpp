// Many client threads and ten thousand outstanding requests, in a process
// allowed 256 descriptors: every request answered exactly once, successfully,
// with the right file, over no more connections than the cap per host.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <sys/resource.h>
#include <vector>

#include "main-loop.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader.h"

using namespace ud_test;
using namespace std::chrono_literals;

namespace {
constexpr int kUrls = 16, kThreads = 8, kRequests = 10000 / kScale, kPerHost = 6;
std::string Body(int url) { return Pattern(1000 + 313 * url, url); }
bool Fetched(int i) { return i % 5 == 0; } // the rest are cache hits of /f0
int Url(int i) { return Fetched(i) ? i % kUrls : 0; }

std::atomic<int> g_calls[kRequests], g_delivered{0}, g_wrong{0}, g_last_wrong{0};

bool Record(url_downloader_api_h, void* path, void* user_data, int error)
{
    const int i = (int)(intptr_t)user_data;
    if (error != 0 || path == nullptr || ReadFile((const char*)path) != Body(Url(i)))
        ++g_wrong, g_last_wrong = i * 100 + error;
    ++g_calls[i];
    ++g_delivered;
    return true;
}

// Eight threads over two services ask for everything before any result is
// taken, so the processing pipe fills up while transfers finish.
TEST(Load, TenThousandOutstandingRequestsFromEightThreadsWithin256Descriptors)
{
    TestServer server;
    for (int u = 0; u < kUrls; ++u)
        server.Route("/f" + std::to_string(u), {200, {}, Body(u)});
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, 256);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    url_downloader_h services[2];
    url_downloader_api_h api;
    for (auto& s : services)
        ASSERT_EQ(0, url_downloader_register("load", Record, nullptr, &s));
    ASSERT_EQ(0, url_downloader_download(services[0], TempPath("cached").c_str(), server.Url("/f0").c_str(), false,
                                         (void*)0, &api));
    ASSERT_TRUE(RunMainLoopUntil([] { return g_delivered == 1; }, 30s));
    g_calls[0] = g_delivered = 0;
    const size_t descriptors = Entries("/proc/self/fd"); // one connection kept

    std::vector<std::future<int>> clients;
    for (int t = 0; t < kThreads; ++t)
        clients.push_back(std::async(std::launch::async, [&, t] {
            int refused = 0;
            url_downloader_api_h request;
            for (int i = t; i < kRequests; i += kThreads)
                refused += url_downloader_download(services[t % 2], TempPath("o" + std::to_string(i)).c_str(),
                                                   server.Url("/f" + std::to_string(Url(i))).c_str(), !Fetched(i),
                                                   (void*)(intptr_t)i, &request) != 0;
            return refused;
        }));
    for (auto& c : clients) {
        if (c.wait_for(180s) != std::future_status::ready) {
            ADD_FAILURE() << "the library stopped taking requests";
            std::_Exit(1); // the blocked threads cannot be recovered
        }
        EXPECT_EQ(0, c.get());
    }
    EXPECT_TRUE(RunMainLoopUntil([] { return g_delivered >= kRequests; }, 180s)) << g_delivered;
    RunMainLoopUntil([] { return false; }, 100ms); // a duplicate would show now
    for (int i = 0; i < kRequests; ++i)
        ASSERT_EQ(1, g_calls[i]) << "request " << i;
    EXPECT_EQ(0, g_wrong) << "failed or with the wrong content, the last: request " << g_last_wrong / 100
                          << " with error " << g_last_wrong % 100;
    EXPECT_EQ(1u + (kRequests + 79) / 80, server.RequestCount("/f0")) << "the cache answered the rest";
    EXPECT_LE(server.PeakConnections(), (size_t)kPerHost);
    EXPECT_LE(Entries("/proc/self/fd"), descriptors + kPerHost - 1) << "idle connections kept after the burst";
    url_downloader_finalize();
}
} // namespace
