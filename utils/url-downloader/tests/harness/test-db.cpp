#include "test-db.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <filesystem>

#include "db-util.h"
#include "test-env.h"

namespace ud_test {

namespace {
std::atomic<bool> g_fail{false};
const char kRealPath[] = "/opt/dbspace/.urlcache.db";
const char kRealDir[] = "/opt/dbspace";

using OpenFn = int (*)(const char*, sqlite3**, int);

OpenFn RealOpen()
{
    static const OpenFn fn = reinterpret_cast<OpenFn>(PlatformSymbol("db_util_open"));
    return fn;
}
} // namespace

std::string CacheDbPath() { return TempPath("urlcache.db"); }

void FailDbOpen(bool fail) { g_fail.store(fail); }

int CountCacheRows(const std::string& where_sql)
{
    const std::string path = CacheDbPath();
    if (!std::filesystem::exists(path))
        return 0;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return -1;
    }
    sqlite3_busy_timeout(db, 10000);
    std::string sql = "select count(*) from qeturlcache";
    size_t first = 0;
    while (first < where_sql.size() && std::isspace(static_cast<unsigned char>(where_sql[first])))
        ++first;
    if (first < where_sql.size()) {
        std::string head = where_sql.substr(first, 5);
        for (char& c : head)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        sql += head == "where" ? " " : " where ";
        sql += where_sql.substr(first);
    }
    int count = -1;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW)
        count = sqlite3_column_int(stmt, 0);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return count;
}

} // namespace ud_test

extern "C" __attribute__((visibility("default"))) int db_util_open(const char* path, sqlite3** handle, int option)
{
    if (handle != nullptr)
        *handle = nullptr;
    if (ud_test::g_fail.load())
        return SQLITE_CANTOPEN;
    if (path == nullptr || handle == nullptr) {
        ud_test::OpenFn real = ud_test::RealOpen();
        return real != nullptr ? real(path, handle, option) : SQLITE_MISUSE;
    }
    // Compare normalised paths, so that "/opt//dbspace/./.urlcache.db" cannot
    // slip past to the real file.
    std::error_code ec;
    const std::filesystem::path asked = std::filesystem::absolute(path, ec).lexically_normal();
    if (ec) {
        std::fprintf(stderr, "test db_util_open: cannot resolve %s\n", path);
        return SQLITE_CANTOPEN;
    }
    std::string target = path;
    if (asked == ud_test::kRealPath) {
        target = ud_test::CacheDbPath();
    } else {
        const auto rel = asked.lexically_relative(ud_test::kRealDir);
        if (!rel.empty() && *rel.begin() != "..") {
            std::fprintf(stderr, "test db_util_open: refusing %s (host database folder)\n", path);
            return SQLITE_CANTOPEN;
        }
    }
    ud_test::OpenFn real = ud_test::RealOpen();
    if (real == nullptr || real == &db_util_open) {
        std::fprintf(stderr, "test db_util_open: platform db_util_open not found\n");
        return SQLITE_CANTOPEN;
    }
    return real(target.c_str(), handle, option);
}
