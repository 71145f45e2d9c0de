// Tests of the host stand-ins for the device's database utility and log.
// The harness defines both functions itself, so the platform library's own
// definitions are reached through PlatformSymbol.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <unistd.h>

#include "db-util.h"
#include "test-env.h"

using namespace ud_test;

namespace {

using OpenFn = int (*)(const char*, sqlite3**, int);
using LogFn = int (*)(int, const char*, const char*, ...);

OpenFn PlatformOpen() { return reinterpret_cast<OpenFn>(PlatformSymbol("db_util_open")); }
LogFn PlatformLog() { return reinterpret_cast<LogFn>(PlatformSymbol("__dlog_print")); }

std::string PragmaText(sqlite3* db, const char* pragma)
{
    std::string out;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, (std::string("PRAGMA ") + pragma).c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW)
        out = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    sqlite3_finalize(stmt);
    return out;
}

// What fn writes to file descriptor 2. The pipe's read end sees EOF once
// stderr is restored, so the read cannot block.
std::string CaptureStderr(const std::function<void()>& fn)
{
    int fds[2];
    if (pipe(fds) != 0)
        return "pipe failed";
    const int saved = dup(2);
    dup2(fds[1], 2);
    close(fds[1]);
    fn();
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    return out;
}

} // namespace

TEST(PlatformDbUtilTest, CreatesFoldersAndConfiguresTheConnection)
{
    OpenFn open = PlatformOpen();
    ASSERT_NE(nullptr, open);
    const std::string path = TempPath("a/b/c/cache.db");
    sqlite3* db = nullptr;
    ASSERT_EQ(0, open(path.c_str(), &db, 1));
    ASSERT_NE(nullptr, db);
    EXPECT_EQ("wal", PragmaText(db, "journal_mode"));
    EXPECT_EQ("1", PragmaText(db, "synchronous")); // NORMAL
    EXPECT_LT(0, std::atoi(PragmaText(db, "busy_timeout").c_str()));
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, "create table t (x);", nullptr, nullptr, nullptr));
    sqlite3_close(db);
    EXPECT_EQ(0, access(path.c_str(), F_OK));
}

TEST(PlatformDbUtilTest, FailsCleanlyOnImpossibleInput)
{
    OpenFn open = PlatformOpen();
    ASSERT_NE(nullptr, open);
    std::ofstream(TempPath("plain")) << "a regular file";
    sqlite3* db = reinterpret_cast<sqlite3*>(1);
    EXPECT_NE(0, open(TempPath("plain/sub/x.db").c_str(), &db, 1)); // a folder would have to replace the file
    EXPECT_EQ(nullptr, db);
    db = reinterpret_cast<sqlite3*>(1);
    EXPECT_NE(0, open(TempPath("plain/x.db").c_str(), &db, 1)); // the parent is a file
    EXPECT_EQ(nullptr, db);
    db = reinterpret_cast<sqlite3*>(1);
    EXPECT_NE(0, open(nullptr, &db, 1));
    EXPECT_EQ(nullptr, db);
    EXPECT_NE(0, open(TempPath("x.db").c_str(), nullptr, 1));
}

TEST(PlatformDlogTest, PrintsToStderrOnlyWhenAsked)
{
    LogFn log = PlatformLog();
    ASSERT_NE(nullptr, log);

    unsetenv("VELMORA_LOG_STDERR");
    EXPECT_EQ("", CaptureStderr([&] { log(4, "URL-Downloader", "quiet %d", 1); }));
    setenv("VELMORA_LOG_STDERR", "0", 1);
    EXPECT_EQ("", CaptureStderr([&] { log(4, "URL-Downloader", "quiet %d", 2); }));

    setenv("VELMORA_LOG_STDERR", "1", 1);
    int ret = 0;
    const std::string out = CaptureStderr([&] {
        ret = log(6, "URL-Downloader", "[UD_ERROR]: [%s () Line %d] : %s", "f", 3, "text\n");
        log(4, nullptr, "no newline");
    });
    EXPECT_EQ("6/URL-Downloader: [UD_ERROR]: [f () Line 3] : text\n4/: no newline\n", out);
    EXPECT_EQ(static_cast<int>(std::string("[UD_ERROR]: [f () Line 3] : text\n").size()), ret);

    // Longer lines are cut to the platform's line size, never overrun it.
    const std::string huge(5000, 'x');
    const std::string cut = CaptureStderr([&] { log(4, "t", "%s", huge.c_str()); });
    EXPECT_EQ("4/t: " + std::string(1023, 'x') + "\n", cut);
    EXPECT_EQ(-1, log(4, "t", nullptr));
    unsetenv("VELMORA_LOG_STDERR");
}
