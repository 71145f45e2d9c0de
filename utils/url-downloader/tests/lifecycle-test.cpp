// Bringing the library up and down: racing first registrations, finalization
// with work outstanding, restarts, and calls that meet a finalization.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <sqlite3.h>
#include <thread>
#include <vector>

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
bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    for (auto end = std::chrono::steady_clock::now() + timeout; !done(); std::this_thread::sleep_for(5ms))
        if (std::chrono::steady_clock::now() > end)
            return false;
    return true;
}

size_t Entries(const char* dir)
{
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir))
        ++n;
    return n;
}
size_t Threads() { return Entries("/proc/self/task"); }
size_t Descriptors() { return Entries("/proc/self/fd"); }

const TestServer::Response kBody{200, {}, Pattern(4000, 7)};
const TestServer::Response kStalled{200, {}, Pattern(50000, 8), false, 500};

TEST(Lifecycle, RacingFirstRegistrationsStartTheLibraryOnce)
{
    LogCapture log;
    url_downloader_finalize();
    EXPECT_TRUE(log.Contains(kError, "url_downloader_finalize", "Service not started. Nothing to be done"));
    std::thread([] {}).join(); // a sanitizer's own thread comes with the first one
    const size_t threads = Threads();
    std::atomic<bool> go{false};
    std::vector<url_downloader_h> services(8);
    std::vector<int> results(8, -1);
    std::vector<std::thread> clients;
    for (int i = 0; i < 8; ++i)
        clients.emplace_back([&, i] {
            while (!go)
                std::this_thread::yield();
            results[i] = url_downloader_register("app", nullptr, nullptr, &services[i]);
        });
    go = true;
    for (auto& t : clients)
        t.join();
    for (int r : results)
        EXPECT_EQ(0, r);
    EXPECT_EQ(1u, log.Count(kDebug, "_url_downloader_create_pipe", "Pipe created succesfully\n"));
    EXPECT_EQ(threads + 2, Threads()); // the processing and the transfer thread
    url_downloader_finalize();
    EXPECT_EQ(threads, Threads());
}

TEST(Lifecycle, FinalizeWithRequestsOutstandingLeavesNothingBehind)
{
    TestServer server;
    server.Route("/a", kBody);
    auto cycle = [&](int i) {
        server.Route("/slow", kStalled); // re-arms the stall
        std::string proxy = server.Url("");
        url_downloader_config_t config{proxy.data()};
        url_downloader_h a, b;
        url_downloader_api_h api;
        ASSERT_EQ(0, url_downloader_register("a", Deliveries::Callback, nullptr, &a));
        ASSERT_EQ(0, url_downloader_register("b", nullptr, &config, &b));
        for (const char* path : {"/slow", "/a", "/slow"})
            for (auto s : {a, b})
                ASSERT_EQ(0, url_downloader_download(s, TempPath("f").c_str(), server.Url(path).c_str(), true,
                                                     nullptr, &api));
        ASSERT_TRUE(server.WaitForRequests("/slow", 4 * (i + 1), 10s));
        url_downloader_finalize();
        server.Release("/slow");
        RunMainLoopUntil([] { return false; }, 20ms);
        EXPECT_EQ(0u, Deliveries::Count());
    };
    cycle(0); // the cache database stays open from here on
    const size_t threads = Threads(), fds = Descriptors();
    for (int i = 1; i <= 20; ++i) {
        cycle(i);
        EXPECT_TRUE(Eventually([&] { return Threads() == threads && Descriptors() == fds; }, 10s))
            << "cycle " << i << ": " << Threads() << " threads, " << Descriptors() << " descriptors";
    }
    url_downloader_h svc;
    url_downloader_api_h api;
    ASSERT_EQ(0, url_downloader_register("c", Deliveries::Callback, nullptr, &svc));
    ASSERT_EQ(0, url_downloader_download(svc, TempPath("g").c_str(), server.Url("/a").c_str(), false, nullptr, &api));
    ASSERT_TRUE(Deliveries::WaitFor(1, 10s));
    EXPECT_EQ(0, Deliveries::All()[0].error);
    url_downloader_finalize();
}

TEST(Lifecycle, CallsMadeWhileFinalizingAreRefused)
{
    TestServer server;
    server.Route("/a", kBody);
    server.Route("/b", kBody);
    LogCapture log;
    url_downloader_h svc;
    url_downloader_api_h api;
    ASSERT_EQ(0, url_downloader_register("app", Deliveries::Callback, nullptr, &svc));
    ASSERT_EQ(0, url_downloader_download(svc, TempPath("a").c_str(), server.Url("/a").c_str(), false, nullptr, &api));
    ASSERT_TRUE(Deliveries::WaitFor(1, 10s));

    // Another connection holds the write lock, so the next admission keeps
    // the processing thread, and with it the finalization, busy.
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(CacheDbPath().c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr));
    log.Clear();
    ASSERT_EQ(0, url_downloader_download(svc, TempPath("b").c_str(), server.Url("/b").c_str(), false, nullptr, &api));
    ASSERT_TRUE(Eventually([&] { return log.ContainsText("Adding to cache"); }, 5s));
    std::atomic<bool> finalized{false};
    std::thread finalizer([&] {
        url_downloader_finalize();
        finalized = true;
    });
    EXPECT_TRUE(Eventually([&] { return url_downloader_cancel_request(svc, nullptr) == 17; }, 5s));
    EXPECT_EQ(17, url_downloader_cancel_all_requests(svc));
    url_downloader_h other;
    EXPECT_EQ(17, url_downloader_register("x", nullptr, nullptr, &other));
    EXPECT_EQ(17, url_downloader_download(svc, "/p", "u", false, nullptr, &api));
    EXPECT_EQ(17, url_downloader_deregister(svc));
    EXPECT_EQ(17, url_downloader_clean(svc));
    EXPECT_TRUE(log.Contains(kError, "url_downloader_download",
                             "Service state is destroying(Finalized call is running)\n"));
    url_downloader_finalize();
    EXPECT_TRUE(log.Contains(kError, "url_downloader_finalize", "Service is in destroying state"));
    EXPECT_FALSE(finalized);

    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    EXPECT_TRUE(Eventually([&] { return finalized.load(); }, 20s));
    finalized ? finalizer.join() : finalizer.detach();
    EXPECT_EQ(0, url_downloader_register("again", nullptr, nullptr, &other));
    url_downloader_finalize();
}
} // namespace
