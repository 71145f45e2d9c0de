// The opt-in extension end to end: certificate checks, protocols and limits
// per service, the reason of every kind of ending, live progress, the trace's
// destinations, and its refusals of bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <curl/curl.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log-capture.h"
#include "main-loop.h"
#include "test-db.h"
#include "test-env.h"
#include "test-server.h"
#include "url-downloader-extension.h"

using namespace ud_test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// One request and how it ended, as its callback saw it.
struct Ask {
    url_downloader_h service = nullptr;
    bool done = false;
    int error = -1;
    url_downloader_reason_t reason{};
    url_downloader_progress_t progress{}; // as seen inside the callback
    Clock::time_point asked, ended;
};

bool Record(url_downloader_api_h api, void* path, void* user_data, int error)
{
    Ask* ask = static_cast<Ask*>(user_data);
    ask->error = error;
    EXPECT_EQ(0, url_downloader_get_reason(ask->service, api, &ask->reason));
    url_downloader_get_progress(ask->service, api, &ask->progress);
    ask->ended = Clock::now();
    ask->done = true;
    return true;
}

// A TCP port on 127.0.0.1 that refuses connections (bound, not listening), or
// that accepts them into its queue and never answers (listening, never accepting).
struct Port {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    explicit Port(bool listening)
    {
        socklen_t n = sizeof a;
        bind(fd, (sockaddr*)&a, n);
        getsockname(fd, (sockaddr*)&a, &n);
        if (listening)
            listen(fd, 16);
    }
    ~Port() { close(fd); }
    std::string Url(const char* scheme) const { return scheme + ("://127.0.0.1:" + std::to_string(ntohs(a.sin_port))); }
};

class Extension : public ::testing::Test {
protected:
    void SetUp() override
    {
        FreshCacheDb();
        ASSERT_EQ(0, url_downloader_register("ext", Record, nullptr, &svc));
        http.Route("/a", {200, {}, Pattern(5000, 1)});
    }
    void TearDown() override
    {
        url_downloader_set_trace(URL_DOWNLOADER_TRACE_STDERR);
        url_downloader_finalize();
    }
    url_downloader_api_h Get(Ask& ask, const std::string& url, const std::string& file, bool cache = false)
    {
        url_downloader_api_h api = nullptr;
        ask.service = ask.service != nullptr ? ask.service : svc;
        ask.asked = Clock::now();
        EXPECT_EQ(0, url_downloader_download(ask.service, TempPath(file).c_str(), url.c_str(), cache, &ask, &api));
        return api;
    }
    TestServer http, https{true};
    LogCapture log;
    url_downloader_h svc = nullptr;
};

// Each row has a service of its own with its settings; all run at once. The
// reason tells the endings apart that the error code (6) does not.
TEST_F(Extension, EachEndingHasItsReason)
{
    const std::string body = Pattern(5000, 1);
    https.Route("/a", {200, {}, body});
    http.Route("/chunked", {200, {}, body, true});
    http.Redirect("/r1", "/r2");
    http.Redirect("/r2", "/a");
    http.Redirect("/to-ftp", "ftp://127.0.0.1:1/x");
    Port refusing(false), silent(true);
    using T = url_downloader_transport_t;
    using L = url_downloader_limits_t;
    const T none{}, verify{true, nullptr, nullptr, false}, ca_file{true, UD_TEST_CERT, nullptr, false},
        ca_folder{true, nullptr, UD_TEST_CA_FOLDER, false}, web{false, nullptr, nullptr, true};
    struct Row {
        std::string url, file;
        T transport;
        L limits;
        int error, status, curl;
        long long bytes; // -1: the body limit at most
        int limit;       // seconds the request must end in, give or take the slack; 0: not checked
    } rows[] = {
        {silent.Url("http"), "stalled", none, {0, 2, 0, 0}, 6, 0, CURLE_OPERATION_TIMEDOUT, 0, 2},
        {silent.Url("https"), "no-handshake", none, {1, 0, 0, 0}, 6, 0, CURLE_OPERATION_TIMEDOUT, 0, 1},
        {http.Url("/a"), "ok", none, {}, 0, 200, CURLE_OK, 5000, 0},
        {http.Url("/none"), "404", none, {}, 6, 404, CURLE_OK, 9, 0}, // the server's "Not Found"
        {refusing.Url("http"), "refused", none, {}, 6, 0, CURLE_COULDNT_CONNECT, 0, 0},
        {https.Url("/a"), "tls-default", none, {}, 0, 200, CURLE_OK, 5000, 0},
        {https.Url("/a"), "tls-system", verify, {}, 6, 0, CURLE_PEER_FAILED_VERIFICATION, 0, 0},
        {https.Url("/a"), "tls-ca-file", ca_file, {}, 0, 200, CURLE_OK, 5000, 0},
        {https.Url("/a"), "tls-ca-folder", ca_folder, {}, 0, 200, CURLE_OK, 5000, 0},
        {http.Url("/a"), "no/such/folder/f", none, {}, 6, 200, CURLE_WRITE_ERROR, 0, 0},
        {"file://" UD_TEST_CERT, "file-web", web, {}, 6, 0, CURLE_UNSUPPORTED_PROTOCOL, 0, 0},
        {http.Url("/to-ftp"), "ftp-web", web, {}, 6, 302, CURLE_UNSUPPORTED_PROTOCOL, 0, 0},
        {http.Url("/r1"), "redirects-1", none, {0, 0, 1, 0}, 6, 302, CURLE_TOO_MANY_REDIRECTS, 0, 0},
        {http.Url("/r2"), "redirects-none", none, {0, 0, -1, 0}, 6, 302, CURLE_TOO_MANY_REDIRECTS, 0, 0},
        {http.Url("/r2"), "redirects-2", none, {0, 0, 2, 0}, 0, 200, CURLE_OK, 5000, 0},
        {http.Url("/a"), "body-announced", none, {0, 0, 0, 1000}, 6, 200, CURLE_FILESIZE_EXCEEDED, 0, 0},
        {http.Url("/chunked"), "body-grows", none, {0, 0, 0, 1000}, 6, 200, CURLE_FILESIZE_EXCEEDED, -1, 0},
        {http.Url("/a"), "body-fits", none, {0, 0, 0, 5000}, 0, 200, CURLE_OK, 5000, 0},
    };
    std::vector<Ask> asks(sizeof rows / sizeof rows[0]);
    for (size_t i = 0; i < asks.size(); ++i) {
        // The timed rows (first) run alone: another transfer's sync() after
        // its download holds the transfer thread up for as long as the disk takes.
        if (i == 2) {
            ASSERT_TRUE(RunMainLoopUntil([&] { return asks[0].done && asks[1].done; }, 30s));
        }
        ASSERT_EQ(0, url_downloader_register("row", Record, nullptr, &asks[i].service));
        const url_downloader_limits_t& l = rows[i].limits; // rows that ask for nothing never call the extension
        const bool limited = l.connectTimeout != 0 || l.stallTimeout != 0 || l.maxRedirects != 0 || l.maxBodySize != 0;
        EXPECT_EQ(0, rows[i].transport.verifyPeer || rows[i].transport.httpOnly
                         ? url_downloader_set_transport(asks[i].service, &rows[i].transport)
                         : 0);
        EXPECT_EQ(0, limited ? url_downloader_set_limits(asks[i].service, &l) : 0);
        Get(asks[i], rows[i].url, rows[i].file);
    }
    auto all_done = [&] { return std::all_of(asks.begin(), asks.end(), [](const Ask& a) { return a.done; }); };
    ASSERT_TRUE(RunMainLoopUntil(all_done, 30s));
    // Then answered from the cache: no transfer, nothing written by this request.
    asks.push_back({});
    Get(asks.back(), http.Url("/a"), "again", true);
    ASSERT_TRUE(RunMainLoopUntil(all_done, 10s));
    for (size_t i = 0; i < asks.size(); ++i) {
        const Row& r = i < asks.size() - 1 ? rows[i] : Row{"", "cached", none, {}, 0, 0, CURLE_OK, 0, 0};
        const Ask& a = asks[i];
        SCOPED_TRACE(r.file + ": " + (a.reason.curlText != nullptr ? a.reason.curlText : "(null)"));
        EXPECT_EQ(r.error, a.error);
        EXPECT_EQ(r.status, a.reason.httpStatus);
        EXPECT_EQ(r.curl, a.reason.curlCode);
        EXPECT_STREQ(curl_easy_strerror((CURLcode)r.curl), a.reason.curlText);
        EXPECT_TRUE(r.bytes >= 0 ? a.reason.bytesWritten == r.bytes : a.reason.bytesWritten <= 1000);
        EXPECT_EQ(r.file == "cached", a.reason.fromCache);
        // A second late at most; qemu and the sanitizers slow every step by
        // more than that, so there only the code and the lower bound tell the limit fired.
        const double took = std::chrono::duration<double>(a.ended - a.asked).count();
        EXPECT_TRUE(r.limit == 0 || (took > r.limit - 0.1 && (kScale > 1 || took < r.limit + 1))) << took << " s";
    }
    EXPECT_FALSE(FileExists(TempPath("body-announced")));
}

// Progress rises, seen from another thread, to the announced total; a body
// of unknown length has no total.
TEST_F(Extension, ProgressRisesToTheAnnouncedTotal)
{
    const size_t total = 200000;
    http.Route("/slow", {200, {}, Pattern(total, 2), false, (long long)total / 2});
    http.Route("/slow-chunked", {200, {}, Pattern(total, 3), true, (long long)total / 2});
    Ask known, unknown;
    url_downloader_api_h apis[] = {Get(known, http.Url("/slow"), "slow"), Get(unknown, http.Url("/slow-chunked"), "c")};
    std::atomic<bool> stop{false}, halfway{false};
    std::vector<url_downloader_progress_t> seen[2];
    std::thread poller([&] {
        while (!stop) {
            for (int i = 0; i < 2; ++i) {
                url_downloader_progress_t p;
                if (url_downloader_get_progress(svc, apis[i], &p) == 0)
                    seen[i].push_back(p);
            }
            halfway = !seen[0].empty() && !seen[1].empty() && seen[0].back().received == (int64_t)total / 2 &&
                      seen[1].back().received > 0;
            std::this_thread::sleep_for(2ms);
        }
    });
    const bool reached = RunMainLoopUntil([&] { return halfway.load(); }, 10s);
    for (const char* path : {"/slow", "/slow-chunked"})
        http.Release(path);
    EXPECT_TRUE(RunMainLoopUntil([&] { return known.done && unknown.done; }, 10s));
    stop = true;
    poller.join();
    ASSERT_TRUE(reached);
    for (int i = 0; i < 2; ++i)
        for (size_t k = 0; k < seen[i].size(); ++k)
            EXPECT_TRUE((seen[i][k].expected == (i == 0 ? (int64_t)total : -1) || seen[i][k].received == 0) &&
                        seen[i][k].received <= (int64_t)total &&
                        (k == 0 || seen[i][k].received >= seen[i][k - 1].received))
                << i << ": " << k << ": " << seen[i][k].received << " of " << seen[i][k].expected;
    // In the callback it has come all the way; after it the handle is dead.
    EXPECT_TRUE(known.progress.received == (int64_t)total && known.progress.expected == (int64_t)total);
    EXPECT_EQ(-1, unknown.progress.expected);
    EXPECT_EQ(15, url_downloader_get_progress(svc, apis[0], &known.progress));
}

// Where the trace goes: stderr as before, nowhere, or the log at debug
// priority; never a body byte or a credential.
TEST_F(Extension, TraceGoesWhereAsked)
{
    const std::string marker = "BODY-MARKER-7f3a";
    http.Route("/t", {200, {}, marker});
    const std::string url = http.Url("/t").insert(7, "user:s3cret-pw@");
    const struct {
        url_downloader_trace_t mode;
        bool on_stderr, in_log;
    } rows[] = {{URL_DOWNLOADER_TRACE_STDERR, true, false},
                {URL_DOWNLOADER_TRACE_OFF, false, false},
                {URL_DOWNLOADER_TRACE_LOG, false, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode);
        ASSERT_EQ(0, url_downloader_set_trace(row.mode));
        log.Clear();
        const std::string out = TempPath("stderr");
        fflush(stderr);
        const int saved = dup(2), file = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(file, 2);
        Ask ask;
        Get(ask, url, "t");
        const bool done = RunMainLoopUntil([&] { return ask.done; }, 10s);
        fflush(stderr);
        dup2(saved, 2);
        close(saved);
        close(file);
        ASSERT_TRUE(done && ask.error == 0);
        const std::string err = ReadFile(out);
        EXPECT_EQ(row.on_stderr, !err.empty());
        EXPECT_EQ(row.in_log, log.Contains(kDebug, "", "< HTTP/1.1 200 OK"));
        EXPECT_EQ(row.in_log, log.ContainsText("> Authorization: Basic ***"));
        EXPECT_EQ(row.on_stderr, err.find("> GET /t HTTP/1.1\r\nHost: 127.0.0.1") != std::string::npos &&
                                     err.find("Authorization: Basic ***\r\n") != std::string::npos);
        for (const char* secret : {marker.c_str(), "s3cret-pw", "dXNlcjpzM2NyZXQtcHc="}) // and its base64
            EXPECT_TRUE(err.find(secret) == std::string::npos && !log.ContainsText(secret)) << secret;
    }
}

// Bad input is refused with its code and a line naming the call, and
// changes nothing: a refused limit leaves the earlier ones in force.
TEST_F(Extension, BadInputIsRefusedAndChangesNothing)
{
    const std::string fifo = TempPath("fifo"), fifo_line = "CA file " + fifo + " is not a readable file";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600)); // opening it would block the caller
    url_downloader_service_t stranger{};
    auto t = [](url_downloader_h s, const char* file, const char* folder, bool verify = true) {
        const url_downloader_transport_t v{verify, file, folder, false};
        return url_downloader_set_transport(s, &v);
    };
    auto l = [&](url_downloader_limits_t v) { return url_downloader_set_limits(svc, &v); };
    ASSERT_EQ(0, l({0, 0, -1, 0})); // no redirection followed
    url_downloader_reason_t reason;
    url_downloader_progress_t progress;
    const struct {
        int got, want;
        const char* text;
    } cases[] = {
        {url_downloader_set_transport(nullptr, nullptr), 1, "NULL service"},
        {t(svc, UD_TEST_CERT, nullptr, false), 1, "A CA file or folder needs certificate verification on"},
        {t(svc, fifo.c_str(), nullptr), 3, fifo_line.c_str()},
        {t(svc, nullptr, UD_TEST_CERT), 3, "CA folder " UD_TEST_CERT " is not a readable folder"},
        {t(&stranger, nullptr, nullptr), 1, "Invalid service"},
        {l({-1, 0, 0, 0}), 1, "Invalid limits: connect=-1 s, stall=0 s, redirects=0, body=0 bytes"},
        {l({0, 2147484, 5, 0}), 1, "Invalid limits: connect=0 s, stall=2147484 s, redirects=5, body=0 bytes"},
        {l({0, 0, -2, 0}), 1, "Invalid limits: connect=0 s, stall=0 s, redirects=-2, body=0 bytes"},
        {l({0, 0, 9, -1}), 1, "Invalid limits: connect=0 s, stall=0 s, redirects=9, body=-1 bytes"},
        {url_downloader_set_trace((url_downloader_trace_t)3), 1, "Invalid trace mode 3"},
        {url_downloader_get_reason(svc, nullptr, nullptr), 1, "NULL reason"},
        {url_downloader_get_reason(svc, nullptr, &reason), 15, "Api-handle not in its callback"},
        {url_downloader_get_progress(svc, nullptr, nullptr), 1, "NULL progress"},
        {url_downloader_get_progress(svc, (url_downloader_api_h)&stranger, &progress), 15, "Invalid api handle"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.want, c.got) << c.text;
        EXPECT_TRUE(log.Contains(kError, "", c.text)) << c.text;
    }

    // Still none followed, also after a transport change; a request of
    // another service is not this one's.
    EXPECT_EQ(0, t(svc, nullptr, nullptr, false));
    http.Redirect("/r", "/a");
    Ask ask;
    url_downloader_api_h api = Get(ask, http.Url("/r"), "r");
    url_downloader_h other = nullptr;
    ASSERT_EQ(0, url_downloader_register("other", Record, nullptr, &other));
    EXPECT_EQ(15, url_downloader_get_progress(other, api, &progress));
    EXPECT_EQ(15, url_downloader_get_reason(svc, api, &reason)); // not in its callback (the loop is not run)
    ASSERT_TRUE(RunMainLoopUntil([&] { return ask.done; }, 10s));
    EXPECT_EQ(CURLE_TOO_MANY_REDIRECTS, ask.reason.curlCode);
    EXPECT_EQ(15, url_downloader_get_reason(svc, api, &reason)); // its callback has returned
}

} // namespace
