// Many client threads and ten thousand outstanding requests: every request
// answered exactly once, successfully, with the right file.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <vector>

#include "main-loop.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader.h"

using namespace ud_test;
using namespace std::chrono_literals;

namespace {
constexpr int kUrls = 16, kThreads = 8, kRequests = 10000 / kScale;
std::string Body(int url) { return Pattern(1000 + 313 * url, url); }
bool Fetched(int i) { return i % 5 == 0; } // the rest are cache hits of /f0
int Url(int i) { return Fetched(i) ? i % kUrls : 0; }

std::atomic<int> g_calls[kRequests], g_delivered{0}, g_wrong{0};

bool Record(url_downloader_api_h, void* path, void* user_data, int error)
{
    const int i = (int)(intptr_t)user_data;
    g_wrong += error != 0 || path == nullptr || ReadFile((const char*)path) != Body(Url(i));
    ++g_calls[i];
    ++g_delivered;
    return true;
}

// Eight threads over two services ask for everything before any result is
// taken, so the processing pipe fills up while transfers finish.
TEST(Load, TenThousandOutstandingRequestsFromEightThreads)
{
    TestServer server;
    for (int u = 0; u < kUrls; ++u)
        server.Route("/f" + std::to_string(u), {200, {}, Body(u)});
    url_downloader_h services[2];
    url_downloader_api_h api;
    for (auto& s : services)
        ASSERT_EQ(0, url_downloader_register("load", Record, nullptr, &s));
    ASSERT_EQ(0, url_downloader_download(services[0], TempPath("cached").c_str(), server.Url("/f0").c_str(), false,
                                         (void*)0, &api));
    ASSERT_TRUE(RunMainLoopUntil([] { return g_delivered == 1; }, 30s));
    g_calls[0] = g_delivered = 0;

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
    EXPECT_EQ(0, g_wrong) << "failed or with the wrong content";
    EXPECT_EQ(1u + (kRequests + 79) / 80, server.RequestCount("/f0")) << "the cache answered the rest";
    url_downloader_finalize();
}
} // namespace
