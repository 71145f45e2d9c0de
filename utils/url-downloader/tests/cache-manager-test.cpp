// The cache table: records round-trip, an existing database keeps its rows,
// an unopenable one fails cleanly, and the trim forgets the entries expiring
// first until less than half of the budget is used.
#include <gtest/gtest.h>

#include <memory>
#include <sqlite3.h>
#include <vector>

#include "cache-policy.h"
#include "log-capture.h"
#include "test-db.h"

using namespace ud_test;

namespace {
URLCacheManager* Cache() { return URLCacheManager::getInstance(); }
char* S(const char* s) { return const_cast<char*>(s); }

class CacheManagerTest : public ::testing::Test {
protected:
    void SetUp() override { FreshCacheDb(); }
    void TearDown() override { FailDbOpen(false); }
    static bool Add(const std::string& url, const char* path, int64_t size, int64_t expiry, const char* app = "t")
    {
        url_downloader_cache c{0, S(url.c_str()), S(path), size, 1700000000L, expiry, S(app)};
        UrlCache record(&c);
        return Cache()->addUrlCache(record);
    }
};

TEST_F(CacheManagerTest, RecordsRoundTripQuotesNullsWideNumbersAndExactUrls)
{
    const int64_t far = INT64_C(4102444800); // past 2^32: a 32-bit column or long would mangle it
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
    got->filesize = 5;
    ASSERT_TRUE(Cache()->updateUrlCache(*got));
    EXPECT_EQ(1, CountCacheRows("filesize=5 and filepath='/tmp/o''brien'"));
    EXPECT_TRUE(Cache()->deleteUrlCache(S("app'1")));
    EXPECT_EQ(0, CountCacheRows("url='http://h/it''s'"));
    EXPECT_EQ(1, CountCacheRows());
}

TEST_F(CacheManagerTest, ExistingDatabaseKeepsItsRows)
{
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(CacheDbPath().c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "create table qeturlcache (id INTEGER PRIMARY KEY, url TEXT, filepath TEXT,"
                                          " filesize INTEGER, downloadtime INTEGER, expirytime INTEGER, appname TEXT);"
                                          " insert into qeturlcache (url, filesize) values ('u', 5);",
                                      nullptr, nullptr, nullptr));
    sqlite3_close(db);
    EXPECT_EQ(5, Cache()->getUrlCacheSize());
}

TEST_F(CacheManagerTest, UnopenableDatabaseFailsEveryOperation)
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
}

TEST_F(CacheManagerTest, TrimCountsDownFromTheBudgetInExpiryOrder)
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
            ASSERT_TRUE(Add("http://h/" + std::to_string(i), nullptr, c.sizes[i], 1000 + int64_t(i)));
            sum += c.sizes[i];
        }
        EXPECT_EQ(sum, Cache()->getUrlCacheSize());
        EXPECT_EQ(c.remainder, Cache()->cleanUrlCache());
        EXPECT_EQ(int(c.left), CountCacheRows());
        EXPECT_EQ(int(c.left), CountCacheRows("expirytime >= " + std::to_string(1000 + c.sizes.size() - c.left)));
        ASSERT_TRUE(Cache()->deleteUrlCache(S("t")));
    }
}
} // namespace
