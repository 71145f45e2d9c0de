// The public calls end to end against a loopback server and a real cache
// database: argument checks, outcomes in the main loop, the cache, proxies,
// cancellation and deregistration.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "log-capture.h"
#include "main-loop.h"
#include "test-db.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader.h"

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
// Polls without running the main loop, so that results stay undelivered.
bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    for (auto end = std::chrono::steady_clock::now() + timeout; !done(); std::this_thread::sleep_for(2ms))
        if (std::chrono::steady_clock::now() > end)
            return false;
    return true;
}

const Delivery* Find(const std::vector<Delivery>& all, url_downloader_api_h api)
{
    for (const Delivery& d : all)
        if (d.api == api)
            return &d;
    return nullptr;
}

class PublicApi : public ::testing::Test {
protected:
    void SetUp() override
    {
        Deliveries::Clear();
        server.Route("/a", {200, {}, Pattern(5000, 1)});
        server.Route("/slow", {200, {}, Pattern(100000, 3), false, 1000});
        ASSERT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_register("app", Deliveries::Callback, nullptr, &svc));
    }
    void TearDown() override
    {
        url_downloader_finalize();
        RunMainLoopUntil([] { return false; }, 50ms); // lets swept records go
    }
    url_downloader_api_h Download(const std::string& url, const std::string& file, bool cache = false,
                                  url_downloader_h service = nullptr)
    {
        url_downloader_api_h api = nullptr;
        EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_download(service ? service : svc, TempPath(file).c_str(),
                                                                     url.c_str(), cache, nullptr, &api));
        return api;
    }

    TestServer server;
    LogCapture log;
    url_downloader_h svc = nullptr;
};

TEST_F(PublicApi, ArgumentsAreCheckedInOrderWithTheirLogLines)
{
    url_downloader_service_t stranger{}; // never registered
    url_downloader_api_h api;
    url_downloader_config_t proxy{const_cast<char*>("http://127.0.0.1:1")}, no_proxy{nullptr};
    struct Case {
        int got, want;
        const char *func, *text;
    } const cases[] = {
        {url_downloader_register("x", nullptr, nullptr, nullptr), 1, "url_downloader_register", "Handle not allocated\n"},
        {url_downloader_download(nullptr, nullptr, nullptr, false, nullptr, nullptr), 1, "url_downloader_download",
         "NULL service\n"},
        {url_downloader_download(svc, "/p", "u", false, nullptr, nullptr), 15, "url_downloader_download", "NULL api-handle"},
        {url_downloader_download(&stranger, nullptr, nullptr, false, nullptr, &api), 1, "url_downloader_download",
         "Invalid service"},
        {url_downloader_download(svc, nullptr, nullptr, false, nullptr, &api), 3, "url_downloader_download", "NULL filename"},
        {url_downloader_download(svc, "/p", nullptr, false, nullptr, &api), 2, "url_downloader_download", "NULL URL"},
        {url_downloader_cancel_request(nullptr, nullptr), 1, "url_downloader_cancel_request", "NULL service"},
        {url_downloader_cancel_request(&stranger, nullptr), 1, "url_downloader_cancel_request", "Invalid service"},
        {url_downloader_cancel_request(svc, nullptr), 15, "url_downloader_cancel_request", "Invalid api handle"},
        {url_downloader_cancel_all_requests(nullptr), 1, "url_downloader_cancel_all_requests", "NULL service"},
        {url_downloader_cancel_all_requests(&stranger), 1, "url_downloader_cancel_all_requests", "Invalid service"},
        {url_downloader_configure_network(nullptr, &proxy), 1, "url_downloader_configure_network", "invalid handle"},
        {url_downloader_configure_network(svc, &no_proxy), 19, "url_downloader_configure_network", "invalid handle"},
        {url_downloader_configure_network(&stranger, &proxy), 1, "url_downloader_configure_network", "Invalid service"},
        {url_downloader_clean(nullptr), 1, "url_downloader_clean", "NULL service"},
        {url_downloader_clean(&stranger), 1, "url_downloader_clean", "Invalid service"},
        {url_downloader_deregister(nullptr), 1, "url_downloader_deregister", "NULL service"},
        {url_downloader_deregister(&stranger), 1, "url_downloader_deregister", "Invalid service"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.want, c.got) << c.func << ": " << c.text;
        EXPECT_TRUE(log.Contains(kError, c.func, c.text)) << c.func << ": " << c.text;
    }
    EXPECT_EQ(0, Deliveries::Count());
}

TEST_F(PublicApi, OutcomesArriveOnTheMainLoopThreadAndOnlySuccessesAreCached)
{
    auto ok = Download(server.Url("/a"), "ok"), bad = Download(server.Url("/none"), "bad"),
         slow = Download(server.Url("/slow"), "slow");
    ASSERT_TRUE(server.WaitForRequests("/slow", 1, 10s));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, url_downloader_cancel_request(svc, slow));
    ASSERT_TRUE(Deliveries::WaitFor(3, 20s));
    auto all = Deliveries::All();
    for (const Delivery& d : all)
        EXPECT_EQ(std::this_thread::get_id(), d.thread);
    ASSERT_TRUE(Find(all, ok) && Find(all, bad) && Find(all, slow));
    EXPECT_EQ(0, Find(all, ok)->error);
    EXPECT_EQ(TempPath("ok"), Find(all, ok)->path.value_or(""));
    EXPECT_EQ(Pattern(5000, 1), ReadFile(TempPath("ok")));
    EXPECT_EQ(6, Find(all, bad)->error);
    EXPECT_FALSE(Find(all, bad)->path);
    EXPECT_EQ(16, Find(all, slow)->error);
    EXPECT_FALSE(Find(all, slow)->path);
    // Admitted without the cache flag; the failure is not.
    EXPECT_EQ(1, CountCacheRows());
    EXPECT_EQ(URL_DOWNLOADER_ERROR_INVALID_API_HANDLE, url_downloader_cancel_request(svc, ok));
    server.Release("/slow");
}

TEST_F(PublicApi, CacheHitsSkipTheServerAndAUrlIsRecordedOnce)
{
    Download(server.Url("/a"), "first");
    ASSERT_TRUE(Deliveries::WaitFor(1, 10s));
    Download(server.Url("/a"), "second"); // no cache flag: fetched again
    ASSERT_TRUE(Deliveries::WaitFor(2, 10s));
    auto hit = Download(server.Url("/a"), "third", true);
    ASSERT_TRUE(Deliveries::WaitFor(3, 10s));
    EXPECT_EQ(2u, server.RequestCount("/a"));
    EXPECT_EQ(1, CountCacheRows());
    auto all = Deliveries::All();
    const Delivery* d = Find(all, hit);
    ASSERT_TRUE(d);
    EXPECT_EQ(0, d->error);
    EXPECT_EQ(TempPath("first"), d->path.value_or(""));
    EXPECT_FALSE(FileExists(TempPath("third")));
}

TEST_F(PublicApi, ProxyGivenLaterIsUsedAndCleanDeletesOnlyTheAppsRows)
{
    std::string proxy_url = server.Url("");
    url_downloader_config_t proxy{proxy_url.data()};
    EXPECT_EQ(0, url_downloader_configure_network(svc, &proxy));
    EXPECT_EQ(0, url_downloader_configure_network(svc, &proxy)); // replaces the first copy
    Download("http://example.invalid/a", "proxied");
    url_downloader_h other, nameless;
    ASSERT_EQ(0, url_downloader_register("other", Deliveries::Callback, nullptr, &other));
    ASSERT_EQ(0, url_downloader_register(nullptr, Deliveries::Callback, nullptr, &nameless));
    Download(server.Url("/a"), "other", false, other);
    ASSERT_TRUE(Deliveries::WaitFor(2, 10s));
    size_t proxied = 0;
    for (const auto& r : server.Requests())
        proxied += r.via_proxy && r.path == "/a";
    EXPECT_EQ(1u, proxied);
    EXPECT_EQ(1, CountCacheRows("appname='app'"));
    EXPECT_EQ(0, url_downloader_clean(svc));
    EXPECT_EQ(0, CountCacheRows("appname='app'"));
    EXPECT_EQ(1, CountCacheRows("appname='other'"));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_CACHE_CLEAN_FAILED, url_downloader_clean(nameless));
}

TEST_F(PublicApi, CancelAllDropsRequestsWithoutCallbacksAndTheServiceGoesOn)
{
    // Results handed over but not yet delivered, and transfers running.
    std::vector<url_downloader_api_h> dropped;
    for (int i = 0; i < 10; ++i)
        dropped.push_back(Download(server.Url("/a"), "done" + std::to_string(i)));
    ASSERT_TRUE(Eventually([&] { return log.Count(kDebug, "_url_downloader_resp_callback", ">>>>>>>>Begin.") == 10; }, 10s));
    for (int i = 0; i < 3; ++i)
        dropped.push_back(Download(server.Url("/slow"), "slow" + std::to_string(i)));
    ASSERT_TRUE(server.WaitForRequests("/slow", 3, 10s));
    ASSERT_EQ(0, url_downloader_cancel_all_requests(svc));
    for (auto api : dropped) // already swept when the call returned
        EXPECT_EQ(URL_DOWNLOADER_ERROR_INVALID_API_HANDLE, url_downloader_cancel_request(svc, api));

    // New requests (which may reuse the dropped ones' memory) must not be
    // taken for dropped ones whose hand-over is still queued.
    server.Route("/late", {200, {}, Pattern(3000, 4), false, 100});
    std::vector<url_downloader_api_h> fresh;
    for (int i = 0; i < 10; ++i)
        fresh.push_back(Download(server.Url("/late"), "fresh" + std::to_string(i)));
    EXPECT_FALSE(RunMainLoopUntil([] { return Deliveries::Count() > 0; }, 500ms));
    server.Release("/late");
    ASSERT_TRUE(Deliveries::WaitFor(10, 10s));
    auto all = Deliveries::All();
    ASSERT_EQ(10u, all.size());
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(Find(all, fresh[i]));
        EXPECT_EQ(0, Find(all, fresh[i])->error);
        EXPECT_EQ(Pattern(3000, 4), ReadFile(TempPath("fresh" + std::to_string(i))));
    }
    server.Release("/slow");
}

std::atomic<int> g_deregistered{-1};
url_downloader_h g_self;

TEST_F(PublicApi, DeregisterDropsTransfersInFlightAndWorksFromInsideTheCallback)
{
    Download(server.Url("/slow"), "s1");
    Download(server.Url("/slow"), "s2");
    ASSERT_TRUE(server.WaitForRequests("/slow", 2, 10s));
    EXPECT_EQ(0, url_downloader_deregister(svc));
    url_downloader_api_h api;
    EXPECT_EQ(1, url_downloader_download(svc, "/p", "u", false, nullptr, &api));

    auto deregister_self = [](url_downloader_api_h, void*, void*, int) {
        g_deregistered = url_downloader_deregister(g_self);
        return true;
    };
    ASSERT_EQ(0, url_downloader_register("self", deregister_self, nullptr, &g_self));
    Download(server.Url("/a"), "x", false, g_self);
    Download(server.Url("/slow"), "y", false, g_self);
    ASSERT_TRUE(RunMainLoopUntil([] { return g_deregistered != -1; }, 10s));
    EXPECT_EQ(0, g_deregistered);
    EXPECT_EQ(1, url_downloader_cancel_all_requests(g_self));
    EXPECT_EQ(0, Deliveries::Count());
    server.Release("/slow");
}
} // namespace
