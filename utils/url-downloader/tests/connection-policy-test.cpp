// Living beside other software: a capped, reused set of connections that
// small servers and a low descriptor limit can bear, transfers queued past the
// caps that still cancel and sweep, a silent transfer that holds up no other,
// and bodies that reach their files as they arrive.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <dirent.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "main-loop.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader.h"

using namespace ud_test;
using namespace std::chrono_literals;

namespace {
constexpr int kMax = 2000, kPerHost = 6; // common HTTP stacks' cap per host
std::atomic<int> g_calls[kMax], g_error[kMax], g_total;
std::string g_path[kMax]; // written by the callbacks, all on the test's thread

bool Record(url_downloader_api_h, void* path, void* user_data, int error)
{
    const int i = (int)(intptr_t)user_data;
    g_error[i] = error;
    g_path[i] = path != nullptr ? (const char*)path : "";
    ++g_calls[i];
    ++g_total;
    return true;
}

long long FileSize(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (long long)st.st_size : -1;
}

size_t OpenSockets()
{
    size_t n = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* e = dir != nullptr ? readdir(dir) : nullptr) {
        char target[64] = {};
        n += readlink(("/proc/self/fd/" + std::string(e->d_name)).c_str(), target, sizeof target - 1) > 0 &&
             std::string(target).rfind("socket:", 0) == 0;
    }
    if (dir != nullptr)
        closedir(dir);
    return n;
}

class ConnectionPolicy : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (int i = 0; i < kMax; ++i)
            g_calls[i] = g_error[i] = 0, g_path[i].clear();
        g_total = 0;
        server.Route("/a", {200, {}, Pattern(3000, 1)});
        server.Route("/held", {200, {}, Pattern(1000, 2), false, 0}); // headers, then nothing until released
        ASSERT_EQ(0, url_downloader_register("policy", Record, nullptr, &svc));
    }
    void TearDown() override
    {
        url_downloader_finalize();
        server.Release("/held");
    }
    url_downloader_api_h Get(int i, const std::string& path)
    {
        url_downloader_api_h api = nullptr;
        EXPECT_EQ(0, url_downloader_download(svc, File(i).c_str(), server.Url(path).c_str(), false,
                                             (void*)(intptr_t)i, &api));
        return api;
    }
    static std::string File(int i) { return TempPath("p" + std::to_string(i)); }
    static bool WaitForCalls(int n, std::chrono::milliseconds timeout)
    {
        return RunMainLoopUntil([n] { return g_total >= n; }, timeout);
    }
    TestServer server;
    url_downloader_h svc = nullptr;
};

// Without a wake-up of its own, a transfer added while the loop waits in
// select() beside a silent one would start only at the select time-out (1 s).
TEST_F(ConnectionPolicy, ASilentTransferHoldsUpNoOtherDownload)
{
    Get(0, "/held");
    ASSERT_TRUE(server.WaitForRequests("/held", 1, 10s));
    const int n = 10;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 1; i <= n; ++i) {
        Get(i, "/a");
        ASSERT_TRUE(WaitForCalls(i, 10s)) << "download " << i;
        ASSERT_EQ(0, g_error[i]);
    }
    const auto each = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start) / n;
    EXPECT_LT(each.count(), 300) << "ms per download: each waited for the silent transfer's select time-out";
    EXPECT_EQ(0, g_calls[0]);
    server.Release("/held");
    ASSERT_TRUE(WaitForCalls(n + 1, 10s));
    EXPECT_EQ(0, g_error[0]);
}

// Thousands of downloads at once with 256 descriptors: each is answered once,
// with its bytes, over no more connections than the cap per host, and the
// connections kept afterwards are bounded as well.
TEST_F(ConnectionPolicy, TwoThousandDownloadsWithinTwoHundredFiftySixDescriptors)
{
    const int n = kMax / kScale, paths = 40;
    for (int p = 0; p < paths; ++p)
        server.Route("/s" + std::to_string(p), {200, {}, Pattern(4096, p)});
    rlimit old;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
    rlimit low = old;
    low.rlim_cur = std::min<rlim_t>(old.rlim_cur, 256);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    ASSERT_LT(Entries("/proc/self/fd"), 64u);
    const size_t sockets = OpenSockets(); // libcurl's own, of the multi handle
    for (int i = 0; i < n; ++i)
        Get(i, "/s" + std::to_string(i % paths));
    const bool all = WaitForCalls(n, 300s);
    setrlimit(RLIMIT_NOFILE, &old);
    ASSERT_TRUE(all) << g_total << " of " << n << " answered";
    RunMainLoopUntil([] { return false; }, 50ms); // a duplicate would show now
    int wrong = 0;
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(1, g_calls[i]) << "request " << i;
        wrong += g_error[i] != 0 || g_path[i] != File(i) || ReadFile(File(i)) != Pattern(4096, i % paths);
    }
    EXPECT_EQ(0, wrong) << "failed or with the wrong content";
    EXPECT_LE(server.PeakConnections(), (size_t)kPerHost);
    EXPECT_LE(OpenSockets(), sockets + kPerHost) << "idle connections kept after the burst";
}

// A slow body's bytes are in its file within a fraction of a second, not
// when a 64 KiB buffer fills: applications follow a download by its file.
TEST_F(ConnectionPolicy, ABodyReachesItsFileAsItArrives)
{
    const std::string body = Pattern(200000, 5); // announced: past the large-body buffer's threshold
    server.Route("/trickle", {200, {}, body, false, 4096});
    Get(0, "/trickle");
    ASSERT_TRUE(server.WaitForRequests("/trickle", 1, 10s));
    EXPECT_TRUE(RunMainLoopUntil([] { return FileSize(File(0)) >= 4096; }, 500ms))
        << FileSize(File(0)) << " bytes in the file";
    server.Release("/trickle");
    ASSERT_TRUE(WaitForCalls(1, 10s));
    EXPECT_EQ(0, g_error[0]);
    EXPECT_EQ(body, ReadFile(File(0)));
}

// Past the cap per host, transfers wait their turn; they are cancelled (16),
// start when a connection frees up, and are swept by cancel-all and
// finalization like any other. Leaks show under ASan.
TEST_F(ConnectionPolicy, QueuedTransfersCancelStartAndAreSwept)
{
    url_downloader_api_h held[kPerHost], queued[4];
    for (int i = 0; i < kPerHost; ++i)
        held[i] = Get(i, "/held");
    ASSERT_TRUE(server.WaitForRequests("/held", kPerHost, 10s));
    for (int q = 0; q < 4; ++q)
        queued[q] = Get(10 + q, "/a");
    EXPECT_FALSE(server.WaitForRequests("/a", 1, 300ms)) << "a transfer past the cap reached the server";

    // A queued one cancelled, then a running one: its connection serves the
    // queued ones left, one after another.
    ASSERT_EQ(0, url_downloader_cancel_request(svc, queued[0]));
    ASSERT_TRUE(WaitForCalls(1, 10s));
    EXPECT_EQ(16, g_error[10]);
    EXPECT_EQ("", g_path[10]);
    ASSERT_EQ(0, url_downloader_cancel_request(svc, held[0]));
    ASSERT_TRUE(WaitForCalls(5, 10s));
    EXPECT_EQ(16, g_error[0]);
    for (int i = 11; i < 14; ++i)
        EXPECT_TRUE(g_calls[i] == 1 && g_error[i] == 0 && g_path[i] == File(i)) << "queued request " << i;

    // Cancel-all drops running and queued transfers alike, without callbacks;
    // the freed connections then serve new downloads.
    Get(20, "/held"); // the cap is full again
    ASSERT_TRUE(server.WaitForRequests("/held", kPerHost + 1, 10s));
    Get(21, "/a");
    ASSERT_EQ(0, url_downloader_cancel_all_requests(svc));
    RunMainLoopUntil([] { return false; }, 100ms);
    EXPECT_EQ(5, g_total);
    EXPECT_EQ(3u, server.RequestCount("/a"));
    Get(30, "/a");
    ASSERT_TRUE(WaitForCalls(6, 10s));
    EXPECT_EQ(0, g_error[30]);

    // Finalization with connections held and transfers queued behind them.
    for (int i = 40; i < 40 + kPerHost + 4; ++i)
        Get(i, i < 40 + kPerHost ? "/held" : "/a");
    url_downloader_finalize();
    RunMainLoopUntil([] { return false; }, 100ms);
    EXPECT_EQ(6, g_total) << "callbacks after finalization";
}
} // namespace
