// Tests of the host stand-ins for the device's database utility and log.
// The harness defines both functions itself, so the platform library's own
// definitions are reached through PlatformSymbol.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "db-util.h"
#include "test-env.h"

using namespace ud_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

std::string Pragma(sqlite3* db, const std::string& name)
{
    std::string out;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, ("PRAGMA " + name).c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW)
        out = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    sqlite3_finalize(stmt);
    return out;
}

} // namespace

TEST(PlatformDbUtilTest, CreatesFoldersConfiguresTheConnectionAndFailsWithANullHandle)
{
    auto open = reinterpret_cast<int (*)(const char*, sqlite3**, int)>(PlatformSymbol("db_util_open"));
    ASSERT_NE(nullptr, open);
    sqlite3* db = nullptr;
    ASSERT_EQ(0, open(TempPath("a/b/c/cache.db").c_str(), &db, 1));
    EXPECT_EQ("wal", Pragma(db, "journal_mode"));
    EXPECT_EQ("1", Pragma(db, "synchronous")); // NORMAL
    EXPECT_LT(0, std::atoi(Pragma(db, "busy_timeout").c_str()));
    sqlite3_close(db);

    std::ofstream(TempPath("plain")) << "a regular file";
    const std::string under_file = TempPath("plain/sub/x.db"); // a folder would have to replace the file
    for (const char* path : {under_file.c_str(), static_cast<const char*>(nullptr)}) {
        db = reinterpret_cast<sqlite3*>(1);
        EXPECT_NE(0, open(path, &db, 1)) << (path ? path : "NULL");
        EXPECT_EQ(nullptr, db);
    }
    EXPECT_NE(0, open(TempPath("x.db").c_str(), nullptr, 1));
}

TEST(PlatformDlogTest, PrintsToStderrOnlyWhenAskedAndNeverOverrunsALine)
{
    auto log = reinterpret_cast<int (*)(int, const char*, const char*, ...)>(PlatformSymbol("__dlog_print"));
    ASSERT_NE(nullptr, log);
    CaptureStderr();
    unsetenv("VELMORA_LOG_STDERR");
    log(4, "URL-Downloader", "quiet %d", 1);
    setenv("VELMORA_LOG_STDERR", "0", 1);
    log(4, "URL-Downloader", "quiet %d", 2);
    setenv("VELMORA_LOG_STDERR", "1", 1);
    log(6, "URL-Downloader", "[UD_ERROR]: [%s () Line %d] : %s", "f", 3, "text\n");
    log(4, nullptr, "no newline");
    log(4, "t", "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(-1, log(4, "t", nullptr));
    EXPECT_EQ("6/URL-Downloader: [UD_ERROR]: [f () Line 3] : text\n4/: no newline\n4/t: " + std::string(1023, 'x') +
                  "\n",
              GetCapturedStderr());
}
