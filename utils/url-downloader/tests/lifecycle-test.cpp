// Bringing the library up and down: racing first registrations and calls
// that meet a finalization. Finalization under load is in request-lifetime-test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <sqlite3.h>
#include <thread>
#include <vector>

#include "log-capture.h"
#include "main-loop.h"
#include "test-db.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader.h"

using namespace ud_test;
using namespace std::chrono_literals;

namespace {
template <typename Done>
bool Eventually(Done done, std::chrono::milliseconds timeout) // without running the main loop
{
    for (auto end = std::chrono::steady_clock::now() + timeout; !done(); std::this_thread::sleep_for(5ms))
        if (std::chrono::steady_clock::now() > end)
            return false;
    return true;
}
int Get(url_downloader_h svc, const TestServer& server, const char* path)
{
    url_downloader_api_h api;
    return url_downloader_download(svc, TempPath("f").c_str(), server.Url(path).c_str(), true, nullptr, &api);
}

TEST(Lifecycle, RacingFirstRegistrationsStartTheLibraryOnce)
{
    LogCapture log;
    url_downloader_finalize();
    EXPECT_TRUE(log.Contains(kError, "url_downloader_finalize", "Service not started. Nothing to be done"));
    // A sanitizer's own thread comes with the first one; the joined thread
    // itself may stay listed for a moment.
    const size_t alone = Entries("/proc/self/task");
    std::thread([] {}).join();
    const size_t threads = Entries("/proc/self/task", alone);
    std::atomic<bool> go{false};
    std::vector<int> results(8, -1);
    std::vector<std::thread> clients;
    for (int& result : results)
        clients.emplace_back([&go, &result] {
            url_downloader_h svc;
            while (!go)
                std::this_thread::yield();
            result = url_downloader_register("app", nullptr, nullptr, &svc);
        });
    go = true;
    for (auto& t : clients)
        t.join();
    EXPECT_EQ(std::vector<int>(8, 0), results);
    EXPECT_EQ(1u, log.Count(kDebug, "_url_downloader_create_pipe", "Pipe created succesfully\n"));
    EXPECT_EQ(threads + 2, Entries("/proc/self/task", threads + 2)); // the processing and the transfer thread
    url_downloader_finalize();
    EXPECT_EQ(threads, Entries("/proc/self/task", threads));
}

TEST(Lifecycle, CallsMadeWhileFinalizingAreRefused)
{
    TestServer server;
    server.Route("/a", {200, {}, "a"});
    server.Route("/b", {200, {}, "b"});
    LogCapture log;
    url_downloader_h svc, other;
    url_downloader_api_h api;
    ASSERT_EQ(0, url_downloader_register("app", Deliveries::Callback, nullptr, &svc));
    ASSERT_EQ(0, Get(svc, server, "/a"));
    ASSERT_TRUE(Deliveries::WaitFor(1, 10s));

    // Another connection holds the write lock, so the next admission keeps
    // the processing thread, and with it the finalization, busy.
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(CacheDbPath().c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr));
    log.Clear();
    ASSERT_EQ(0, Get(svc, server, "/b"));
    ASSERT_TRUE(Eventually([&] { return log.ContainsText("Adding to cache"); }, 5s));
    std::atomic<bool> finalized{false};
    std::thread finalizer([&] {
        url_downloader_finalize();
        finalized = true;
    });
    EXPECT_TRUE(Eventually([&] { return url_downloader_cancel_request(svc, nullptr) == 17; }, 5s));
    EXPECT_EQ(17, url_downloader_cancel_all_requests(svc));
    EXPECT_EQ(17, url_downloader_register("x", nullptr, nullptr, &other));
    EXPECT_EQ(17, url_downloader_download(svc, "/p", "u", false, nullptr, &api));
    EXPECT_EQ(17, url_downloader_deregister(svc));
    EXPECT_EQ(17, url_downloader_clean(svc));
    // Replacing a proxy does not wait for the finalization: the service is going.
    auto configuring = std::async(std::launch::async, [svc] {
        url_downloader_config_t config{const_cast<char*>("http://127.0.0.1:9")};
        return url_downloader_configure_network(svc, &config);
    });
    EXPECT_EQ(std::future_status::ready, configuring.wait_for(5s));
    EXPECT_TRUE(log.Contains(kError, "url_downloader_download", "Service state is destroying(Finalized call is running)\n"));
    url_downloader_finalize();
    EXPECT_TRUE(log.Contains(kError, "url_downloader_finalize", "Service is in destroying state"));
    EXPECT_FALSE(finalized);

    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    EXPECT_TRUE(Eventually([&] { return finalized.load(); }, 20s));
    EXPECT_EQ(1, configuring.get());
    finalized ? finalizer.join() : finalizer.detach();
    EXPECT_EQ(0, url_downloader_register("again", nullptr, nullptr, &other));
    url_downloader_finalize();
}
} // namespace
