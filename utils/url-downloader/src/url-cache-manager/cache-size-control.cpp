/* The cache budget: the recorded size sum and the trim that forgets the rows expiring first. */
#include <new>
#include <inttypes.h>

#include "url-cache-manager.h"
#include "url-cache-db.h"
#include "url-downloader-log.h"

#define URL_CACHE_SIZE_COLUMN "filesize"
#define URL_CACHE_TRIM_ORDER_COLUMN "expirytime"
#define URL_CACHE_TRIM_ORDER "asc"

int64_t URLCacheManager::getUrlCacheSize()
{
    UD_BEGIN();
    char* query = sqlite3_mprintf("select sum(%s) from %s", URL_CACHE_SIZE_COLUMN, URL_CACHE_TABLE_NAME);
    if (query == NULL) {
        UD_ERROR("sqlite3_mprintf returned NULL, so returning!");
        return -1;
    }
    UD_DEBUG("Query to be executed:[%s] \n", query);

    int64_t size;
    {
        CacheDbSession session;
        if (!session.Prepare(__FUNCTION__, query))
            return -1;
        if (url_cache_db_note(sqlite3_step(session.Statement())) == SQLITE_ROW) {
            /* The sum over an empty table is NULL, which reads as 0. */
            size = sqlite3_column_int64(session.Statement(), 0);
            UD_DEBUG("Current cache size is:[%" PRId64 "]", size);
        } else {
            size = -1;
            UD_ERROR("sqlite3_step api failed");
        }
    }
    UD_END();
    return size;
}

int64_t URLCacheManager::cleanUrlCache()
{
    UD_BEGIN();
    UrlCache* scratch = new (std::nothrow) UrlCache();
    UD_ASSERT_ALLOC(scratch);
    char* query = sqlite3_mprintf("select * from %s order by %s %s limit %d", URL_CACHE_TABLE_NAME,
                                  URL_CACHE_TRIM_ORDER_COLUMN, URL_CACHE_TRIM_ORDER, URL_CACHE_CLEAN_BATCH);
    if (query == NULL) {
        UD_ERROR("sqlite3_mprintf returned NULL, so returning!");
        delete scratch;
        return -1;
    }
    UD_DEBUG("Query to be executed:[%s]", query);

    CacheDbSession session;
    if (!session.Prepare(__FUNCTION__, query)) {
        delete scratch;
        return -1;
    }
    sqlite3_stmt* stmt = session.Statement();
    int ret;

    bool ok = true;
    int64_t remainder = URL_CACHE_MAX_SIZE;
    char* errmsg = NULL;
    /* The deletions run while the selection is open. Left to autocommit, each
     * would have to upgrade the selection's read transaction to a write one,
     * which SQLite refuses at once (no busy wait) whenever another process
     * holds or has just used the write lock. Taking the write lock first lets
     * the busy timeout do its work, and keeps the trim whole for other
     * processes. */
    /* Inside a write batch the batch's transaction holds the trim. */
    const bool own_transaction = !url_cache_db_in_transaction();
    ret = own_transaction ? url_cache_db_exec("BEGIN IMMEDIATE", &errmsg) : SQLITE_OK;
    bool in_transaction = ret == SQLITE_OK;
    if (!in_transaction) {
        UD_ERROR("SQL error: %s\n", url_cache_db_error_text(errmsg, ret));
        sqlite3_free(errmsg);
        ok = false;
    }

    int step = in_transaction ? url_cache_db_note(sqlite3_step(stmt)) : SQLITE_DONE;
    while (step == SQLITE_ROW) {
        scratch->id = sqlite3_column_int64(stmt, 0);
        scratch->expirytime = sqlite3_column_int64(stmt, 5);
        scratch->filesize = sqlite3_column_int64(stmt, 3);

        char* deletion = sqlite3_mprintf("delete from %s where id=%lld", URL_CACHE_TABLE_NAME, (long long)scratch->id);
        if (deletion == NULL) {
            UD_ERROR("sqlite3_mprintf returned NULL, so returning!");
            ok = false;
            break;
        }
        UD_DEBUG("Query to be executed:[%s] \n", deletion);
        ret = url_cache_db_exec(deletion, &errmsg);
        if (ret != SQLITE_OK) {
            UD_DEBUG("Query: [%s]", deletion);
            UD_ERROR("SQL error: %s\n", url_cache_db_error_text(errmsg, ret));
            sqlite3_free(deletion);
            sqlite3_free(errmsg);
            ok = false;
            break;
        }
        sqlite3_free(deletion);

        step = url_cache_db_note(sqlite3_step(stmt));
        /* Counted down from the budget, not from the actual sum. */
        remainder -= scratch->filesize;
        if (remainder < URL_CACHE_HALF_SIZE)
            break;
    }

    sqlite3_reset(stmt); /* the selection ends before the transaction does */
    bool kept = in_transaction;
    if (in_transaction && own_transaction) {
        /* Committed on failure too: rows already deleted stay deleted. A
         * failed COMMIT is rolled back, and then no row was deleted: the log
         * says so, and the admission that asked for the room fails. */
        ret = url_cache_db_exec("COMMIT", &errmsg);
        if (ret != SQLITE_OK) {
            UD_ERROR("SQL error: %s\n", url_cache_db_error_text(errmsg, ret));
            sqlite3_free(errmsg);
            url_cache_db_exec("ROLLBACK", &errmsg);
            sqlite3_free(errmsg);
            UD_ERROR("Trim rolled back, no row was deleted");
            ok = kept = false;
        }
    }
    if (kept && remainder < URL_CACHE_HALF_SIZE)
        UD_DEBUG("Cache cleaned to its half size [%" PRId64 "]", remainder);
    delete scratch;

    if (!ok) {
        UD_ERROR("Cache could not be cleaned");
        return -1;
    }
    UD_DEBUG("Cache cleaned");
    return remainder;
}
