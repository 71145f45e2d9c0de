// The URL cache: its table and trim, when a cached entry may answer a download,
// and how downloads enter the bounded cache that every process shares.
#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <sqlite3.h>
#include <thread>
#include <vector>
#include <grp.h>
#include <sys/inotify.h>
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

// The library in this program reads this clock: a test moves it where 32-bit time arithmetic would wrap.
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
const char* const kTable =
    "create table qeturlcache (id INTEGER PRIMARY KEY AUTOINCREMENT, url TEXT, filepath TEXT, "
    "filesize INTEGER, downloadtime INTEGER, expirytime INTEGER, appname TEXT);";

// A row through the public admission, which trims first, or straight into the table.
bool Add(std::string url, const char* path, int64_t size, int64_t expiry, bool admit = true, const char* app = "t")
{
    url_downloader_cache c{0, S(url.c_str()), S(path), size, 1700000000, expiry, S(app)};
    url_downloader_error error = URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED;
    UrlCache record(&c);
    return admit ? url_downloader_add_cache(&c, &error) && error == URL_DOWNLOADER_ERROR_NONE
                 : Cache()->addUrlCache(record);
}

// n child processes at once (ended after 2 min) admit rows; true if none failed.
bool AdmitInChildren(int n, int rows, int64_t size)
{
    CacheDbPath(); // fixes the shared folder before the fork
    std::vector<pid_t> children;
    for (int c = 0; c < n; ++c)
        if (children.emplace_back(fork()) == 0) {
            alarm(120);
            bool ok = true;
            for (int i = 0; i < rows; ++i)
                ok &= Add("http://" + std::to_string(getpid()) + "/" + std::to_string(i), "/f", size, 2e9 + i);
            _exit(ok ? 0 : 1);
        }
    bool ok = true;
    for (pid_t pid : children) {
        int status = 1;
        ok &= pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return ok;
}

// Another process's connection for its scope, which runs sql first: a lock to hold, or a change.
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
                 std::chrono::seconds bound, bool cache = true)
{
    const size_t before = Deliveries::Count();
    url_downloader_api_h api;
    for (const std::string& p : paths)
        if (url_downloader_download(svc, TempPath(p.substr(1)).c_str(), server.Url(p).c_str(), cache, nullptr, &api))
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

// Records round-trip in a database an earlier run made, which keeps its row;
// a database that cannot be opened fails every operation.
TEST_F(CacheTest, RecordsRoundTripAndAnUnopenableDatabaseFailsEveryOperation)
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

    FreshCacheDb();
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
    const struct {
        std::vector<int64_t> sizes;
        int64_t remainder;
        size_t left;
    } cases[] = {
        {{}, 10485760, 0},                               // the sum over no rows is NULL, read as 0
        {std::vector<int64_t>(10, 1000000), 4485760, 4}, // five leave 5,485,760: not yet below half
        {{2621440, 2621440, 1000, 1000}, 5241880, 1},    // exactly half deleted is not enough
        {{20000000, 5}, -9514240, 1},
        {std::vector<int64_t>(150, 10000), 9485760, 50},                          // one trim reads 100 rows at most
        {{INT64_C(3) << 30, INT64_C(3) << 30}, 10485760 - (INT64_C(3) << 30), 1}, // sums past 2^32
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.remainder);
        for (size_t i = 0; i < c.sizes.size(); ++i) // row i expires at 1000 + i: trimmed in this order
            ASSERT_TRUE(Add("http://h/" + std::to_string(i), nullptr, c.sizes[i], 1000 + int64_t(i), false));
        EXPECT_EQ(std::accumulate(c.sizes.begin(), c.sizes.end(), INT64_C(0)), Cache()->getUrlCacheSize());
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
// recorded length, unexpired; a stale row goes (its own, whatever its id), the
// client's file stays. What a row names is never opened unless it is a
// regular file: a FIFO, a device, a folder, a symlink to any of them.
TEST_F(CacheTest, LookupServesOnlyPresentSameLengthUnexpiredRegularFiles)
{
    const int64_t later = time(nullptr) + 3600;
    // Rows any process could write: a FIFO (watched: an open shows), a folder, symlinks.
    ASSERT_EQ(0, mkfifo(TempPath("fifo").c_str(), 0600));
    const int opens = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(inotify_add_watch(opens, TempPath("fifo").c_str(), IN_OPEN), 0);
    std::filesystem::create_directory(TempPath("folder"));
    std::ofstream(TempPath("target")) << "12345";
    ASSERT_EQ(0, symlink(TempPath("fifo").c_str(), TempPath("link-to-fifo").c_str()));
    ASSERT_EQ(0, symlink(TempPath("target").c_str(), TempPath("link-to-file").c_str()));
    // Files written hold 5 bytes; stale is why the row is stale, as logged (NULL: served).
    const struct {
        const char* url;
        bool written;
        int64_t size, expiry;
        const char* stale;
    } rows[] = {
        {"missing", false, 5, later, "downloaded file missing in file-system"},
        {"resized", true, 6, later, "size mismatch. \nDB stored size is 6, and actaul size is 5"},
        {"expired", true, 5, time(nullptr), "But expired Id=[3]"}, // expiring now is expired
        {"", false, 5, later, "filepath is NULL"},
        {"fifo", false, 0, later, "downloaded file missing in file-system"},
        {"folder", false, 4096, later, "downloaded file missing in file-system"},
        {"link-to-fifo", false, 0, later, "downloaded file missing in file-system"},
        {"link-to-file", false, 5, later, "downloaded file missing in file-system"},
        {"/dev/null", false, 0, later, "downloaded file missing in file-system"},
        {"open-to-all", true, 5, later, "downloaded file is writable by any user"}, // anyone could swap its content
        {"kept", true, 5, later, nullptr},
    };
    for (const auto& r : rows) {
        if (r.written)
            std::ofstream(TempPath(r.url)) << "12345";
        ASSERT_TRUE(Add(r.url,
                        *r.url == '/'    ? r.url
                        : *r.url != '\0' ? TempPath(r.url).c_str()
                                         : nullptr,
                        r.size, r.expiry));
    }
    // A stale row whose id is the last row's plus 2^32: read as 32 bits, its deletion would hit "kept".
    Peer{"insert into qeturlcache (id, url) values (" + std::to_string((INT64_C(1) << 32) + std::size(rows)) +
         ", 'huge id')"};
    url_downloader_cache huge{0, S("huge id"), nullptr, 0, 0, 0, nullptr};
    EXPECT_EQ(nullptr, url_downloader_get_cache_filepath(&huge));
    ASSERT_EQ(0, chmod(TempPath("open-to-all").c_str(), 0666));
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
    char event[4096];
    EXPECT_LT(read(opens, event, sizeof event), 0) << "the FIFO was opened";
    close(opens);
    EXPECT_EQ(1, CountCacheRows());
    EXPECT_TRUE(std::filesystem::exists(TempPath("expired")));
}

// Past 32 bits: a body over 2 GiB, expiry times after 2038 (an Expires date, the default 180 days
// added to a clock late in 2037); each is stored exactly and then answers the URL from the cache.
TEST_F(CacheTest, SizesPast2GiBAndTimesPast2038AreStoredAndServed)
{
    setenv("TZ", "UTC0", 1);
    tzset();
    const int64_t big = (INT64_C(1) << 31) + 1;
    // Sparse: no disk space for the source, only for the download.
    std::ofstream(TempPath("big-source"), std::ios::binary).put('x');
    ASSERT_EQ(0, truncate(TempPath("big-source").c_str(), big));
    TestServer server;
    server.Route("/big", {200, {}, "", false, -1, -1, TempPath("big-source")});
    server.Route("/2040", {200, {{"Expires", "Tue, 01 May 2040 16:00:00 GMT"}}, "body"});
    const int64_t late_2037 = 2145830400; // 2037-12-31 00:00:00 UTC
    g_clock_shift = late_2037 - (int64_t)::time(nullptr);
    const struct {
        const char* path;
        int64_t size, lowest_expiry, highest_expiry; // highest 0: 180 days after the download ended
    } cases[] = {
        {"/big", big, late_2037 + 15552000, 0},
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
        // However long the 2 GiB took on a busy machine.
        EXPECT_LE(row->expirytime, c.highest_expiry != 0 ? c.highest_expiry : (int64_t)::time(nullptr) + 15552000);
        // Asked again: answered from the cache with the file of the first download.
        ASSERT_TRUE(DownloadAll(svc, server, {c.path}, 60s));
        EXPECT_EQ(got, Deliveries::All().back().path.value_or(""));
        EXPECT_EQ(1u, server.RequestCount(c.path));
        unlink(got.c_str());
    }
}

// Two processes admitting at once, also while each admission trims, never fail and lose no row.
TEST_F(CacheTest, ProcessesShareTheCache)
{
    EXPECT_TRUE(AdmitInChildren(2, 500, 1));
    EXPECT_EQ(1000, CountCacheRows()) << "rows lost";
    EXPECT_TRUE(AdmitInChildren(2, 300, 3000000)); // a trim every other admission
}

// Users of the cache's group share hits and admissions, whoever made the database; a user outside
// it can neither open it nor plant a row, and still downloads, with one log line for the process.
TEST_F(CacheTest, OnlyTheCachesGroupSharesItAndOthersDownloadWithoutIt)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "switching to other users needs root";
    TestServer server;
    for (const char* p : {"/u1", "/u2", "/u3", "/u4"})
        server.Route(p, {200, {}, Pattern(64, p[2])});
    const gid_t group = 40000;
    const uid_t a = 40001, b = 40002, outsider = 40003;
    // The device's set-up: the database's folder belongs to the cache's group and is setgid.
    ASSERT_EQ(0, chown(TempDir().c_str(), 0, group));
    ASSERT_EQ(0, chmod(TempDir().c_str(), 02775));
    auto dest = [](uid_t u, const char* name) { return TempPath(std::to_string(u)) + "/" + name; };
    for (uid_t u : {a, b, outsider}) {
        ASSERT_EQ(0, mkdir(TempPath(std::to_string(u)).c_str(), 0700));
        ASSERT_EQ(0, chown(TempPath(std::to_string(u)).c_str(), u, u == outsider ? u : group));
        ASSERT_EQ(0, chmod(TempPath(std::to_string(u)).c_str(), u == outsider ? 0700 : 02750));
    }
    // As user u (in the cache's group or not): downloads each path with the cache and checks where each came.
    auto as = [&](uid_t u, std::vector<std::pair<const char*, std::string>> expected, size_t open_failures) {
        CacheDbPath();
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(60);
            std::vector<gid_t> groups{u == outsider ? u : group};
            std::string complaint;
            if (setgroups(1, groups.data()) != 0 || setgid(u) != 0 || setuid(u) != 0)
                complaint = "cannot switch user";
            umask(027);
            LogCapture log;
            url_downloader_h svc;
            url_downloader_api_h api;
            if (complaint.empty() && url_downloader_register("user", Deliveries::Callback, nullptr, &svc) != 0)
                complaint = "register failed";
            for (size_t i = 0; i < expected.size() && complaint.empty(); ++i) {
                const size_t before = Deliveries::Count();
                const std::string path = dest(u, expected[i].first + 1), url = server.Url(expected[i].first);
                if (url_downloader_download(svc, path.c_str(), url.c_str(), true, nullptr, &api) != 0 ||
                    !Deliveries::WaitFor(before + 1, 20s))
                    complaint = std::string("no callback for ") + expected[i].first;
                else if (Deliveries::All().back().error != 0 ||
                         Deliveries::All().back().path.value_or("") != expected[i].second)
                    complaint = std::string(expected[i].first) + " came as " +
                                Deliveries::All().back().path.value_or("NULL");
            }
            url_downloader_finalize();
            if (complaint.empty() && (log.Count(kError, "", "DBConnect failed with:14") != open_failures ||
                                      log.ContainsText("SQL error") || log.ContainsText("sqlite3_prepare returned")))
                complaint = "not " + std::to_string(open_failures) + " failed opens and no other database error";
            sqlite3* db = nullptr;
            if (complaint.empty() && u == outsider && sqlite3_open(CacheDbPath().c_str(), &db) == SQLITE_OK &&
                sqlite3_exec(db, "insert into qeturlcache (url) values ('planted')", nullptr, nullptr, nullptr) == 0)
                complaint = "planted a row";
            sqlite3_close(db);
            if (!complaint.empty())
                std::fprintf(stderr, "as %u: %s\n", u, complaint.c_str());
            _exit(complaint.empty() ? 0 : 1);
        }
        int status = 1;
        return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    };
    EXPECT_TRUE(as(a, {{"/u1", dest(a, "u1")}}, 0));
    EXPECT_TRUE(as(b, {{"/u1", dest(a, "u1")}, {"/u2", dest(b, "u2")}}, 0)); // a's download answers b
    EXPECT_TRUE(as(a, {{"/u2", dest(b, "u2")}}, 0));
    EXPECT_TRUE(as(outsider, {{"/u3", dest(outsider, "u3")}, {"/u4", dest(outsider, "u4")}}, 1));
    for (const char* suffix : {"", "-wal", "-shm"}) { // before a connection of root's closes the last
        struct stat info {};
        ASSERT_EQ(0, stat((CacheDbPath() + suffix).c_str(), &info)) << suffix;
        EXPECT_EQ(0660u, info.st_mode & 07777) << suffix;
        EXPECT_EQ(group, info.st_gid) << suffix;
    }
    EXPECT_EQ(1u, server.RequestCount("/u1"));
    EXPECT_EQ(1u, server.RequestCount("/u2"));
    EXPECT_EQ(2, CountCacheRows());
    ASSERT_EQ(0, chown(TempDir().c_str(), 0, 0));
    ASSERT_EQ(0, chmod(TempDir().c_str(), 0700));
}

// A peer holding the cache's lock far longer than the busy wait (2 s) costs the process that one wait
// in all, however many requests come: a writer that came after this process opened the database, and
// one that held it from before (the open waits then). No callback, clean, cancel-all or deregistration
// comes later than one wait and a little, and every admission that met the lock is in once it has gone.
TEST_F(CacheTest, APeersLongLockCostsOneBusyWaitAndLosesNoAdmission)
{
    TestServer server;
    constexpr int kFiles = 8;
    for (int i = 0; i < kFiles; ++i)
        server.Route("/f" + std::to_string(i), {200, {}, Pattern(100, i)});
    server.Route("/held", {200, {}, Pattern(1000, 99), false, 10});
    const auto bound = 3500ms; // one busy wait, a transfer and some slack
    const struct {
        const char* name;
        bool opened_first;
        std::string lock;
    } peers[] = {
        {"writer", true, "BEGIN IMMEDIATE"},
        {"writer from before the open", false, std::string(kTable) + "BEGIN EXCLUSIVE"},
    };
    for (const auto& p : peers) {
        SCOPED_TRACE(p.name);
        FreshCacheDb();
        Deliveries::Clear();
        if (p.opened_first) {
            ASSERT_EQ(URL_CACHE_DB_READY, url_cache_db_open_state());
        }
        url_downloader_h svc, other, third;
        ASSERT_EQ(0, url_downloader_register("peer", Deliveries::Callback, nullptr, &svc));
        ASSERT_EQ(0, url_downloader_register("other", Deliveries::Callback, nullptr, &other));
        ASSERT_EQ(0, url_downloader_register("third", Deliveries::Callback, nullptr, &third));
        Peer peer(p.lock);
        LogCapture log;
        url_downloader_api_h api;
        // Transfers for the sweeps to end; swept, they have no callback.
        ASSERT_EQ(0, url_downloader_download(other, TempPath("h1").c_str(), server.Url("/held").c_str(), false, nullptr,
                                             &api));
        ASSERT_EQ(0, url_downloader_download(third, TempPath("h2").c_str(), server.Url("/held").c_str(), false, nullptr,
                                             &api));
        std::vector<std::chrono::steady_clock::time_point> asked;
        std::chrono::steady_clock::duration swept[2]{};
        std::thread sweeps;
        for (int i = 0; i < kFiles; ++i) {
            const std::string name = "/f" + std::to_string(i);
            asked.push_back(std::chrono::steady_clock::now());
            ASSERT_EQ(0, url_downloader_download(svc, TempPath(std::to_string(p.opened_first) + name.substr(1)).c_str(),
                                                 server.Url(name).c_str(), i % 2 == 0,
                                                 reinterpret_cast<void*>(intptr_t(i)), &api));
            if (i == kFiles / 2)
                sweeps = std::thread([&] {
                    auto start = std::chrono::steady_clock::now();
                    for (int c = 0; c < 4; ++c) // deleting needs the lock: no waits of their own
                        url_downloader_clean(other);
                    url_downloader_cancel_all_requests(other);
                    swept[0] = std::chrono::steady_clock::now() - start;
                    start = std::chrono::steady_clock::now();
                    url_downloader_deregister(third);
                    swept[1] = std::chrono::steady_clock::now() - start;
                });
            RunMainLoopUntil([] { return false; }, 500ms);
        }
        EXPECT_TRUE(Deliveries::WaitFor(kFiles, 20s));
        sweeps.join();
        for (const Delivery& d : Deliveries::All()) {
            EXPECT_EQ(0, d.error);
            EXPECT_LE(d.at - asked.at(size_t(intptr_t(d.user_data))), bound) << intptr_t(d.user_data);
        }
        EXPECT_LE(swept[0], bound) << "cleans and cancel-all";
        EXPECT_LE(swept[1], bound) << "deregistration";
        EXPECT_EQ(1u, log.Count(kError, "start_lock_episode",
                                "Cache database locked by another process for 2000 ms: the "
                                "cache is bypassed until the lock is gone"));
        sqlite3_exec(peer.db, "ROLLBACK", nullptr, nullptr, nullptr);
        EXPECT_TRUE(RunMainLoopUntil([] { return CountCacheRows("url like '%/f%'") == kFiles; }, 10s))
            << CountCacheRows("url like '%/f%'") << " of " << kFiles << " admissions in";
        url_downloader_finalize();
    }
}

// Admissions held while the lock lasts are bounded: past 1,000 the oldest go, with one line. Once the
// lock has gone the rest go in, with the checks and the trim of an admission made at once.
TEST_F(CacheTest, HeldAdmissionsAreBoundedAndGoInWithTheUsualChecks)
{
    for (int i = 0; i < 10; ++i) // a full cache: the big admission makes room by a trim
        ASSERT_TRUE(Add("old/" + std::to_string(i), "/old", 1000000, 1000 + i, false));
    std::ofstream(TempPath("small")) << "12345";
    std::ofstream(TempPath("changed")) << "12345";
    std::ofstream(TempPath("big")).close();
    ASSERT_EQ(0, truncate(TempPath("big").c_str(), 1000000));
    const int n = URL_DOWNLOADER_MAX_HELD_ADMISSIONS + 5;
    const std::string small = TempPath("small"), changed = TempPath("changed"), big = TempPath("big");
    LogCapture log;
    {
        Peer peer("BEGIN IMMEDIATE");
        for (int i = 0; i < n; ++i) {
            const std::string url = "held/" + std::to_string(i);
            const std::string& file = i == n - 1 ? big : i == n - 2 ? changed : small;
            url_downloader_cache c{0, S(url.c_str()), S(file.c_str()), i == n - 1 ? 1000000 : 5, 1, 2000000000, S("t")};
            _url_downloader_admit_download(&c);
        }
        EXPECT_EQ(1u, log.Count(kError, "hold_admission",
                                "Cache locked by another process: more than 1000 "
                                "admissions held, the oldest are dropped"));
        EXPECT_GT(_url_downloader_settle_cache(), 0) << "still locked";
    }
    std::ofstream(changed) << "123456";
    ASSERT_TRUE(RunMainLoopUntil([] { return _url_downloader_settle_cache() < 0; }, 3s));
    EXPECT_EQ(n - 6, CountCacheRows("url like 'held/%'"));
    EXPECT_EQ(0, CountCacheRows("url in ('held/0', 'held/4', 'held/" + std::to_string(n - 2) + "')"));
    EXPECT_EQ(5, CountCacheRows("filesize = 1000000")) << "six old rows trimmed, the big one in";
}

// The database is never opened through a symlink at its path (whoever may write the folder could
// aim it at any file); one replaced or deleted under the process is noticed and opened afresh.
TEST_F(CacheTest, TheDatabaseIsNeverFollowedThroughASymlinkAndAReplacedOneIsOpenedAfresh)
{
    ASSERT_EQ(0, symlink(TempPath("victim").c_str(), CacheDbPath().c_str()));
    EXPECT_EQ(URL_CACHE_DB_OFF, url_cache_db_open_state());
    EXPECT_FALSE(FileExists(TempPath("victim")));
    FreshCacheDb();
    const std::string file = TempPath("file"), moved = TempPath("moved.db");
    std::ofstream(file) << "12345";
    LogCapture log;
    for (const char* url : {"first", "after replacement", "after deletion"}) {
        if (*url == 'a') { // as a peer that finds it corrupt does: file and log aside, index gone
            ASSERT_EQ(0, rename(CacheDbPath().c_str(), moved.c_str()));
            ASSERT_EQ(0, rename((CacheDbPath() + "-wal").c_str(), (moved + "-wal").c_str()));
            std::remove((CacheDbPath() + "-shm").c_str());
            if (url[6] == 'r')
                Peer{kTable};
        }
        url_downloader_cache c{0, S(url), S(file.c_str()), 5, 1, 2000000000, S("t")};
        _url_downloader_admit_download(&c);
        EXPECT_EQ(1, CountCacheRows()) << url << " is not the one row of the file at the path";
        EXPECT_EQ(1, CountCacheRows("url='" + std::string(url) + "'")) << url;
    }
    EXPECT_EQ(2u, log.Count(kError, "reopen_if_replaced",
                            "Cache database " + CacheDbPath() +
                                " was replaced or deleted while in use: it is opened afresh"));
}

// A database found corrupt, on opening or by a later statement, is moved aside once and made anew.
TEST_F(CacheTest, ACorruptDatabaseIsMovedAsideAndMadeAnew)
{
    LogCapture log;
    std::ofstream(CacheDbPath(), std::ios::binary) << std::string(8192, 'x');
    ASSERT_TRUE(Add("http://first/", "/f", 1, 2e9));
    EXPECT_EQ(1, CountCacheRows());
    EXPECT_EQ(std::string(8192, 'x'), ReadFile(CacheDbPath() + ".corrupt"));
    EXPECT_TRUE(log.ContainsText("is corrupt, moved aside"));
    // A peer breaks the schema of the open database; the new version makes the library read it again.
    Peer{
        "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql='broken' WHERE name='qeturlcache'; "
        "PRAGMA schema_version=1000;"};
    // Admissions that meet the broken file fail until one finds it corrupt; then they work again.
    int failed = 0;
    while (failed < 3 && !Add("http://third/", "/f", 1, 2e9))
        ++failed;
    EXPECT_LT(failed, 3);
    EXPECT_TRUE(log.ContainsText(" is corrupt: moved aside to " + CacheDbPath() + ".corrupt, a new one is made"));
    EXPECT_EQ(1, CountCacheRows("url='http://third/'"));
}
