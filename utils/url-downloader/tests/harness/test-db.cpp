#include "test-db.h"

#include <atomic>
#include <cstdio>
#include <filesystem>

#include "db-util.h"
#include "test-env.h"
#include "url-cache-db.h"

namespace ud_test {

namespace {
std::atomic<bool> g_fail{false};
using OpenFn = int (*)(const char*, sqlite3**, int);
} // namespace

std::string CacheDbPath() { return TempPath("urlcache.db"); }

void FailDbOpen(bool fail) { g_fail = fail; }

void FreshCacheDb()
{
    url_cache_db_close();
    for (const char* suffix : {"", "-wal", "-shm", ".corrupt", ".corrupt-wal"})
        std::remove((CacheDbPath() + suffix).c_str());
}

int CountCacheRows(const std::string& where_sql)
{
    if (!std::filesystem::exists(CacheDbPath()))
        return 0;
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    int count = -1;
    if (sqlite3_open_v2(CacheDbPath().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(db, 10000);
        const std::string sql = "select count(*) from qeturlcache where " + where_sql;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW)
            count = sqlite3_column_int(stmt, 0);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return count;
}

} // namespace ud_test

extern "C" __attribute__((visibility("default"))) int db_util_open(const char* path, sqlite3** handle, int option)
{
    if (handle != nullptr)
        *handle = nullptr;
    static const auto real = reinterpret_cast<ud_test::OpenFn>(ud_test::PlatformSymbol("db_util_open"));
    if (ud_test::g_fail || real == nullptr || real == &db_util_open)
        return SQLITE_CANTOPEN;
    if (path == nullptr || handle == nullptr)
        return real(path, handle, option);
    // Normalised, so that "/opt//dbspace/./.urlcache.db" cannot slip past.
    std::error_code ec;
    const std::filesystem::path asked = std::filesystem::absolute(path, ec).lexically_normal();
    const std::string rel = asked.lexically_relative("/opt/dbspace").string();
    if (ec || asked == "/opt/dbspace/.urlcache.db")
        return ec ? SQLITE_CANTOPEN : real(ud_test::CacheDbPath().c_str(), handle, option);
    if (!rel.empty() && rel.compare(0, 2, "..") != 0) {
        std::fprintf(stderr, "test db_util_open: refusing %s (host database folder)\n", path);
        return SQLITE_CANTOPEN;
    }
    return real(path, handle, option);
}
