// The cache list command: prints the rows of the shared URL cache.
#include "cache-list.h"

#include <glib.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cinttypes>

#include "db-util.h"

namespace udcli {

namespace {

// The library's fixed database. Opened through the platform's utility, like
// the library does, so that it is the same file (and a test's stand-in).
const char kCacheDb[] = "/opt/dbspace/.urlcache.db";

std::string LocalTime(int64_t seconds)
{
    // GDateTime is 64-bit where time_t is not (armhf).
    GDateTime* when = g_date_time_new_from_unix_local(seconds);
    gchar* text = when != nullptr ? g_date_time_format(when, "%Y-%m-%d %H:%M:%S") : nullptr;
    std::string result = text != nullptr ? text : std::to_string(seconds);
    g_free(text);
    if (when != nullptr)
        g_date_time_unref(when);
    return result;
}

// The library serves a cached path only while it names a regular file of the
// recorded size.
const char* FileStatus(const char* path, int64_t size)
{
    struct stat st;
    if (stat(path, &st) != 0)
        return "missing";
    return S_ISREG(st.st_mode) && st.st_size == size ? "present" : "changed";
}

const char* Text(sqlite3_stmt* statement, int column)
{
    const unsigned char* text = sqlite3_column_text(statement, column);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

} // namespace

int ListCache(const std::optional<std::string>& app, std::FILE* out, std::FILE* err)
{
    sqlite3* db = nullptr;
    if (db_util_open(kCacheDb, &db, 0) != 0 || db == nullptr) {
        std::fprintf(err, "url-downloader: cannot open the cache database %s\n", kCacheDb);
        return 1;
    }
    // The library makes the table on first use: none yet is an empty cache.
    const char* sql =
        "select appname, url, filepath, filesize, expirytime from qeturlcache"
        " where ?1 is null or appname = ?1 order by id";
    sqlite3_stmt* check = nullptr;
    sqlite3_stmt* rows = nullptr;
    int rc = sqlite3_prepare_v2(db, "select 1 from sqlite_master where type = 'table' and name = 'qeturlcache'", -1,
                                &check, nullptr);
    if (rc == SQLITE_OK)
        rc = sqlite3_step(check);
    if (rc == SQLITE_ROW)
        rc = sqlite3_prepare_v2(db, sql, -1, &rows, nullptr);
    if (rows != nullptr && app)
        sqlite3_bind_text(rows, 1, app->c_str(), -1, SQLITE_TRANSIENT);
    if (rc == SQLITE_OK || rc == SQLITE_DONE)
        std::fputs("APP\tURL\tPATH\tSIZE\tEXPIRES\tFILE\n", out);
    while (rows != nullptr && (rc = sqlite3_step(rows)) == SQLITE_ROW) {
        const int64_t size = sqlite3_column_int64(rows, 3);
        std::fprintf(out, "%s\t%s\t%s\t%" PRId64 "\t%s\t%s\n", Text(rows, 0), Text(rows, 1), Text(rows, 2), size,
                     LocalTime(sqlite3_column_int64(rows, 4)).c_str(), FileStatus(Text(rows, 2), size));
    }
    const bool ok = rc == SQLITE_DONE;
    if (!ok)
        std::fprintf(err, "url-downloader: cannot read the cache database %s: %s\n", kCacheDb, sqlite3_errmsg(db));
    sqlite3_finalize(rows);
    sqlite3_finalize(check);
    sqlite3_close(db);
    return ok ? 0 : 1;
}

} // namespace udcli
