// Tests of the test harness itself: if these fail, every other test's
// verdict is suspect.
#include <gtest/gtest.h>

#include <atomic>
#include <curl/curl.h>
#include <filesystem>
#include <glib.h>
#include <thread>

#include "db-util.h"
#include "dlog.h"
#include "log-capture.h"
#include "main-loop.h"
#include "test-db.h"
#include "test-env.h"
#include "test-server.h"

using namespace ud_test;
using namespace std::chrono_literals;

namespace {

struct Fetched {
    CURLcode code = CURLE_FAILED_INIT;
    long status = 0;
    std::string headers;
    std::string body;
    std::atomic<size_t> received{0};
};

size_t Collect(char* data, size_t size, size_t n, void* out)
{
    auto* f = static_cast<Fetched*>(out);
    f->body.append(data, size * n);
    f->received += size * n;
    return size * n;
}

size_t CollectHeader(char* data, size_t size, size_t n, void* out)
{
    static_cast<std::string*>(out)->append(data, size * n);
    return size * n;
}

// One bounded GET with a plain libcurl client; setup may add options.
void Fetch(const std::string& url, Fetched* f, const std::function<void(CURL*)>& setup = {})
{
    CURL* curl = curl_easy_init();
    ASSERT_NE(nullptr, curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, f);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, CollectHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &f->headers);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "harness-agent/1");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (setup)
        setup(curl);
    f->code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &f->status);
    curl_easy_cleanup(curl);
}

TestServer::Response Body(std::string body, bool chunked = false)
{
    TestServer::Response r;
    r.body = std::move(body);
    r.chunked = chunked;
    return r;
}

} // namespace

TEST(LogCaptureTest, ParsesLibraryPrefixesAndKeepsLinesOnlyWhileCapturing)
{
    __dlog_print(kDebug, "URL-Downloader", "[UD_DEBUG]: [%s () Line %d]: %s", "Lost", 1, "dropped\n");
    LogCapture log;
    __dlog_print(kDebug, "URL-Downloader", "[UD_DEBUG]: [%s () Line %d]: %s", "~UrlCache", 42, "End.<<<<<<<<<<");
    __dlog_print(kError, "URL-Downloader", "[UD_ERROR]: [%s () Line %d] : Handle not allocated\n",
                 "url_downloader_register", 7);
    __dlog_print(kDebug, "other", "no prefix %d", 5);

    std::vector<LogLine> lines = log.Lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("~UrlCache", lines[0].func);
    EXPECT_EQ(42, lines[0].line);
    EXPECT_EQ("End.<<<<<<<<<<", lines[0].text);
    EXPECT_EQ("URL-Downloader", lines[0].tag);
    EXPECT_TRUE(log.Contains(kError, "url_downloader_register", "Handle not allocated\n"));
    // The error form has a blank before its colon; the debug form must not match it.
    EXPECT_FALSE(log.Contains(kDebug, "url_downloader_register", "Handle not allocated\n"));
    EXPECT_EQ("", lines[2].func);
    EXPECT_EQ(-1, lines[2].line);
    EXPECT_EQ("no prefix 5", lines[2].text);
    EXPECT_FALSE(log.ContainsText("dropped"));
    EXPECT_TRUE(log.ContainsText("Line 7] : Handle"));

    log.Clear();
    EXPECT_TRUE(log.Lines().empty());
}

TEST(TestDbTest, MapsTheCacheDatabaseAndNeverOpensTheHostOne)
{
    const bool host_db_existed = std::filesystem::exists("/opt/dbspace/.urlcache.db");
    sqlite3* db = nullptr;
    ASSERT_EQ(0, db_util_open("/opt/dbspace/.urlcache.db", &db, 1));
    ASSERT_NE(nullptr, db);
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "create table qeturlcache (id INTEGER PRIMARY KEY, appname TEXT);"
                                          "insert into qeturlcache (appname) values ('a'), ('b'), ('b');",
                                      nullptr, nullptr, nullptr));
    EXPECT_EQ(3, CountCacheRows());
    EXPECT_EQ(2, CountCacheRows("appname='b'"));
    EXPECT_EQ(1, CountCacheRows(" WHERE appname='a'"));
    EXPECT_EQ(-1, CountCacheRows("nosuchcolumn=1"));
    sqlite3_close(db);
    EXPECT_TRUE(std::filesystem::exists(CacheDbPath()));
    EXPECT_EQ(host_db_existed, std::filesystem::exists("/opt/dbspace/.urlcache.db"));

    db = reinterpret_cast<sqlite3*>(1);
    EXPECT_NE(0, db_util_open("/opt//dbspace/./.urlcache.db-other", &db, 1));
    EXPECT_EQ(nullptr, db);

    FailDbOpen(true);
    db = reinterpret_cast<sqlite3*>(1);
    EXPECT_NE(0, db_util_open("/opt/dbspace/.urlcache.db", &db, 1));
    EXPECT_EQ(nullptr, db);
    FailDbOpen(false);
    ASSERT_EQ(0, db_util_open(TempPath("other.db").c_str(), &db, 1));
    sqlite3_close(db);
}

TEST(MainLoopTest, TimesOutAndRecordsIdleDeliveriesFromAnotherThread)
{
    EXPECT_FALSE(RunMainLoopUntil([] { return false; }, 50ms));
    EXPECT_FALSE(Deliveries::WaitFor(1, 20ms));

    static int user_data;
    std::thread worker([] {
        g_idle_add(
            [](gpointer) -> gboolean {
                Deliveries::Callback(reinterpret_cast<url_downloader_api_h>(0x10), const_cast<char*>("/tmp/f"),
                                     &user_data, 0);
                Deliveries::Callback(nullptr, nullptr, nullptr, 6);
                return G_SOURCE_REMOVE;
            },
            nullptr);
    });
    worker.join();
    ASSERT_TRUE(Deliveries::WaitFor(2, 10s));
    std::vector<Delivery> all = Deliveries::All();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(reinterpret_cast<url_downloader_api_h>(0x10), all[0].api);
    EXPECT_EQ(std::optional<std::string>("/tmp/f"), all[0].path);
    EXPECT_EQ(&user_data, all[0].user_data);
    EXPECT_EQ(std::this_thread::get_id(), all[0].thread);
    EXPECT_FALSE(all[1].path.has_value());
    EXPECT_EQ(6, all[1].error);
    Deliveries::Clear();
    EXPECT_EQ(0u, Deliveries::Count());
}

TEST(TestServerTest, ServesStatusHeadersAndBodiesOfEverySize)
{
    TestServer server;
    TestServer::Response created = Body("made");
    created.status = 201;
    created.headers = {{"Expires", "Thu, 01 Jan 2099 00:00:00 GMT"}, {"X-Odd", "a  b"}};
    server.Route("/created", created);
    server.Route("/empty", Body(""));
    const std::string big = Pattern(5 * 1024 * 1024 + 7, 1);
    server.Route("/big", Body(big));
    server.Route("/chunked", Body(Pattern(100000, 2), true));
    server.Route("/q", Body("no query"));
    server.Route("/q?x=1", Body("query"));

    Fetched f1, f2, f3, f4, f5, f6, f7;
    Fetch(server.Url("/created"), &f1);
    EXPECT_EQ(201, f1.status);
    EXPECT_EQ("made", f1.body);
    EXPECT_NE(std::string::npos, f1.headers.find("Expires: Thu, 01 Jan 2099 00:00:00 GMT\r\n"));
    EXPECT_NE(std::string::npos, f1.headers.find("X-Odd: a  b\r\n"));
    Fetch(server.Url("/empty"), &f2);
    EXPECT_EQ(CURLE_OK, f2.code);
    EXPECT_EQ(200, f2.status);
    EXPECT_NE(std::string::npos, f2.headers.find("Content-Length: 0"));
    EXPECT_TRUE(f2.body.empty());
    Fetch(server.Url("/big"), &f3);
    EXPECT_EQ(CURLE_OK, f3.code);
    EXPECT_TRUE(f3.body == big) << "got " << f3.body.size() << " bytes";
    Fetch(server.Url("/chunked"), &f4);
    EXPECT_EQ(CURLE_OK, f4.code);
    EXPECT_NE(std::string::npos, f4.headers.find("Transfer-Encoding: chunked"));
    EXPECT_EQ(std::string::npos, f4.headers.find("Content-Length"));
    EXPECT_TRUE(f4.body == Pattern(100000, 2));
    Fetch(server.Url("/nowhere"), &f5);
    EXPECT_EQ(404, f5.status);
    Fetch(server.Url("/q?x=1"), &f6);
    Fetch(server.Url("/q?x=2"), &f7);
    EXPECT_EQ("query", f6.body);
    EXPECT_EQ("no query", f7.body);

    EXPECT_EQ(Pattern(64, 9), Pattern(64, 9));
    EXPECT_NE(Pattern(64, 9), Pattern(64, 10));
}

TEST(TestServerTest, FollowsRedirectChainsAndRecordsEveryRequest)
{
    TestServer server;
    server.Redirect("/a", "/b", 301);
    server.Redirect("/b", server.Url("/c"));
    server.Route("/c", Body("end"));
    Fetched f;
    Fetch(server.Url("/a"), &f, [](CURL* c) { curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L); });
    EXPECT_EQ(CURLE_OK, f.code);
    EXPECT_EQ("end", f.body);

    ASSERT_TRUE(server.WaitForRequests("/c", 1, 10s));
    std::vector<TestServer::Request> reqs = server.Requests();
    ASSERT_EQ(3u, reqs.size());
    EXPECT_EQ("/a", reqs[0].target);
    EXPECT_EQ("/b", reqs[1].path);
    EXPECT_EQ("GET", reqs[2].method);
    EXPECT_EQ("harness-agent/1", reqs[2].headers["user-agent"]);
    EXPECT_FALSE(reqs[2].via_proxy);
    EXPECT_EQ(1u, server.RequestCount("/b"));
    EXPECT_FALSE(server.WaitForRequests("/b", 2, 50ms));
}

TEST(TestServerTest, StallsUntilReleasedAndDropsMidBody)
{
    auto server = std::make_unique<TestServer>();
    const std::string body = Pattern(300000, 3);
    TestServer::Response stall = Body(body);
    stall.stall_after = 1000;
    server->Route("/stall", stall);
    server->Route("/stall-forever", stall);
    TestServer::Response drop = Body(body);
    drop.drop_after = 70000;
    server->Route("/drop", drop);

    Fetched stalled, forever, dropped;
    std::thread t1([&] { Fetch(server->Url("/stall"), &stalled); });
    std::thread t2([&] { Fetch(server->Url("/stall-forever"), &forever); });
    for (int i = 0; i < 2000 && (stalled.received < 1000 || forever.received < 1000); ++i)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(1000u, stalled.received.load());
    server->Release("/stall");
    t1.join();
    EXPECT_EQ(CURLE_OK, stalled.code);
    EXPECT_TRUE(stalled.body == body);

    Fetch(server->Url("/drop"), &dropped);
    EXPECT_EQ(CURLE_PARTIAL_FILE, dropped.code);
    EXPECT_TRUE(dropped.body == body.substr(0, 70000)) << dropped.body.size();

    // Stopping the server ends a stall nobody released.
    EXPECT_EQ(1000u, forever.received.load());
    server.reset();
    t2.join();
    EXPECT_NE(CURLE_OK, forever.code);
}

TEST(TestServerTest, ProxiesPlainHttpAndServesHttps)
{
    TestServer proxy;
    proxy.Route("/file", Body("via proxy"));
    Fetched f;
    const std::string base = "http://127.0.0.1:" + std::to_string(proxy.Port());
    Fetch("http://example.invalid/file", &f, [&](CURL* c) { curl_easy_setopt(c, CURLOPT_PROXY, base.c_str()); });
    EXPECT_EQ(CURLE_OK, f.code);
    EXPECT_EQ("via proxy", f.body);
    std::vector<TestServer::Request> reqs = proxy.Requests();
    ASSERT_EQ(1u, reqs.size());
    EXPECT_TRUE(reqs[0].via_proxy);
    EXPECT_EQ("http://example.invalid/file", reqs[0].target);
    EXPECT_EQ("/file", reqs[0].path);

    TestServer tls(true);
    tls.Route("/secure", Body(Pattern(100000, 4)));
    EXPECT_EQ(0u, tls.Url("/secure").rfind("https://127.0.0.1:", 0));
    Fetched s;
    Fetch(tls.Url("/secure"), &s, [](CURL* c) {
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
    });
    EXPECT_EQ(CURLE_OK, s.code) << curl_easy_strerror(s.code);
    EXPECT_TRUE(s.body == Pattern(100000, 4));
}
