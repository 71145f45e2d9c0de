// Lookup and admission: when a cached entry may answer a download, and how
// finished downloads enter the bounded, shared cache.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <sqlite3.h>
#include <thread>
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
void Write(const std::string& name, const char* body) { std::ofstream(TempPath(name), std::ios::binary) << body; }
char* S(const char* s) { return const_cast<char*>(s); }
char* S(const std::string& s) { return const_cast<char*>(s.c_str()); }

bool Admit(const std::string& url, const std::string& path, long size, long expiry)
{
    url_downloader_cache c{0, S(url), path.empty() ? nullptr : S(path), size, time(nullptr), expiry, S("app")};
    url_downloader_error error = URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED;
    return url_downloader_add_cache(&c, &error) && error == URL_DOWNLOADER_ERROR_NONE;
}

// Whether the child exited with 0; killed after two minutes.
bool Succeeded(pid_t pid)
{
    int status = 1;
    for (int waited = 0; pid > 0 && waitpid(pid, &status, WNOHANG) == 0; ++waited, usleep(10000))
        if (waited == 12000)
            kill(pid, SIGKILL);
    return pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Two processes, forked before this one touches the cache and released
// together, admit rows of size bytes each; true when neither saw a failure.
bool AdmitFromTwoProcesses(int rows, long size)
{
    CacheDbPath(); // fixes the shared folder before the fork
    int start[2];
    pid_t children[2];
    if (pipe(start) != 0)
        return false;
    for (int c = 0; c < 2; ++c) {
        if ((children[c] = fork()) == 0) {
            char byte;
            close(start[1]);
            (void)!read(start[0], &byte, 1); // returns at the parent's close
            int failures = 0;
            for (int i = 0; i < rows; ++i)
                failures += !Admit("http://p" + std::to_string(c) + "/" + std::to_string(i), "/f", size, 2e9 + i);
            _exit(failures > 0);
        }
    }
    close(start[0]);
    close(start[1]);
    return Succeeded(children[0]) & Succeeded(children[1]);
}
class CachePolicyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        FreshCacheDb();
        Deliveries::Clear();
    }
    void TearDown() override
    {
        url_downloader_finalize();
        g_clock_shift = 0;
    }
};

// Runs admit in a child process of its own, as user uid (when not -1); true
// when it admitted its row.
bool AdmitInChild(uid_t uid, const std::string& url)
{
    pid_t pid = fork();
    if (pid == 0) {
        if (uid != (uid_t)-1 && (setgid(uid) != 0 || setuid(uid) != 0))
            _exit(2);
        _exit(Admit(url, "/f", 1, 2e9) ? 0 : 1);
    }
    return Succeeded(pid);
}
} // namespace

// The cache is shared by every process of the device, whatever its user: one
// that did not create the database still admits rows into it.
TEST_F(CachePolicyTest, AnotherUserSharesTheCache)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "switching to another user needs root";
    const uid_t nobody = 65534;
    // The test's folder stands in for the device's shared folder.
    ASSERT_EQ(0, chmod(TempDir().c_str(), 0777));
    CacheDbPath();
    ASSERT_TRUE(AdmitInChild((uid_t)-1, "http://root/"));
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat info {};
        ASSERT_EQ(0, stat((CacheDbPath() + suffix).c_str(), &info)) << suffix;
        EXPECT_EQ(0666u, info.st_mode & 0777) << suffix;
    }
    EXPECT_TRUE(AdmitInChild(nobody, "http://nobody/"));
    EXPECT_EQ(2, CountCacheRows());
}

TEST_F(CachePolicyTest, LookupAcceptsOnlyPresentSameLengthUnexpiredFiles)
{
    const long later = time(nullptr) + 3600;
    Write("resized", "12345");
    Write("expired", "12345");
    Write("kept", "12345");
    ASSERT_TRUE(Admit("missing", TempPath("missing"), 5, later));
    ASSERT_TRUE(Admit("resized", TempPath("resized"), 6, later));
    ASSERT_TRUE(Admit("expired", TempPath("expired"), 5, time(nullptr))); // expiring now is expired
    ASSERT_TRUE(Admit("", "", 5, later));
    ASSERT_TRUE(Admit("kept", TempPath("kept"), 5, later));
    Write("kept", "abcde"); // other contents, same length: still valid
    // Rows any process could write: a FIFO (opening it for reading would
    // wait for a writer) and a folder at the cached path.
    ASSERT_EQ(0, mkfifo(TempPath("fifo").c_str(), 0600));
    std::filesystem::create_directory(TempPath("folder"));
    ASSERT_TRUE(Admit("fifo", TempPath("fifo"), 0, later));
    ASSERT_TRUE(Admit("folder", TempPath("folder"), 4096, later));
    const std::string stale[][2] = {
        {"missing", "URL found in cache but the downloaded file missing in file-system"},
        {"resized", "URL found in cache but the file size mismatch. \nDB stored size is 6, and actaul size is 5"},
        {"expired", "But expired Id=[3]\n"},
        {"", "URL entry exists in DB, but filepath is NULL"},
        {"fifo", "URL found in cache but the downloaded file missing in file-system"},
        {"folder", "URL found in cache but the downloaded file missing in file-system"},
    };
    for (const auto& s : stale) {
        SCOPED_TRACE(s[0]);
        LogCapture log;
        url_downloader_cache c{0, S(s[0]), nullptr, 0, 0, 0, nullptr};
        auto lookup = std::async(std::launch::async, [&c] { return url_downloader_get_cache_filepath(&c); });
        if (lookup.wait_for(10s) != std::future_status::ready) {
            ADD_FAILURE() << "the lookup blocked";
            std::_Exit(1);
        }
        EXPECT_EQ(nullptr, lookup.get());
        EXPECT_TRUE(log.Contains(kError, "url_downloader_get_cache_filepath", s[1]));
        EXPECT_TRUE(log.Contains(kError, "url_downloader_get_cache_filepath", "Entry NOT found in cache"));
    }
    EXPECT_EQ(1, CountCacheRows()); // stale rows go; their files are the clients' and stay
    EXPECT_TRUE(std::filesystem::exists(TempPath("expired")));
    url_downloader_cache c{0, S("kept"), nullptr, 0, 0, 0, nullptr};
    char* path = url_downloader_get_cache_filepath(&c);
    EXPECT_STREQ(TempPath("kept").c_str(), path);
    free(path);
}

TEST_F(CachePolicyTest, AdmissionTrimsOnlyPastTheBudgetAndKeepsTheNewRow)
{
    LogCapture log;
    ASSERT_TRUE(Admit("big", "/big", URL_CACHE_MAX_SIZE - 100, 3000));
    ASSERT_TRUE(Admit("fill", "/fill", 100, 2000)); // exactly the budget: no trim
    EXPECT_FALSE(log.ContainsText("Cache cleaned"));
    ASSERT_TRUE(Admit("new", "/new", 1, 1000)); // trimmed first, so kept though it expires first
    EXPECT_TRUE(log.Contains(kDebug, "cleanUrlCache", "Cache cleaned"));
    EXPECT_EQ(1, CountCacheRows("url='new'"));
    EXPECT_EQ(1, CountCacheRows());
}

TEST_F(CachePolicyTest, TwoProcessesAdmittingAndTrimmingAtOnceNeverFail)
{
    EXPECT_TRUE(AdmitFromTwoProcesses(500, 1));
    EXPECT_EQ(1000, CountCacheRows()) << "rows lost";
    EXPECT_TRUE(AdmitFromTwoProcesses(300, 3000000)); // a trim every other admission
}

namespace {
// A connection of another process's kind that takes the cache's write lock.
struct Peer {
    sqlite3* db = nullptr;
    explicit Peer(const char* begin)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_open(CacheDbPath().c_str(), &db));
        sqlite3_busy_timeout(db, 5000);
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, begin, nullptr, nullptr, nullptr));
    }
    ~Peer()
    {
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_close(db);
    }
};

// Downloads path n times with the cache and waits (bounded) for the callbacks.
bool DownloadAll(url_downloader_h svc, const TestServer& server, const std::vector<std::string>& paths,
                 std::chrono::seconds bound, bool use_cache = true)
{
    size_t before = Deliveries::Count();
    for (const std::string& p : paths) {
        url_downloader_api_h api;
        if (url_downloader_download(svc, TempPath(p.substr(1)).c_str(), server.Url(p).c_str(), use_cache, nullptr,
                                    &api) != 0)
            return false;
    }
    return Deliveries::WaitFor(before + paths.size(), bound);
}
} // namespace

// Another process holding the cache's lock stalls a request at most one busy
// wait (2 s) per lookup and per admission, also on the first open; a shorter
// lock loses no admission.
TEST_F(CachePolicyTest, APeersLockStallsEachRequestAtMostOneBusyWait)
{
    TestServer server;
    for (int i = 0; i < 9; ++i)
        server.Route("/f" + std::to_string(i), {200, {}, Pattern(100, i)});
    url_downloader_h svc;
    ASSERT_EQ(0, url_downloader_register("peer", Deliveries::Callback, nullptr, &svc));
    {
        // Locked in rollback mode before this process first opens it.
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(CacheDbPath().c_str(), &db));
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "create table qeturlcache (id INTEGER PRIMARY KEY AUTOINCREMENT, url TEXT, "
                                              "filepath TEXT, filesize INTEGER, downloadtime INTEGER, expirytime INTEGER, "
                                              "appname TEXT)", nullptr, nullptr, nullptr));
        sqlite3_close(db);
        Peer peer("BEGIN EXCLUSIVE");
        EXPECT_TRUE(DownloadAll(svc, server, {"/f0"}, 20s)) << "the first open waited more than a few busy timeouts";
    }
    // Opened now that the lock is gone.
    ASSERT_TRUE(DownloadAll(svc, server, {"/f1"}, 20s));
    EXPECT_EQ(1, CountCacheRows());

    // Rows whose files are gone: each admission deletes one, then inserts.
    for (int i = 2; i <= 5; ++i)
        ASSERT_TRUE(Admit(server.Url("/f" + std::to_string(i)), TempPath("gone"), 100, time(nullptr) + 600));
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
TEST_F(CachePolicyTest, ACorruptDatabaseIsMovedAsideAndMadeAnew)
{
    LogCapture log;
    std::ofstream(CacheDbPath(), std::ios::binary) << std::string(8192, 'x');
    ASSERT_TRUE(Admit("http://first/", "/f", 1, 2e9));
    EXPECT_EQ(1, CountCacheRows());
    EXPECT_EQ(std::string(8192, 'x'), ReadFile(CacheDbPath() + ".corrupt"));
    EXPECT_TRUE(log.ContainsText("is corrupt, moved aside"));

    // Another process breaks the schema of the open database.
    sqlite3* peer = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(CacheDbPath().c_str(), &peer));
    sqlite3_exec(peer,
                 "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql='broken' WHERE name='qeturlcache'; "
                 "PRAGMA schema_version=1000;", // so that the library reads the schema again
                 nullptr, nullptr, nullptr);
    sqlite3_close(peer);
    // The admissions that meet the broken file fail; one of the next few
    // finds it corrupt, and after that they work again.
    int failed = 0;
    while (failed < 3 && !Admit("http://third/", "/f", 1, 2e9))
        ++failed;
    EXPECT_LT(failed, 3);
    EXPECT_TRUE(log.Contains(kError, "url_cache_db", "Cache database " + CacheDbPath() + " is corrupt: moved aside to " +
                                                         CacheDbPath() + ".corrupt, a new one is made"));
    EXPECT_EQ(1, CountCacheRows("url='http://third/'"));
}

// Past 32 bits: a body over 2 GiB, expiry times after January 2038 (an
// Expires date, the default lifetime added to a clock late in 2037); each is
// stored and then answers the same URL from the cache.
TEST_F(CachePolicyTest, SizesPast2GiBAndTimesPast2038AreStoredAndServed)
{
    setenv("TZ", "UTC0", 1);
    tzset();
    const int64_t big = (INT64_C(1) << 31) + 1;
    {
        // Sparse: no disk space for the source, only for the download.
        std::ofstream(TempPath("big-source"), std::ios::binary).put('x');
        ASSERT_EQ(0, truncate(TempPath("big-source").c_str(), big));
    }
    TestServer server;
    TestServer::Response file_response;
    file_response.file = TempPath("big-source");
    server.Route("/big", file_response);
    server.Route("/2040", {200, {{"Expires", "Tue, 01 May 2040 16:00:00 GMT"}}, "body"});
    server.Route("/default", {200, {}, "body"});
    const int64_t late_2037 = 2145830400; // 2037-12-31 00:00:00 UTC
    g_clock_shift = late_2037 - (int64_t)::time(nullptr);
    const int64_t now = ::time(nullptr);
    const struct {
        const char* path;
        int64_t size;
        int64_t lowest_expiry, highest_expiry;
    } cases[] = {
        {"/big", big, now + 15552000, now + 15552000 + 60},
        {"/2040", 4, 2219500800, 2219500800},
        {"/default", 4, now + 15552000, now + 15552000 + 60},
    };
    url_downloader_h svc;
    ASSERT_EQ(0, url_downloader_register("late", Deliveries::Callback, nullptr, &svc));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        ASSERT_TRUE(DownloadAll(svc, server, {c.path}, 240s)) << "no callback";
        EXPECT_EQ(0, Deliveries::All().back().error);
        const std::string got = Deliveries::All().back().path.value_or("");
        struct stat info {};
        ASSERT_EQ(0, stat(got.c_str(), &info));
        EXPECT_EQ(c.size, (int64_t)info.st_size);
        std::unique_ptr<UrlCache> row(URLCacheManager::getInstance()->findUrlCache(S(server.Url(c.path))));
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
