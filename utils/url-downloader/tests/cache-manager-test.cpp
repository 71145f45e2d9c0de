// The cache table: records go in and come back out unchanged, an existing
// database keeps its rows, an unopenable one fails cleanly, and the trim
// forgets the entries expiring first until, counting down from the budget,
// less than half of it is left.
#include <gtest/gtest.h>

#include <memory>
#include <sqlite3.h>
#include <thread>
#include <vector>

#include "cache-policy.h"
#include "log-capture.h"
#include "test-db.h"

using namespace ud_test;

namespace {
URLCacheManager* Cache() { return URLCacheManager::getInstance(); }
char* S(const char* s) { return const_cast<char*>(s); }
bool Add(const std::string& url, const char* path, int64_t size, int64_t expiry, const char* app = "t")
{
    url_downloader_cache c{0, S(url.c_str()), S(path), size, 1700000000L, expiry, S(app)};
    UrlCache record(&c);
    return Cache()->addUrlCache(record);
}
} // namespace

TEST(CacheManagerTest, RecordsRoundTripQuotesNullsWideNumbersAndExactUrls)
{
    // Past 2^32: a 32-bit column read or a long on the device would mangle it.
    const int64_t far = INT64_C(4102444800);
    ASSERT_TRUE(Add("http://h/it's", "/tmp/o'brien", far, far, "app'1"));
    ASSERT_TRUE(Add("http://h/IT'S", nullptr, 7, far, nullptr));
    std::unique_ptr<UrlCache> got(Cache()->findUrlCache(S("http://h/it's")));
    ASSERT_NE(nullptr, got);
    EXPECT_STREQ("/tmp/o'brien", got->filepath);
    EXPECT_EQ(far, got->expirytime);
    EXPECT_EQ(far + 7, Cache()->getUrlCacheSize());
    std::unique_ptr<UrlCache> other(Cache()->getUrlCache(got->id + 1));
    ASSERT_NE(nullptr, other);
    EXPECT_EQ(nullptr, other->filepath);
    EXPECT_EQ(nullptr, other->appname);
    {
        UrlCache copy(*got); // copies own their strings: their end leaves got intact
        copy = *other;
    }
    got->filesize = 5;
    ASSERT_TRUE(Cache()->updateUrlCache(*got));
    EXPECT_EQ(1, CountCacheRows("filesize=5 and filepath='/tmp/o''brien'"));
    EXPECT_TRUE(Cache()->deleteUrlCache(S("nobody")));
    EXPECT_TRUE(Cache()->deleteUrlCache(S("app'1")));
    EXPECT_EQ(1, CountCacheRows());
}

TEST(CacheManagerTest, ExistingDatabaseKeepsItsRowsAndFirstUseIsSingleAcrossThreads)
{
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(CacheDbPath().c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "create table qeturlcache (id INTEGER PRIMARY KEY, url TEXT, filepath TEXT,"
                                          " filesize INTEGER, downloadtime INTEGER, expirytime INTEGER, appname TEXT);"
                                          " insert into qeturlcache (url, filesize) values ('u', 5);",
                                      nullptr, nullptr, nullptr));
    sqlite3_close(db);
    LogCapture log;
    std::vector<URLCacheManager*> seen(8);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = URLCacheManager::getInstance(); });
    for (std::thread& t : threads)
        t.join();
    for (URLCacheManager* m : seen)
        EXPECT_EQ(seen[0], m);
    EXPECT_EQ(1u, log.Count(kDebug, "URLCacheManager", ">>>>>>>>Begin."));
    EXPECT_EQ(5, Cache()->getUrlCacheSize());
}

TEST(CacheManagerTest, UnopenableDatabaseFailsEveryOperationWithItsLine)
{
    FailDbOpen(true);
    LogCapture log;
    url_downloader_cache c{0, S("u"), S("/p"), 1, 1, 1, nullptr};
    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    EXPECT_FALSE(Add("u", "/p", 1, 1));
    EXPECT_FALSE(Cache()->deleteUrlCache(1));
    EXPECT_EQ(nullptr, Cache()->findUrlCache(S("u")));
    EXPECT_EQ(-1, Cache()->cleanUrlCache());
    EXPECT_FALSE(url_downloader_add_cache(&c, &error));
    EXPECT_EQ(URL_DOWNLOADER_ERROR_CACHE_SIZE_FAILED, error);
    EXPECT_TRUE(log.ContainsText("DBConnect failed with:"));
    EXPECT_TRUE(log.Contains(kError, "deleteUrlCache", "SQL error: bad parameter or other API misuse\n"));
    EXPECT_TRUE(log.Contains(kError, "cleanUrlCache", "sqlite3_prepare returned error[21], so returning"));
}

TEST(CacheManagerTest, TrimCountsDownFromTheBudgetInExpiryOrder)
{
    struct {
        std::vector<int64_t> sizes;
        int64_t remainder;
        size_t left;
        bool half_line;
    } const cases[] = {
        {{}, 10485760, 0, false},
        {std::vector<int64_t>(10, 1000000), 4485760, 4, true}, // five leave 5,485,760: not yet below half
        {{2621440, 2621440, 1000, 1000}, 5241880, 1, true}, // exactly half deleted is not enough
        {{20000000, 5}, -9514240, 1, true},
        {std::vector<int64_t>(150, 10000), 9485760, 50, false}, // one trim reads 100 rows at most
        {{INT64_C(3) << 30, INT64_C(3) << 30}, 10485760 - (INT64_C(3) << 30), 1, true}, // sums past 2^32
    };
    EXPECT_EQ(0, Cache()->getUrlCacheSize()); // the sum over no rows is NULL
    for (const auto& c : cases) {
        SCOPED_TRACE(c.remainder);
        for (size_t i = 0; i < c.sizes.size(); ++i) // row i expires at 1000 + i: trimmed in this order
            ASSERT_TRUE(Add("http://h/" + std::to_string(i), nullptr, c.sizes[i], 1000 + int64_t(i)));
        int64_t sum = 0;
        for (int64_t size : c.sizes)
            sum += size;
        EXPECT_EQ(sum, Cache()->getUrlCacheSize());
        LogCapture log;
        EXPECT_EQ(c.remainder, Cache()->cleanUrlCache());
        EXPECT_EQ(int(c.left), CountCacheRows());
        EXPECT_EQ(int(c.left), CountCacheRows("expirytime >= " + std::to_string(1000 + c.sizes.size() - c.left)));
        EXPECT_EQ(c.half_line, log.Contains(kDebug, "cleanUrlCache",
                                            "Cache cleaned to its half size [" + std::to_string(c.remainder) + "]"));
        EXPECT_TRUE(log.Contains(kDebug, "cleanUrlCache", "Cache cleaned"));
        ASSERT_TRUE(Cache()->deleteUrlCache(S("t")));
    }
}
