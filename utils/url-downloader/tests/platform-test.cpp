// Tests of the host stand-ins for the device's database utility and log.
// The harness defines both functions itself, so the platform library's own
// definitions are reached through PlatformSymbol.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "db-util.h"
#include "test-env.h"
#include "test-server.h"

using namespace ud_test;

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

// Whether lines go to standard error is decided at a process's first line:
// each setting gets a child of its own.
TEST(PlatformDlogTest, PrintsToStderrOnlyWhenAskedAndNeverOverrunsALine)
{
    auto log = reinterpret_cast<int (*)(int, const char*, const char*, ...)>(PlatformSymbol("__dlog_print"));
    ASSERT_NE(nullptr, log);
    const std::string full = "6/URL-Downloader: [UD_ERROR]: [f () Line 3] : text\n4/: no newline\n4/t: " +
                             std::string(1023, 'x') + "\n";
    for (const char* setting : {static_cast<const char*>(nullptr), "0", "1"}) {
        const std::string out = TempPath(std::string("stderr-") + (setting ? setting : "unset"));
        const pid_t child = fork();
        if (child == 0) {
            if (setting != nullptr)
                setenv("VELMORA_LOG_STDERR", setting, 1);
            else
                unsetenv("VELMORA_LOG_STDERR");
            if (!freopen(out.c_str(), "w", stderr))
                _exit(3);
            log(6, "URL-Downloader", "[UD_ERROR]: [%s () Line %d] : %s", "f", 3, "text\n");
            setenv("VELMORA_LOG_STDERR", setting != nullptr && setting[0] == '1' ? "0" : "1", 1); // read once
            log(4, nullptr, "no newline");
            log(4, "t", "%s", std::string(5000, 'x').c_str());
            const int code = log(4, "t", nullptr) == -1 ? 0 : 4;
            fflush(stderr);
            _exit(code);
        }
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status) << (setting ? setting : "unset");
        EXPECT_EQ(setting != nullptr && setting[0] == '1' ? full : "", ReadFile(out)) << (setting ? setting : "unset");
    }
}
