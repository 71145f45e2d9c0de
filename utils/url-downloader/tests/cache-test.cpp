// The URL cache: its table's records and trim, when a cached entry may answer
// a download, and how finished downloads enter the bounded cache that every
// process of the device shares.
#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sqlite3.h>
#include <thread>
#include <vector>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cache-policy.h"
#include "log-capture.h"
#include "main-loop.h"
#include "test-db.h"
#include "test-env.h"
#include "test-server.h"

using namespace ud_test;
using namespace std::chrono_literals;

// The library in this program reads this clock: a test may move it, to stand
// where 32-bit time arithmetic would wrap.
static std::atomic<int64_t> g_clock_shift{0};
extern "C" time_t time(time_t* out)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const time_t t = (time_t)(now.tv_sec + g_clock_shift.load());
    if (out != nullptr)
        *out = t;
    return t;
}

namespace {
URLCacheManager* Cache() { return URLCacheManager::getInstance(); }
char* S(const char* s) { return const_cast<char*>(s); }
const char* const kTable = "create table qeturlcache (id INTEGER PRIMARY KEY AUTOINCREMENT, url TEXT, filepath TEXT, "
                           "filesize INTEGER, downloadtime INTEGER, expirytime INTEGER, appname TEXT);";

// A row admitted through the public call, which trims first, or put straight
// into the table.
bool Add(const std::string& url, const char* path, int64_t size, int64_t expiry, bool admit = true, const char* app = "t")
{
    url_downloader_cache c{0, S(url.c_str()), S(path), size, 1700000000, expiry, S(app)};
    url_downloader_error error = URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED;
    UrlCache record(&c);
    return admit ? url_downloader_add_cache(&c, &error) && error == URL_DOWNLOADER_ERROR_NONE
                 : Cache()->addUrlCache(record);
}

// Runs body(c) in n child processes at once, each ended after two minutes;
// true when every one returned true.
bool InChildren(int n, const std::function<bool(int)>& body)
{
    CacheDbPath(); // fixes the shared folder before the fork
    std::vector<pid_t> children;
    for (int c = 0; c < n; ++c)
        if (children.emplace_back(fork()) == 0) {
            alarm(120);
            _exit(body(c) ? 0 : 1);
        }
    bool ok = true;
    for (pid_t pid : children) {
        int status = 1;
        ok &= pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return ok;
}

// A connection of another process's kind, open for its scope, that runs sql
// first: a lock to hold, or a change to make.
struct Peer {
    sqlite3* db = nullptr;
    explicit Peer(const std::string& sql)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_open(CacheDbPath().c_str(), &db));
        sqlite3_busy_timeout(db, 5000);
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr)) << sql;
    }
    ~Peer() { sqlite3_close(db); } // rolls back what is still open
};

// Downloads each path, with the cache or not, and waits up to bound for the callbacks.
bool DownloadAll(url_downloader_h svc, const TestServer& server, const std::vector<std::string>& paths,
                 std::chrono::seconds bound, bool use_cache = true)
{
    const size_t before = Deliveries::Count();
    url_downloader_api_h api;
    for (const std::string& p : paths)
        if (url_downloader_download(svc, TempPath(p.substr(1)).c_str(), server.Url(p).c_str(), use_cache, nullptr,
                                    &api) != 0)
            return false;
    return Deliveries::WaitFor(before + paths.size(), bound);
}

class CacheTest : public ::testing::Test {
protected:
    void SetUp() override { FreshCacheDb(); }
    void TearDown() override
    {
        url_downloader_finalize();
        FailDbOpen(false);
        g_clock_shift = 0;
    }
};
} // namespace

// In a database an earlier run made, whose row stays.
TEST_F(CacheTest, RecordsRoundTripQuotesNullsWideNumbersAndExactUrls)
{
    Peer{std::string(kTable) + "insert into qeturlcache (url, filesize) values ('u', 5);"};
    const int64_t far = INT64_C(4102444800); // past 2^32: a 32-bit column or long would mangle it
    ASSERT_TRUE(Add("http://h/it's", "/tmp/o'brien", far, far, false, "app'1"));
    ASSERT_TRUE(Add("http://h/IT'S", nullptr, 7, far, false, nullptr));
    std::unique_ptr<UrlCache> got(Cache()->findUrlCache(S("http://h/it's")));
    ASSERT_NE(nullptr, got);
    EXPECT_STREQ("/tmp/o'brien", got->filepath);
    EXPECT_EQ(far, got->expirytime);
    EXPECT_EQ(far + 7 + 5, Cache()->getUrlCacheSize());
    std::unique_ptr<UrlCache> other(Cache()->getUrlCache(got->id + 1));
    ASSERT_NE(nullptr, other);
    EXPECT_EQ(nullptr, other->filepath);
    EXPECT_EQ(nullptr, other->appname);
    got->filesize = 5;
    ASSERT_TRUE(Cache()->updateUrlCache(*got));
    EXPECT_EQ(1, CountCacheRows("filesize=5 and filepath='/tmp/o''brien'"));
    EXPECT_TRUE(Cache()->deleteUrlCache(S("app'1")));
    EXPECT_EQ(0, CountCacheRows("url='http://h/it''s'"));
    EXPECT_EQ(2, CountCacheRows());
}

TEST_F(CacheTest, UnopenableDatabaseFailsEveryOperation)
{
    FailDbOpen(true);
    LogCapture log;
    url_downloader_cache c{0, S("u"), S("/p"), 1, 1, 1, nullptr};
    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    EXPECT_FALSE(Add("u", "/p", 1, 1, false));
    EXPECT_FALSE(Cache()->deleteUrlCache(1));
    EXPECT_EQ(nullptr, Cache()->findUrlCache(S("u")));
    EXPECT_EQ(-1, Cache()->cleanUrlCache());
    EXPECT_FALSE(url_downloader_add_cache(&c, &error));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_CACHE_SIZE_FAILED, error);
    EXPECT_TRUE(log.ContainsText("DBConnect failed with:"));
}

// The trim forgets the rows expiring first until less than half the budget
// is used; an admission trims first, and only past the budget.
TEST_F(CacheTest, TrimCountsDownFromTheBudgetInExpiryOrder)
{
    struct {
        std::vector<int64_t> sizes;
        int64_t remainder;
        size_t left;
    } const cases[] = {
        {{}, 10485760, 0},
        {std::vector<int64_t>(10, 1000000), 4485760, 4}, // five leave 5,485,760: not yet below half
        {{2621440, 2621440, 1000, 1000}, 5241880, 1},     // exactly half deleted is not enough
        {{20000000, 5}, -9514240, 1},
        {std::vector<int64_t>(150, 10000), 9485760, 50},                          // one trim reads 100 rows at most
        {{INT64_C(3) << 30, INT64_C(3) << 30}, 10485760 - (INT64_C(3) << 30), 1}, // sums past 2^32
    };
    EXPECT_EQ(0, Cache()->getUrlCacheSize()); // the sum over no rows is NULL
    for (const auto& c : cases) {
        SCOPED_TRACE(c.remainder);
        int64_t sum = 0;
        for (size_t i = 0; i < c.sizes.size(); ++i) { // row i expires at 1000 + i: trimmed in this order
            ASSERT_TRUE(Add("http://h/" + std::to_string(i), nullptr, c.sizes[i], 1000 + int64_t(i), false));
            sum += c.sizes[i];
        }
        EXPECT_EQ(sum, Cache()->getUrlCacheSize());
        EXPECT_EQ(c.remainder, Cache()->cleanUrlCache());
        EXPECT_EQ(int(c.left), CountCacheRows());
        EXPECT_EQ(int(c.left), CountCacheRows("expirytime >= " + std::to_string(1000 + c.sizes.size() - c.left)));
        ASSERT_TRUE(Cache()->deleteUrlCache(S("t")));
    }
    LogCapture log;
    ASSERT_TRUE(Add("big", "/big", URL_CACHE_MAX_SIZE - 100, 3000));
    ASSERT_TRUE(Add("fill", "/fill", 100, 2000)); // exactly the budget: no trim
    EXPECT_FALSE(log.ContainsText("Cache cleaned"));
    ASSERT_TRUE(Add("new", "/new", 1, 1000)); // trimmed first, so kept though it expires first
    EXPECT_TRUE(log.ContainsText("Cache cleaned"));
    EXPECT_EQ(1, CountCacheRows("url='new'"));
    EXPECT_EQ(1, CountCacheRows());
}

// A cached entry answers only while its file is there, a regular file of the
// recorded length, unexpired; a stale row goes, the client's file stays.
TEST_F(CacheTest, LookupServesOnlyPresentSameLengthUnexpiredRegularFiles)
{
    const int64_t later = time(nullptr) + 3600;
    // Rows any process could write: a FIFO (opening it for reading would
    // wait for a writer) and a folder at the cached path.
    ASSERT_EQ(0, mkfifo(TempPath("fifo").c_str(), 0600));
    std::filesystem::create_directory(TempPath("folder"));
    const struct {
        const char* url;
        bool written; // with 5 bytes
        int64_t size, expiry;
        const char* stale; // why, as logged; NULL when served
    } rows[] = {
        {"missing", false, 5, later, "downloaded file missing in file-system"},
        {"resized", true, 6, later, "size mismatch. \nDB stored size is 6, and actaul size is 5"},
        {"expired", true, 5, time(nullptr), "But expired Id=[3]"}, // expiring now is expired
        {"", false, 5, later, "filepath is NULL"},
        {"fifo", false, 0, later, "downloaded file missing in file-system"},
        {"folder", false, 4096, later, "downloaded file missing in file-system"},
        {"kept", true, 5, later, nullptr},
    };
    for (const auto& r : rows) {
        if (r.written)
            std::ofstream(TempPath(r.url)) << "12345";
        ASSERT_TRUE(Add(r.url, *r.url != '\0' ? TempPath(r.url).c_str() : nullptr, r.size, r.expiry));
    }
    std::ofstream(TempPath("kept")) << "abcde"; // other contents, same length: still served
    for (const auto& r : rows) {
        SCOPED_TRACE(r.url);
        LogCapture log;
        url_downloader_cache c{0, S(r.url), nullptr, 0, 0, 0, nullptr};
        alarm(10); // a lookup that blocks ends the program
        std::unique_ptr<char, decltype(&free)> path(url_downloader_get_cache_filepath(&c), free);
        alarm(0);
        EXPECT_STREQ(r.stale ? nullptr : TempPath(r.url).c_str(), path.get());
        EXPECT_TRUE(!r.stale || (log.ContainsText(r.stale) && log.ContainsText("Entry NOT found in cache")));
    }
    EXPECT_EQ(1, CountCacheRows());
    EXPECT_TRUE(std::filesystem::exists(TempPath("expired")));
}

// Past 32 bits: a body over 2 GiB, expiry times after January 2038 (an
// Expires date, the default 180 days added to a clock late in 2037); each is
// stored exactly and then answers the same URL from the cache.
TEST_F(CacheTest, SizesPast2GiBAndTimesPast2038AreStoredAndServed)
{
    setenv("TZ", "UTC0", 1);
    tzset();
    const int64_t big = (INT64_C(1) << 31) + 1;
    // Sparse: no disk space for the source, only for the download.
    std::ofstream(TempPath("big-source"), std::ios::binary).put('x');
    ASSERT_EQ(0, truncate(TempPath("big-source").c_str(), big));
    TestServer server;
    TestServer::Response file_response;
    file_response.file = TempPath("big-source");
    server.Route("/big", file_response);
    server.Route("/2040", {200, {{"Expires", "Tue, 01 May 2040 16:00:00 GMT"}}, "body"});
    const int64_t late_2037 = 2145830400; // 2037-12-31 00:00:00 UTC
    g_clock_shift = late_2037 - (int64_t)::time(nullptr);
    const struct {
        const char* path;
        int64_t size, lowest_expiry, highest_expiry;
    } cases[] = {
        {"/big", big, late_2037 + 15552000, late_2037 + 15552000 + 60},
        {"/2040", 4, 2219500800, 2219500800},
    };
    url_downloader_h svc;
    ASSERT_EQ(0, url_downloader_register("late", Deliveries::Callback, nullptr, &svc));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        ASSERT_TRUE(DownloadAll(svc, server, {c.path}, 240s)) << "no callback";
        const std::string got = Deliveries::All().back().path.value_or("");
        std::unique_ptr<UrlCache> row(Cache()->findUrlCache(S(server.Url(c.path).c_str())));
        ASSERT_NE(nullptr, row);
        EXPECT_EQ(c.size, row->filesize);
        EXPECT_GE(row->expirytime, c.lowest_expiry);
        EXPECT_LE(row->expirytime, c.highest_expiry);
        // Asked again: answered from the cache with the file of the first download.
        ASSERT_TRUE(DownloadAll(svc, server, {c.path}, 60s));
        EXPECT_EQ(got, Deliveries::All().back().path.value_or(""));
        EXPECT_EQ(1u, server.RequestCount(c.path));
        unlink(got.c_str());
    }
}

// Every process of the device, whatever its user, shares the cache: one that
// did not create the database still admits rows into it. Two admitting at
// once, also while each admission trims, never fail and lose no row.
TEST_F(CacheTest, ProcessesShareTheCache)
{
    const auto admit = [](int rows, int64_t size) {
        return [=](int c) {
            bool ok = true;
            for (int i = 0; i < rows; ++i)
                ok &= Add("http://p" + std::to_string(c) + "/" + std::to_string(i), "/f", size, 2e9 + i);
            return ok;
        };
    };
    EXPECT_TRUE(InChildren(2, admit(500, 1)));
    EXPECT_EQ(1000, CountCacheRows()) << "rows lost";
    EXPECT_TRUE(InChildren(2, admit(300, 3000000))); // a trim every other admission
    if (geteuid() != 0)
        GTEST_SKIP() << "switching to another user needs root";
    FreshCacheDb();
    ASSERT_EQ(0, chmod(TempDir().c_str(), 0777)); // standing in for the device's shared folder
    ASSERT_TRUE(InChildren(1, admit(1, 1)));
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat info {};
        ASSERT_EQ(0, stat((CacheDbPath() + suffix).c_str(), &info)) << suffix;
        EXPECT_EQ(0666u, info.st_mode & 0777) << suffix;
    }
    const uid_t nobody = 65534;
    EXPECT_TRUE(InChildren(1, [&](int) { return setgid(nobody) == 0 && setuid(nobody) == 0 && admit(1, 1)(1); }));
    EXPECT_EQ(2, CountCacheRows());
}

// Another process holding the cache's lock stalls a request at most one busy
// wait (2 s) per lookup and per admission, also on the first open; a shorter
// lock loses no admission.
TEST_F(CacheTest, APeersLockStallsEachRequestAtMostOneBusyWait)
{
    TestServer server;
    for (int i = 0; i < 9; ++i)
        server.Route("/f" + std::to_string(i), {200, {}, Pattern(100, i)});
    url_downloader_h svc;
    ASSERT_EQ(0, url_downloader_register("peer", Deliveries::Callback, nullptr, &svc));
    {
        // Locked in rollback mode before this process first opens it.
        Peer{kTable};
        Peer peer("BEGIN EXCLUSIVE");
        EXPECT_TRUE(DownloadAll(svc, server, {"/f0"}, 20s)) << "the first open waited more than a few busy timeouts";
    }
    // Opened now that the lock is gone.
    ASSERT_TRUE(DownloadAll(svc, server, {"/f1"}, 20s));
    EXPECT_EQ(1, CountCacheRows());
    // Rows whose files are gone: each admission deletes one, then inserts.
    for (int i = 2; i <= 5; ++i)
        ASSERT_TRUE(Add(server.Url("/f" + std::to_string(i)), TempPath("gone").c_str(), 100, time(nullptr) + 600));
    {
        // Held for good: 4 admissions x 2 s; waits per statement would add up to twice that.
        Peer peer("BEGIN IMMEDIATE");
        EXPECT_TRUE(DownloadAll(svc, server, {"/f2", "/f3", "/f4", "/f5"}, 12s, false)) << "waits added up per request";
    }
    {
        // Held for less than the busy timeout: nothing is lost.
        Peer peer("BEGIN IMMEDIATE");
        std::thread release([&peer] {
            std::this_thread::sleep_for(500ms);
            sqlite3_exec(peer.db, "ROLLBACK", nullptr, nullptr, nullptr);
        });
        EXPECT_TRUE(DownloadAll(svc, server, {"/f6", "/f7", "/f8"}, 20s));
        release.join();
    }
    EXPECT_EQ(3, CountCacheRows("url like '%/f6' or url like '%/f7' or url like '%/f8'")) << "admissions lost";
}

// A database found corrupt, on opening or by a later statement, is moved
// aside once and made anew.
TEST_F(CacheTest, ACorruptDatabaseIsMovedAsideAndMadeAnew)
{
    LogCapture log;
    std::ofstream(CacheDbPath(), std::ios::binary) << std::string(8192, 'x');
    ASSERT_TRUE(Add("http://first/", "/f", 1, 2e9));
    EXPECT_EQ(1, CountCacheRows());
    EXPECT_EQ(std::string(8192, 'x'), ReadFile(CacheDbPath() + ".corrupt"));
    EXPECT_TRUE(log.ContainsText("is corrupt, moved aside"));
    // Another process breaks the schema of the open database; schema_version
    // makes the library read it again.
    Peer{"PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql='broken' WHERE name='qeturlcache'; "
         "PRAGMA schema_version=1000;"};
    // The admissions that meet the broken file fail; one of the next few
    // finds it corrupt, and after that they work again.
    int failed = 0;
    while (failed < 3 && !Add("http://third/", "/f", 1, 2e9))
        ++failed;
    EXPECT_LT(failed, 3);
    EXPECT_TRUE(log.Contains(kError, "url_cache_db", "Cache database " + CacheDbPath() + " is corrupt: moved aside to " +
                                                         CacheDbPath() + ".corrupt, a new one is made"));
    EXPECT_EQ(1, CountCacheRows("url='http://third/'"));
}
