// The transfer engine against the loopback server, driven the way the
// processing thread drives it; the test reads the processing pipe itself.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <map>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "log-capture.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader-curl.h"
#include "url-downloader-internal.h"
#include "request-ledger.h"

using ud_test::kDebug;
using ud_test::kError;
using ud_test::TempPath;

namespace {

const int kLoadTransfers = 2000;

class Engine : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, pipe(url_downloader_pipe_fd));
        _url_downloader_set_proxy_source(_url_downloader_copy_service_proxy);
        ASSERT_NE(nullptr, engine_ = UrlDownloader::CreateInstance());
    }
    void TearDown() override
    {
        Stop();
        for (auto* api : apis_)
            free(api->filePath), free(api->url), free(api);
        _url_downloader_forget_all(); // the services
        for (auto& r : responses_)
            free(r.second);
        close(url_downloader_pipe_fd[0]), close(url_downloader_pipe_fd[1]);
    }
    // Ends the transfer thread (bounded) and destroys the engine.
    void Stop(bool write_cleanup = true)
    {
        if (engine_ == nullptr)
            return;
        ASSERT_TRUE(!write_cleanup || engine_->DownloaderCleanupCurl());
        timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += 60;
        ASSERT_EQ(0, pthread_timedjoin_np(UrlDownloader::CurlThread, nullptr, &until)) << "thread did not end";
        delete engine_;
        engine_ = nullptr;
    }
    url_downloader_api_t* Request(const std::string& url, const std::string& path, const std::string& proxy = "")
    {
        url_downloader_h s = _url_downloader_new_service("engine", nullptr, proxy.empty() ? nullptr : proxy.c_str());
        url_downloader_error error;
        EXPECT_TRUE(_url_downloader_prepend_request_list(s, nullptr, &error)); // the engine reads its proxy
        auto* api = (url_downloader_api_t*)calloc(1, sizeof(url_downloader_api_t));
        *api = {0, s, path.empty() ? nullptr : strdup(path.c_str()), strdup(url.c_str()), false, nullptr, 0};
        apis_.push_back(api);
        return api;
    }
    bool Start(url_downloader_api_t* api)
    {
        return engine_->DownloaderCreateEasyHandle(api) && engine_->DownloaderExecuteRequest();
    }
    // Reads n response messages; a request answered twice fails.
    void Collect(size_t n)
    {
        for (size_t i = 0; i < n; i++) {
            pollfd p{url_downloader_pipe_fd[0], POLLIN, 0};
            url_downloader_message_t m;
            ASSERT_TRUE(poll(&p, 1, 60000) == 1 && read(p.fd, &m, sizeof m) == sizeof m) << i << " of " << n;
            ASSERT_EQ(URL_DOWNLOADER_MSG_DOWNLOAD_RESPONSE, m.type);
            ASSERT_TRUE(m.info != nullptr && responses_.emplace(m.api, m.info).second) << "answered twice";
        }
    }
    // After Stop(): messages written and never collected.
    static int Unread()
    {
        fcntl(url_downloader_pipe_fd[0], F_SETFL, O_NONBLOCK);
        int n = 0;
        for (url_downloader_message_t m; read(url_downloader_pipe_fd[0], &m, sizeof m) == sizeof m; n++)
            free(m.info);
        return n;
    }
    void WithLock(const std::function<void()>& f)
    {
        url_downloader_error err;
        engine_->DownloaderHandleMutex(URL_DOWNLOADER_MUTEX_LOCK, &err);
        f();
        engine_->DownloaderHandleMutex(URL_DOWNLOADER_MUTEX_UNLOCK, &err);
    }

    UrlDownloader* engine_ = nullptr;
    ud_test::TestServer server_;
    std::vector<url_downloader_api_t*> apis_;
    std::map<url_downloader_api_h, url_downloader_response_info_t*> responses_;
};

TEST_F(Engine, DownloadsDirectRedirectedProxiedAndSecure)
{
    ud_test::LogCapture log;
    const std::string body = ud_test::Pattern(300000, 7);
    server_.Route("/ok", {200, {{"Cache-Control", "max-age=600"}}, body, true}); // chunked
    server_.Redirect("/r1", "/r2", 301);
    server_.Redirect("/r2", "/ok", 302);
    ud_test::TestServer tls(true);
    tls.Route("/ok", {200, {{"Cache-Control", "max-age=600"}}, body});
    const std::string proxy = server_.Url("");
    std::ofstream(TempPath("direct")) << ud_test::Pattern(400000, 1); // longer: replaced, not overwritten in part
    long before = (long)time(nullptr);
    for (auto* api : {Request(server_.Url("/ok"), TempPath("direct")), Request(server_.Url("/r1"), TempPath("moved")),
                      Request(tls.Url("/ok"), TempPath("tls")),
                      Request("http://example.invalid/ok", TempPath("proxied"), proxy)})
        ASSERT_TRUE(Start(api));
    EXPECT_EQ(1, apis_[0]->transferActive);
    Collect(apis_.size());
    long after = (long)time(nullptr);

    for (auto* api : apis_) {
        const url_downloader_response_info_t* info = responses_[api];
        EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, info->error) << api->url;
        EXPECT_EQ((int32_t)body.size(), info->fileSize) << api->url;
        EXPECT_TRUE(info->expiryTime >= before + 600 && info->expiryTime <= after + 600) << api->url;
        EXPECT_EQ(body, ud_test::ReadFile(api->filePath)) << api->url;
    }
    int proxied = 0;
    for (const auto& r : server_.Requests()) {
        EXPECT_EQ("Korvane User Agent", r.headers.at("user-agent"));
        proxied += r.via_proxy;
    }
    EXPECT_EQ(1, proxied);
    EXPECT_EQ(1u, log.Count(kDebug, "DownloaderCreateEasyHandle", "Using proxy [" + proxy + "]\n"));
    EXPECT_FALSE(engine_->DownloaderCancelRequest(apis_[0])) << "a finished transfer is gone";
}

TEST_F(Engine, FailuresAreReportedAsDownloadFailed)
{
    ud_test::LogCapture log;
    server_.Route("/empty", {200, {}, ""});
    for (int status : {203, 204, 206, 304, 404})
        server_.Route("/" + std::to_string(status), {status, {}, status == 204 || status == 304 ? "" : "body"});
    server_.Redirect("/moved", "/404");
    server_.Route("/dropped", {200, {}, ud_test::Pattern(50000, 8), false, -1, 20000});
    server_.Route("/small", {200, {}, "fits in stdio's buffer"});
    int refused = socket(AF_INET, SOCK_STREAM, 0); // bound, never listening
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    ASSERT_EQ(0, bind(refused, (sockaddr*)&a, len));
    getsockname(refused, (sockaddr*)&a, &len);

    for (const char* p : {"/empty", "/203", "/204", "/206", "/304", "/404", "/moved", "/dropped"})
        ASSERT_TRUE(Start(Request(server_.Url(p), TempPath(p + 1))));
    ASSERT_TRUE(Start(Request("http://127.0.0.1:" + std::to_string(ntohs(a.sin_port)) + "/", TempPath("refused"))));
    ASSERT_TRUE(Start(Request(server_.Url("/small"), "/dev/full"))); // fails only when closed
    ASSERT_TRUE(Start(Request(server_.Url("/small"), TempPath("no-such-folder/small"))));
    Collect(apis_.size());
    close(refused);

    for (auto* api : apis_) {
        const url_downloader_response_info_t* info = responses_[api];
        EXPECT_EQ(URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED, info->error) << api->url;
        EXPECT_EQ(0, info->fileSize + info->expiryTime) << api->url;
    }
    EXPECT_FALSE(ud_test::FileExists(TempPath("empty")));
    EXPECT_EQ(20000u, ud_test::ReadFile(TempPath("dropped")).size()) << "partial file stays";
    const char* cb = "_url_downloader_response_cb";
    EXPECT_TRUE(log.Contains(kError, cb, "Downloaded failed with http status code as 0"));
    EXPECT_TRUE(log.Contains(kError, cb, "Downloaded failed with http status code as 206"));
    EXPECT_TRUE(log.Contains(kError, cb, "Some error with curl happened: Curl error code 18\n"));
}

TEST_F(Engine, CancelledTransferIsNeverReported)
{
    ud_test::LogCapture log;
    server_.Route("/stall", {200, {}, ud_test::Pattern(100000, 9), false, 1000});
    auto* api = Request(server_.Url("/stall"), TempPath("stall"));
    ASSERT_TRUE(Start(api));
    long written = 0;
    for (int i = 0; i < 3000 && written < 1000; i++, usleep(10000))
        WithLock([&] { written = ((url_downloader_curl_pvt_data*)UrlDownloader::activeTransactions->data)->fileSize; });
    ASSERT_EQ(1000, written);

    EXPECT_TRUE(engine_->DownloaderCancelRequest(api));
    EXPECT_FALSE(engine_->DownloaderCancelRequest(api)) << "torn down twice";
    EXPECT_EQ(1000u, ud_test::ReadFile(api->filePath).size()) << "partial file closed and kept";
    server_.Release("/stall");
    Stop();
    EXPECT_EQ(0, Unread());
    EXPECT_FALSE(log.ContainsText("Curl transaction over"));
}

TEST_F(Engine, CleanupWaitsForTheRunningTransfer)
{
    server_.Route("/slow", {200, {}, ud_test::Pattern(5000, 10), false, 100});
    auto* api = Request(server_.Url("/slow"), TempPath("slow"));
    ASSERT_TRUE(Start(api));
    ASSERT_TRUE(server_.WaitForRequests("/slow", 1, std::chrono::seconds(30)));
    ASSERT_TRUE(engine_->DownloaderCleanupCurl());
    usleep(300000);
    EXPECT_EQ(EBUSY, pthread_tryjoin_np(UrlDownloader::CurlThread, nullptr)) << "ended with a transfer running";
    server_.Release("/slow");
    Stop(false);
    Collect(1);
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, responses_[api]->error);
}

TEST_F(Engine, OneEngineAtATimeAndAFreshOneAfterDestruction)
{
    ud_test::LogCapture log;
    EXPECT_EQ(engine_, UrlDownloader::CreateInstance());
    EXPECT_FALSE(log.ContainsText("Download thread created successfully"));
    Stop();
    EXPECT_TRUE(UrlDownloader::instance == nullptr && UrlDownloader::downloadPipe[0] == -1);

    // Without a descriptor to spare the engine cannot come up and leaves nothing behind.
    rlimit saved, tight;
    getrlimit(RLIMIT_NOFILE, &saved);
    tight = saved;
    int lowest_free = open("/dev/null", O_RDONLY);
    ASSERT_GE(lowest_free, 0);
    close(lowest_free);
    tight.rlim_cur = (rlim_t)lowest_free;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    UrlDownloader* failed = UrlDownloader::CreateInstance();
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_TRUE(failed == nullptr && UrlDownloader::instance == nullptr);
    EXPECT_TRUE(log.Contains(kError, "DownloaderInit", "Download PIPE creation failed"));

    ASSERT_NE(nullptr, engine_ = UrlDownloader::CreateInstance());
    server_.Route("/again", {200, {}, "again"});
    ASSERT_TRUE(Start(Request(server_.Url("/again"), TempPath("again"))));
    Collect(1);
    EXPECT_EQ(URL_DOWNLOADER_ERROR_NONE, responses_[apis_[0]]->error);
    // Set up but never woken: released with the engine.
    ASSERT_TRUE(engine_->DownloaderCreateEasyHandle(Request(server_.Url("/idle"), TempPath("idle"))));
    Stop();
    EXPECT_EQ(nullptr, UrlDownloader::activeTransactions);
}

TEST_F(Engine, ThousandsOfUnreadResponsesDoNotStallTheEngine)
{
    // A one-page processing pipe is full after a hundred responses; the
    // engine must keep taking requests while nobody reads it.
    ASSERT_GT(fcntl(url_downloader_pipe_fd[1], F_SETPIPE_SZ, 4096), 0);
    server_.Route("/tiny", {200, {}, "tiny body"});
    auto started = std::chrono::steady_clock::now();
    auto adding = std::async(std::launch::async, [&] {
        bool ok = true;
        for (int i = 0; i < kLoadTransfers; i++)
            ok = Start(Request(server_.Url("/tiny"), TempPath("load-" + std::to_string(i)))) && ok;
        return ok;
    });
    if (adding.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
        ADD_FAILURE() << "engine stalled while the processing pipe was full";
        std::_Exit(1); // the stalled threads cannot be recovered
    }
    ASSERT_TRUE(adding.get());
    Collect(kLoadTransfers);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    int ok = 0;
    for (auto* api : apis_)
        ok += responses_.count(api) && responses_[api]->error == URL_DOWNLOADER_ERROR_NONE &&
              ud_test::ReadFile(api->filePath) == "tiny body";
    Stop();
    EXPECT_EQ(0, Unread());
    EXPECT_EQ(kLoadTransfers, ok) << "transfers that failed or wrote the wrong file";
    printf("load: %d transfers (%d succeeded) in %.1f s\n", kLoadTransfers, ok, seconds);
}

} // namespace
