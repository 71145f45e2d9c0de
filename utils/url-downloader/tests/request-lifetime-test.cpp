// Request and service lifetimes under concurrency, through the public calls
// only: client threads racing each other and the main loop, a finalization
// meeting thousands of answers, and handles that must stay dead.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "main-loop.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader.h"

using namespace ud_test;
using namespace std::chrono_literals;

namespace {
// Requests are numbered through their user data; request i belongs to
// service i % 2 of a test with two. Every callback is counted, and one for a
// request below its service's drop mark came after the call that dropped it
// had returned.
constexpr int kMax = 20000;
std::atomic<int> g_calls[kMax], g_late[kMax], g_dropped_upto[2], g_total;

bool Count(url_downloader_api_h, void*, void* user_data, int)
{
    const int i = (int)(intptr_t)user_data;
    g_late[i] += (i >> 1) < g_dropped_upto[i & 1];
    ++g_calls[i];
    ++g_total;
    return true;
}

class RequestLifetime : public ::testing::Test {
protected:
    void SetUp() override
    {
        Reset();
        server.Route("/a", {200, {}, Pattern(200, 1)});
    }
    void TearDown() override { url_downloader_finalize(); }
    static void Reset()
    {
        for (int i = 0; i < kMax; ++i)
            g_calls[i] = g_late[i] = 0;
        g_dropped_upto[0] = g_dropped_upto[1] = g_total = 0;
    }
    int Get(url_downloader_h svc, int index, url_downloader_api_h* api = nullptr, const char* path = "/a")
    {
        url_downloader_api_h ignored;
        return url_downloader_download(svc, TempPath("r" + std::to_string(index % 64)).c_str(),
                                       server.Url(path).c_str(), false, (void*)(intptr_t)index,
                                       api != nullptr ? api : &ignored);
    }
    // Bounded: the count of callbacks for requests [0, n) reached, none twice.
    static bool EachAnsweredAtMostOnce(int n)
    {
        RunMainLoopUntil([] { return false; }, 200ms);
        for (int i = 0; i < n; ++i)
            if (g_calls[i] > 1)
                return ADD_FAILURE() << "request " << i << " answered twice", false;
        return true;
    }
    TestServer server;
};

// A download racing the deregistration or cancel-all of its service: none
// outlives the sweep (the server holds them until the round ends), one asked
// for after a cancel-all returned is answered once, none twice, and a
// deregistered service never.
TEST_F(RequestLifetime, DownloadRacingDeregisterOrCancelAll)
{
    url_downloader_h watcher; // its handle checks others' request handles
    ASSERT_EQ(0, url_downloader_register("watcher", nullptr, nullptr, &watcher));
    const int rounds = 2000 / kScale;
    for (bool deregister : {true, false}) {
        Reset();
        int index = 0;
        std::vector<int> survivors;
        for (int round = 0; round < rounds; ++round) {
            server.Route("/race", {200, {}, "r", false, 0});
            url_downloader_h svc;
            ASSERT_EQ(0, url_downloader_register("race", Count, nullptr, &svc));
            std::vector<std::pair<int, url_downloader_api_h>> accepted;
            std::atomic<bool> go{false}, returned{false};
            std::thread client([&] {
                while (!go)
                    std::this_thread::yield();
                for (int k = 0; k < 4; ++k, ++index) {
                    bool after = returned;
                    url_downloader_api_h api = nullptr;
                    int rc = Get(svc, index, &api, "/race");
                    ASSERT_TRUE(rc == 0 || (deregister && rc == 1)) << rc;
                    if (rc == 0)
                        accepted.emplace_back(index, api);
                    if (rc == 0 && after)
                        survivors.push_back(index); // asked after the cancel-all returned
                }
            });
            go = true;
            std::this_thread::sleep_for(std::chrono::microseconds(round % 20));
            ASSERT_EQ(0, deregister ? url_downloader_deregister(svc) : url_downloader_cancel_all_requests(svc));
            returned = true;
            client.join();
            for (auto& a : accepted) // dropped, or it outlived its service
                ASSERT_TRUE(!deregister || url_downloader_cancel_request(watcher, a.second) == 15)
                    << "round " << round << " request " << a.first;
            if (!deregister) { // the service goes on
                survivors.push_back(index);
                ASSERT_EQ(0, Get(svc, index++, nullptr, "/race"));
            }
            server.Release("/race");
        }
        ASSERT_TRUE(RunMainLoopUntil(
            [&] { return std::all_of(survivors.begin(), survivors.end(), [](int i) { return g_calls[i] > 0; }); },
            60s));
        ASSERT_TRUE(EachAnsweredAtMostOnce(index));
        EXPECT_TRUE(!deregister || g_total == 0) << "a deregistered service was called back";
    }
}

// Two threads cancelling all requests of their own services at once, over and
// over while answers arrive: each call returns only after its own sweep and
// any running callback of its requests; no dropped request is called back,
// and a third service's request outlives them all.
TEST_F(RequestLifetime, ConcurrentCancelAllsEachWaitForTheirOwnSweep)
{
    url_downloader_h svc[2], bystander; // whose request outlives the others' cancel-alls
    for (auto* s : {&svc[0], &svc[1], &bystander})
        ASSERT_EQ(0, url_downloader_register("cancel", Count, nullptr, s));
    server.Route("/held", {200, {}, "kept", false, 0});
    ASSERT_EQ(0, Get(bystander, kMax - 1, nullptr, "/held"));
    ASSERT_TRUE(server.WaitForRequests("/held", 1, 10s));
    const int rounds = 300 / kScale, batch = 10;
    std::atomic<int> finished{0}, alive{0};
    pthread_barrier_t meet; // the main loop runs meanwhile on this thread
    pthread_barrier_init(&meet, nullptr, 2);
    std::vector<std::thread> clients;
    for (int c = 0; c < 2; ++c)
        clients.emplace_back([&, c] {
            for (int round = 0; round < rounds; ++round) {
                url_downloader_api_h api[batch];
                for (int k = 0; k < batch; ++k)
                    EXPECT_EQ(0, Get(svc[c], (round * batch + k) * 2 + c, &api[k]));
                std::this_thread::sleep_for(std::chrono::microseconds(round % 7 * 300)); // answers arrive
                pthread_barrier_wait(&meet);
                EXPECT_EQ(0, url_downloader_cancel_all_requests(svc[c]));
                g_dropped_upto[c] = (round + 1) * batch;
                // No new request exists until both have looked, so a dead
                // handle's address cannot be in use again.
                for (auto a : api)
                    alive += url_downloader_cancel_request(svc[c], a) != URL_DOWNLOADER_ERROR_INVALID_API_HANDLE;
                pthread_barrier_wait(&meet);
            }
            ++finished;
        });
    EXPECT_TRUE(RunMainLoopUntil([&] { return finished == 2; }, 120s));
    for (auto& t : clients)
        t.join();
    pthread_barrier_destroy(&meet);
    server.Release("/held");
    EXPECT_TRUE(RunMainLoopUntil([] { return g_calls[kMax - 1] == 1; }, 10s))
        << "another service's request was dropped";
    ASSERT_TRUE(EachAnsweredAtMostOnce(2 * rounds * batch));
    const int late = std::accumulate(std::begin(g_late), std::end(g_late), 0);
    EXPECT_EQ(0, alive) << "requests still alive after their cancel-all returned";
    EXPECT_EQ(0, late) << "callbacks for requests dropped by a cancel-all that had returned";
}

std::atomic<bool> g_in_callback{false}, g_callback_done{false};
bool SlowCallback(url_downloader_api_h, void*, void*, int)
{
    g_in_callback = true;
    std::this_thread::sleep_for(300ms);
    g_callback_done = true;
    return true;
}

// Deregistration and cancel-all made on another thread while a callback of
// the service runs on the main loop's thread return after that callback.
TEST_F(RequestLifetime, DroppingCallsWaitForARunningCallback)
{
    for (bool deregister : {true, false}) {
        g_in_callback = g_callback_done = false;
        url_downloader_h svc;
        url_downloader_api_h api;
        ASSERT_EQ(0, url_downloader_register("slow", SlowCallback, nullptr, &svc));
        ASSERT_EQ(0, Get(svc, 0, &api));
        auto dropping = std::async(std::launch::async, [&] {
            while (!g_in_callback)
                std::this_thread::sleep_for(1ms);
            int rc = deregister ? url_downloader_deregister(svc) : url_downloader_cancel_all_requests(svc);
            return rc == 0 && g_callback_done;
        });
        ASSERT_TRUE(RunMainLoopUntil([&] { return dropping.wait_for(0s) == std::future_status::ready; }, 10s));
        EXPECT_TRUE(dropping.get()) << (deregister ? "deregister" : "cancel-all") << " returned during the callback";
    }
}

// A service handle that died (deregistered or finalized) is never valid
// again, though a later registration may get its address (only after a
// thousand others have gone, as the memory it takes stays bounded).
TEST_F(RequestLifetime, StaleServiceHandleStaysDead)
{
    url_downloader_config_t config{const_cast<char*>("http://127.0.0.1:9")};
    for (int i = 0; i < 400 && !HasFailure(); ++i) {
        url_downloader_h old_svc, new_svc[4];
        url_downloader_api_h api;
        ASSERT_EQ(0, url_downloader_register("old", nullptr, nullptr, &old_svc));
        i % 2 == 0 ? url_downloader_finalize() : (void)url_downloader_deregister(old_svc);
        for (auto& s : new_svc) // one of them would often get the old address
            ASSERT_EQ(0, url_downloader_register("new", nullptr, nullptr, &s));
        for (int rc : {url_downloader_download(old_svc, "/p", "u", false, nullptr, &api),
                       url_downloader_configure_network(old_svc, &config), url_downloader_cancel_all_requests(old_svc),
                       url_downloader_clean(old_svc), url_downloader_deregister(old_svc)})
            EXPECT_EQ(1, rc) << "try " << i << (i % 2 == 0 ? " after finalize" : " after deregister");
        url_downloader_finalize();
    }
}

// Finalization while thousands of answers land, more than the processing pipe
// holds: it returns, and the threads and descriptors are back as they were.
TEST_F(RequestLifetime, FinalizeWhileThousandsOfAnswersLand)
{
    const int n = 5000 / kScale; // a processing pipe holds 2,048 messages
    url_downloader_h svc;
    ASSERT_EQ(0, url_downloader_register("held", Count, nullptr, &svc)); // GLib's and the library's first-use state
    url_downloader_finalize();
    RunMainLoopUntil([] { return false; }, 1ms);
    const size_t threads = Entries("/proc/self/task"), fds = Entries("/proc/self/fd");
    // Failures, so that no cache admission or sync slows the answers down;
    // the main loop does not run, so they pile up in the processing pipe.
    server.Route("/held", {500, {}, "x"});
    ASSERT_EQ(0, url_downloader_register("held", Count, nullptr, &svc));
    for (int i = 0; i < n; ++i)
        ASSERT_EQ(0, Get(svc, i, nullptr, "/held"));
    ASSERT_TRUE(server.WaitForRequests("/held", n / 2, 200s));
    auto finalizing = std::async(std::launch::async, url_downloader_finalize);
    if (finalizing.wait_for(120s) != std::future_status::ready) {
        ADD_FAILURE() << "url_downloader_finalize did not return";
        std::_Exit(1); // the stuck threads cannot be recovered
    }
    RunMainLoopUntil([] { return false; }, 50ms);
    EXPECT_EQ(0, g_total) << "callbacks after finalization";
    EXPECT_EQ(threads, Entries("/proc/self/task", threads));
    EXPECT_EQ(fds, Entries("/proc/self/fd", fds));
}
} // namespace
