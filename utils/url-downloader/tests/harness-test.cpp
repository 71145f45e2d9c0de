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

struct Sink {
    std::string text;
    std::atomic<size_t> size{0}; // readable while the transfer runs
    static size_t Add(char* data, size_t size, size_t n, void* out)
    {
        static_cast<Sink*>(out)->text.append(data, size * n);
        static_cast<Sink*>(out)->size += size * n;
        return size * n;
    }
    bool Has(const char* part) const { return text.find(part) != std::string::npos; }
};

struct Fetched {
    CURLcode code = CURLE_FAILED_INIT;
    long status = 0;
    Sink head, body;
};

// One bounded GET with a plain libcurl client; setup may add options.
void Fetch(const std::string& url, Fetched* f, const std::function<void(CURL*)>& setup = {})
{
    CURL* curl = curl_easy_init();
    ASSERT_NE(nullptr, curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Sink::Add);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &f->body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, Sink::Add);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &f->head);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "harness-agent/1");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (setup)
        setup(curl);
    f->code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &f->status);
    curl_easy_cleanup(curl);
}

} // namespace

TEST(LogCaptureTest, ParsesLibraryPrefixesAndKeepsLinesOnlyWhileCapturing)
{
    __dlog_print(kDebug, "URL-Downloader", "[UD_DEBUG]: [%s () Line %d]: %s", "Lost", 1, "dropped\n");
    LogCapture log;
    __dlog_print(kDebug, "URL-Downloader", "[UD_DEBUG]: [%s () Line %d]: %s", "~UrlCache", 42, "End.<<<<<<<<<<");
    __dlog_print(kError, "URL-Downloader", "[UD_ERROR]: [%s () Line %d] : Handle not allocated\n", "reg", 7);
    __dlog_print(kDebug, "other", "no prefix %d", 5);

    std::vector<LogLine> lines = log.Lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_TRUE(lines[0].line == 42 && lines[0].text == "End.<<<<<<<<<<") << lines[0].raw;
    // The error form has a blank before its colon; the debug form must not match it.
    EXPECT_TRUE(log.Contains(kError, "reg", "Handle not allocated\n"));
    EXPECT_FALSE(log.Contains(kDebug, "reg", "Handle not allocated\n"));
    EXPECT_TRUE(lines[2].line == -1 && lines[2].text == "no prefix 5") << lines[2].raw;
    EXPECT_FALSE(log.ContainsText("dropped"));
    log.Clear();
    EXPECT_TRUE(log.Lines().empty());
}

TEST(TestDbTest, MapsTheCacheDatabaseAndNeverOpensTheHostOne)
{
    const bool host_db_existed = std::filesystem::exists("/opt/dbspace/.urlcache.db");
    sqlite3* db = nullptr;
    ASSERT_EQ(0, db_util_open("/opt/dbspace/.urlcache.db", &db, 1));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "create table qeturlcache (id INTEGER PRIMARY KEY, appname TEXT);"
                                          "insert into qeturlcache (appname) values ('a'), ('b'), ('b');",
                                      nullptr, nullptr, nullptr));
    sqlite3_close(db);
    EXPECT_EQ(2, CountCacheRows("appname='b'"));
    EXPECT_EQ(host_db_existed, std::filesystem::exists("/opt/dbspace/.urlcache.db"));

    auto refused = [](const char* path) {
        sqlite3* handle = reinterpret_cast<sqlite3*>(1);
        return db_util_open(path, &handle, 1) != 0 && handle == nullptr;
    };
    EXPECT_TRUE(refused("/opt//dbspace/./.urlcache.db-other"));
    FailDbOpen(true);
    EXPECT_TRUE(refused("/opt/dbspace/.urlcache.db"));
}

TEST(MainLoopTest, TimesOutAndRecordsIdleDeliveriesFromAnotherThread)
{
    EXPECT_FALSE(RunMainLoopUntil([] { return false; }, 50ms));
    EXPECT_FALSE(Deliveries::WaitFor(1, 20ms));
    std::thread([] {
        g_idle_add(
            [](gpointer) -> gboolean {
                Deliveries::Callback(nullptr, const_cast<char*>("/tmp/f"), nullptr, 0);
                Deliveries::Callback(nullptr, nullptr, nullptr, 6);
                return G_SOURCE_REMOVE;
            },
            nullptr);
    }).join();
    ASSERT_TRUE(Deliveries::WaitFor(2, 10s));
    std::vector<Delivery> all = Deliveries::All();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(std::optional<std::string>("/tmp/f"), all[0].path);
    EXPECT_EQ(std::this_thread::get_id(), all[0].thread);
    EXPECT_TRUE(!all[1].path && all[1].error == 6);
}

TEST(TestServerTest, ServesStatusHeadersAndBodiesOfEverySize)
{
    TestServer server;
    server.Route("/created", {201, {{"X-Odd", "a  b"}}, "made"});
    server.Route("/empty", {200, {}, ""});
    const std::string big = Pattern(5 * 1024 * 1024 + 7, 1);
    server.Route("/big", {200, {}, big});
    server.Route("/chunked", {200, {}, Pattern(100000, 2), true});

    Fetched f1, f2, f3, f4;
    Fetch(server.Url("/created"), &f1);
    EXPECT_TRUE(f1.status == 201 && f1.head.Has("X-Odd: a  b\r\n")) << f1.head.text;
    Fetch(server.Url("/empty"), &f2);
    EXPECT_TRUE(f2.code == CURLE_OK && f2.head.Has("Content-Length: 0") && f2.body.text.empty());
    Fetch(server.Url("/big"), &f3);
    EXPECT_TRUE(f3.body.text == big) << "got " << f3.body.size << " bytes";
    Fetch(server.Url("/chunked"), &f4);
    EXPECT_TRUE(f4.head.Has("Transfer-Encoding: chunked") && !f4.head.Has("Content-Length")) << f4.head.text;
    EXPECT_TRUE(f4.body.text == Pattern(100000, 2));
}

TEST(TestServerTest, FollowsRedirectsProxiesAndServesHttpsRecordingEveryRequest)
{
    TestServer server;
    server.Redirect("/a", "/b", 301);
    server.Redirect("/b", server.Url("/c"));
    server.Route("/c", {200, {}, "end"});
    Fetched f, p, s;
    Fetch(server.Url("/a"), &f, [](CURL* c) { curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L); });
    EXPECT_EQ("end", f.body.text);
    const std::string base = server.Url("");
    Fetch("http://example.invalid/c", &p, [&](CURL* c) { curl_easy_setopt(c, CURLOPT_PROXY, base.c_str()); });
    EXPECT_EQ("end", p.body.text);
    std::vector<TestServer::Request> reqs = server.Requests();
    ASSERT_EQ(4u, reqs.size());
    EXPECT_EQ("/b", reqs[1].path);
    EXPECT_TRUE(reqs[2].headers["user-agent"] == "harness-agent/1" && !reqs[2].via_proxy);
    EXPECT_TRUE(reqs[3].via_proxy && reqs[3].target == "http://example.invalid/c");

    TestServer tls(true);
    tls.Route("/secure", {200, {}, Pattern(100000, 4)});
    Fetch(tls.Url("/secure"), &s, [](CURL* c) {
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
    });
    EXPECT_EQ(CURLE_OK, s.code) << curl_easy_strerror(s.code);
    EXPECT_TRUE(s.body.text == Pattern(100000, 4));
}

TEST(TestServerTest, StallsUntilReleasedAndDropsMidBody)
{
    auto server = std::make_unique<TestServer>();
    const std::string body = Pattern(300000, 3);
    server->Route("/stall", {200, {}, body, false, 1000});
    server->Route("/stall-forever", {200, {}, body, false, 1000});
    server->Route("/drop", {200, {}, body, false, -1, 70000});

    Fetched stalled, forever, dropped;
    std::thread t1([&] { Fetch(server->Url("/stall"), &stalled); });
    std::thread t2([&] { Fetch(server->Url("/stall-forever"), &forever); });
    for (int i = 0; i < 2000 && (stalled.body.size < 1000 || forever.body.size < 1000); ++i)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(1000u, stalled.body.size.load());
    server->Release("/stall");
    t1.join();
    EXPECT_TRUE(stalled.body.text == body);

    Fetch(server->Url("/drop"), &dropped);
    EXPECT_EQ(CURLE_PARTIAL_FILE, dropped.code);
    EXPECT_TRUE(dropped.body.text == body.substr(0, 70000)) << dropped.body.size;

    // Stopping the server ends a stall nobody released.
    EXPECT_EQ(1000u, forever.body.size.load());
    server.reset();
    t2.join();
    EXPECT_NE(CURLE_OK, forever.code);
}
