/* The cache database connection, its lock and the manager's row operations. */
#include "url-cache-manager.h"

#include <atomic>
#include <new>
#include <mutex>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "db-util.h"
#include "url-cache-db.h"
#include "url-downloader-common.h"

#define URL_CACHE_CREATE_TABLE_FORMAT \
    " create table if not exists %s ( id INTEGER PRIMARY KEY AUTOINCREMENT, url TEXT, filepath TEXT, " \
    "filesize INTEGER, downloadtime INTEGER, expirytime INTEGER, appname TEXT);"
#define URL_CACHE_QUERY_SIZE 2048
/* Option value handed to the platform's database utility. */
#define URL_CACHE_DB_OPEN_OPTION 1
/* Longest wait for another process's lock in one lookup or admission (ms).
 * A healthy peer holds the write lock for milliseconds; the processing thread
 * waits here before it delivers, so every client of the process waits too. */
#define URL_CACHE_BUSY_TIMEOUT_MS 2000
/* While a lock episode lasts with the database unopened, how often a write
 * batch tries to open it: the platform's open waits for the lock itself. */
#define URL_CACHE_REOPEN_INTERVAL_MS 5000

UdPlainLock cache_db_lock = {PTHREAD_MUTEX_INITIALIZER};

URLCacheManager* URLCacheManager::instance = NULL;

namespace {

/* The process's connection; NULL until (or unless) the database was opened. */
sqlite3* cache_db_handle UD_GUARDED_BY(cache_db_lock) = NULL;

/* The wait budget of the calling thread (see CacheDbWaitBudget). */
thread_local bool budget_in_unit = false;
thread_local int64_t budget_deadline_ms = 0;
thread_local bool budget_spent = false;
/* Set while the thread holds cache_db_lock for a write batch. */
thread_local bool batch_held = false;

/* What the process learnt about the file; written under cache_db_lock. The
 * two flags are also read without it (url_cache_db_current_state), so that
 * the processing thread's look before every command takes no lock. */
std::atomic<bool> lock_episode{false};                /* another process held the lock for a whole busy wait */
std::atomic<bool> no_access{false};                   /* the file may not be opened for writing by this process */
bool never_wait UD_GUARDED_BY(cache_db_lock) = false; /* set around a statement that must not wait */
int64_t next_open_try_ms UD_GUARDED_BY(cache_db_lock) = 0;

void start_lock_episode() UD_REQUIRES(cache_db_lock)
{
    if (lock_episode)
        return;
    lock_episode = true;
    next_open_try_ms = ud_monotonic_ms() + URL_CACHE_REOPEN_INTERVAL_MS;
    UD_ERROR("Cache database locked by another process for %d ms: the cache is bypassed until the lock is gone",
             URL_CACHE_BUSY_TIMEOUT_MS);
}

/* SQLite's busy handler: waits while another connection holds a lock, for at
 * most one busy timeout per unit of work, so that several statements of one
 * request never wait one after the other; and not at all once a wait has run
 * out, until the lock is seen gone. */
int wait_within_budget(void*, int count) UD_REQUIRES(cache_db_lock)
{
    if (lock_episode || never_wait)
        return 0;
    if (!budget_in_unit && count == 0) {
        budget_deadline_ms = 0;
        budget_spent = false;
    }
    if (budget_spent)
        return 0;
    int64_t now = ud_monotonic_ms();
    if (budget_deadline_ms == 0)
        budget_deadline_ms = now + URL_CACHE_BUSY_TIMEOUT_MS;
    if (now >= budget_deadline_ms) {
        budget_spent = true;
        start_lock_episode();
        return 0;
    }
    int64_t pause = budget_deadline_ms - now < 10 ? budget_deadline_ms - now : 10;
    usleep((useconds_t)(pause * 1000));
    return 1;
}

bool is_code(int rc, int code) { return (rc & 0xff) == code; }

/* Corruption seen by a statement since the last check, and whether this
 * process has already made a new database once; cache_db_lock held. */
bool corrupt_seen UD_GUARDED_BY(cache_db_lock) = false;
bool recovered UD_GUARDED_BY(cache_db_lock) = false;
/* The file the connection opened, to tell whether it is still the one at the
 * database's path. */
dev_t opened_device UD_GUARDED_BY(cache_db_lock) = 0;
ino_t opened_inode UD_GUARDED_BY(cache_db_lock) = 0;

bool is_opened_file(const struct stat& info) UD_REQUIRES(cache_db_lock)
{
    return info.st_dev == opened_device && info.st_ino == opened_inode;
}

/* Opens the database and makes the table, logging under func (the operation
 * that opens it); cache_db_lock held. A database
 * that could not be opened for a passing reason is tried again by the next
 * statement; one locked by another process by the next write batch; one this
 * process may not write never again (one line in the log, not one per
 * request). */
bool open_locked(const char* func) UD_REQUIRES(cache_db_lock)
{
    if (cache_db_handle != NULL)
        return true;
    if (no_access || lock_episode)
        return false;
    /* Whatever the platform leaves in the handle on failure, the database
     * counts as unopened then: only a successful open is kept. The utility
     * bounds its own wait for a locked file. */
    sqlite3* handle = NULL;
    int ret = db_util_open(URL_CACHE_DB_PATH, &handle, URL_CACHE_DB_OPEN_OPTION);
    if (ret == 0 && handle != NULL && sqlite3_db_readonly(handle, "main") == 1) {
        /* Readable but not writable: admissions and stale rows could not be
         * written, so the cache is off rather than half on. */
        sqlite3_close_v2(handle);
        ret = SQLITE_READONLY;
    }
    if (ret != 0) {
        UD_ERROR_AS(func, "DBConnect failed with:%d", ret);
        if (is_code(ret, SQLITE_BUSY) || is_code(ret, SQLITE_LOCKED))
            start_lock_episode();
        else if (is_code(ret, SQLITE_CANTOPEN) || is_code(ret, SQLITE_PERM) || is_code(ret, SQLITE_READONLY) ||
                 is_code(ret, SQLITE_AUTH))
            no_access = true;
        return false;
    }
    sqlite3_busy_handler(handle, wait_within_budget, NULL);
    cache_db_handle = handle;
    struct stat info;
    const char* file = sqlite3_db_filename(handle, "main");
    if (file == NULL || lstat(file, &info) != 0)
        memset(&info, 0, sizeof info);
    opened_device = info.st_dev;
    opened_inode = info.st_ino;

    char query[URL_CACHE_QUERY_SIZE];
    snprintf(query, sizeof(query), URL_CACHE_CREATE_TABLE_FORMAT, URL_CACHE_TABLE_NAME);
    UD_DEBUG_AS(func, "Query: [%s]", query);
    char* errmsg = NULL;
    ret = url_cache_db_note(sqlite3_exec(cache_db_handle, query, NULL, NULL, &errmsg));
    if (ret != SQLITE_OK) {
        UD_DEBUG_AS(func, "Query: [%s]", query);
        UD_ERROR_AS(func, "SQL error: %s\n", url_cache_db_error_text(errmsg, ret));
        sqlite3_free(errmsg);
    }
    return true;
}

bool is_corrupt(int rc) { return is_code(rc, SQLITE_CORRUPT) || is_code(rc, SQLITE_NOTADB); }

/* After a statement saw a corrupt database: moves the file aside and makes a
 * new one, once per process. cache_db_lock held, no statement open. */
void recover_if_corrupt() UD_REQUIRES(cache_db_lock)
{
    if (!corrupt_seen || cache_db_handle == NULL)
        return;
    corrupt_seen = false;
    if (recovered)
        return;
    recovered = true;
    const char* name = sqlite3_db_filename(cache_db_handle, "main");
    char* path = name != NULL && name[0] != '\0' ? strdup(name) : NULL;
    sqlite3_close_v2(cache_db_handle);
    cache_db_handle = NULL;
    struct stat info;
    if (path != NULL && lstat(path, &info) == 0 && is_opened_file(info)) {
        /* Still the file this process found corrupt: nobody replaced it yet. */
        size_t size = strlen(path) + sizeof ".corrupt-wal";
        char* from = (char*)malloc(size);
        char* aside = (char*)malloc(size);
        if (from != NULL && aside != NULL) {
            snprintf(aside, size, "%s.corrupt", path);
            rename(path, aside);
            UD_ERROR("Cache database %s is corrupt: moved aside to %s, a new one is made", path, aside);
            snprintf(from, size, "%s-wal", path);
            snprintf(aside, size, "%s.corrupt-wal", path);
            rename(from, aside);
            snprintf(from, size, "%s-shm", path);
            unlink(from);
        }
        free(from);
        free(aside);
    }
    free(path);
    open_locked(__FUNCTION__);
}

/* A database file deleted or replaced under the process (by hand, by a peer
 * that moved a corrupt one aside) would otherwise keep the process on a file
 * that no other process sees. Costs one lstat per lookup, admission or write
 * batch, not one per statement; cache_db_lock held, outside a transaction. */
void reopen_if_replaced() UD_REQUIRES(cache_db_lock)
{
    if (cache_db_handle == NULL || sqlite3_get_autocommit(cache_db_handle) == 0)
        return;
    const char* file = sqlite3_db_filename(cache_db_handle, "main");
    struct stat info;
    if (file == NULL || file[0] == '\0' || (lstat(file, &info) == 0 && is_opened_file(info)))
        return;
    UD_ERROR("Cache database %s was replaced or deleted while in use: it is opened afresh", file);
    sqlite3_close_v2(cache_db_handle);
    cache_db_handle = NULL;
    open_locked(__FUNCTION__);
}

/* Safe without cache_db_lock too: the flags are atomic. */
url_cache_db_state current_state()
{
    if (no_access)
        return URL_CACHE_DB_OFF;
    return lock_episode ? URL_CACHE_DB_LOCKED : URL_CACHE_DB_READY;
}

} // namespace

int url_cache_db_note(int rc)
{
    /* Legacy statements report a generic error; the connection knows which. */
    bool failed = rc != SQLITE_OK && rc != SQLITE_ROW && rc != SQLITE_DONE;
    if (is_corrupt(rc) || (failed && cache_db_handle != NULL && is_corrupt(sqlite3_errcode(cache_db_handle))))
        corrupt_seen = true;
    return rc;
}

// The primitives of the lock: the analysis takes their word for it.
void url_cache_db_enter(void) UD_NO_THREAD_SAFETY_ANALYSIS
{
    if (!batch_held)
        pthread_mutex_lock(&cache_db_lock.mutex);
}

void url_cache_db_leave(void) UD_NO_THREAD_SAFETY_ANALYSIS
{
    if (batch_held)
        return; // the batch recovers a corrupt file once it has ended
    recover_if_corrupt();
    pthread_mutex_unlock(&cache_db_lock.mutex);
}

bool url_cache_db_in_transaction(void)
{
    return cache_db_handle != NULL && sqlite3_get_autocommit(cache_db_handle) == 0;
}

void url_cache_db_close(void) UD_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_lock(&cache_db_lock.mutex);
    sqlite3_close_v2(cache_db_handle);
    cache_db_handle = NULL;
    lock_episode = false;
    no_access = false;
    corrupt_seen = false;
    recovered = false;
    pthread_mutex_unlock(&cache_db_lock.mutex);
}

url_cache_db_state url_cache_db_open_state(void)
{
    CacheDbSession session;
    reopen_if_replaced();
    open_locked(__FUNCTION__);
    return current_state();
}

url_cache_db_state url_cache_db_current_state(void) { return current_state(); }

CacheDbWriteBatch::CacheDbWriteBatch() UD_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_lock(&cache_db_lock.mutex);
    batch_held = true;
    if (cache_db_handle == NULL && lock_episode && !no_access) {
        /* Opening waits for the lock inside the platform's utility: tried
         * now and then only. */
        int64_t now = ud_monotonic_ms();
        if (now < next_open_try_ms)
            return;
        next_open_try_ms = now + URL_CACHE_REOPEN_INTERVAL_MS;
        lock_episode = false;
        if (!open_locked(__FUNCTION__)) {
            start_lock_episode();
            return;
        }
    }
    reopen_if_replaced();
    char* errmsg = NULL;
    never_wait = true;
    int ret = url_cache_db_exec("BEGIN IMMEDIATE", &errmsg);
    never_wait = false;
    sqlite3_free(errmsg);
    if (ret != SQLITE_OK)
        return;
    began_ = true;
    if (lock_episode) {
        lock_episode = false;
        UD_DEBUG("Cache database lock gone: the cache is used again");
    }
}

bool CacheDbWriteBatch::Commit()
{
    if (!began_)
        return false;
    began_ = false;
    char* errmsg = NULL;
    int ret = url_cache_db_exec("COMMIT", &errmsg);
    if (ret != SQLITE_OK) {
        UD_ERROR("SQL error: %s\n", url_cache_db_error_text(errmsg, ret));
        sqlite3_free(errmsg);
        url_cache_db_exec("ROLLBACK", &errmsg);
        sqlite3_free(errmsg);
        return false;
    }
    return true;
}

CacheDbWriteBatch::~CacheDbWriteBatch() UD_NO_THREAD_SAFETY_ANALYSIS
{
    if (began_) {
        char* errmsg = NULL;
        url_cache_db_exec("ROLLBACK", &errmsg);
        sqlite3_free(errmsg);
    }
    batch_held = false;
    recover_if_corrupt();
    pthread_mutex_unlock(&cache_db_lock.mutex);
}

CacheDbWaitBudget::CacheDbWaitBudget()
{
    budget_in_unit = true;
    budget_deadline_ms = 0;
    budget_spent = false;
}

CacheDbWaitBudget::~CacheDbWaitBudget() { budget_in_unit = false; }

int url_cache_db_exec(const char* sql, char** errmsg)
{
    *errmsg = NULL;
    /* An unopened database fails here like any other statement would. */
    if (!open_locked(__FUNCTION__))
        return lock_episode ? SQLITE_BUSY : SQLITE_MISUSE;
    return url_cache_db_note(sqlite3_exec(cache_db_handle, sql, NULL, NULL, errmsg));
}

int url_cache_db_prepare(const char* sql, sqlite3_stmt** stmt)
{
    *stmt = NULL;
    if (!open_locked(__FUNCTION__))
        return lock_episode ? SQLITE_BUSY : SQLITE_MISUSE;
    return url_cache_db_note(sqlite3_prepare(cache_db_handle, sql, (int)strlen(sql), stmt, NULL));
}

bool CacheDbSession::Prepare(const char* func, char* query)
{
    query_ = query;
    int ret = url_cache_db_prepare(query, &stmt_);
    if (ret == SQLITE_OK && stmt_ != NULL)
        return true;
    UD_ERROR_AS(func, "sqlite3_prepare returned error[%d], so returning", ret);
    return false;
}

const char* url_cache_db_error_text(const char* errmsg, int rc) { return errmsg != NULL ? errmsg : sqlite3_errstr(rc); }

namespace {

char* column_text_copy(sqlite3_stmt* stmt, int column)
{
    const unsigned char* text = sqlite3_column_text(stmt, column);
    return text != NULL ? strdup(reinterpret_cast<const char*>(text)) : NULL;
}

/* Runs one modifying statement and frees it. func names the operation in the
 * log; the deletions also log the statement again when it fails. */
bool execute_modification(const char* func, char* query, bool log_failed_query)
{
    if (query == NULL) {
        UD_ERROR_AS(func, "sqlite3_mprintf returned NULL, so returning!");
        return false;
    }
    UD_DEBUG_AS(func, "Query to be executed:[%s] \n", query);

    CacheDbSession session;
    char* errmsg = NULL;
    int ret = url_cache_db_exec(query, &errmsg);
    if (ret != SQLITE_OK) {
        if (log_failed_query)
            UD_DEBUG_AS(func, "Query: [%s]", query);
        UD_ERROR_AS(func, "SQL error: %s\n", url_cache_db_error_text(errmsg, ret));
        sqlite3_free(query);
        sqlite3_free(errmsg);
        return false;
    }
    sqlite3_free(query);
    UD_DEBUG_AS(func, "End.<<<<<<<<<<");
    return true;
}

/* Reads the first row of a "select *" into a new record; NULL on a miss or a
 * failure. Takes over record and query. */
UrlCache* read_one_row(const char* func, UrlCache* record, char* query)
{
    if (query == NULL) {
        UD_ERROR_AS(func, "sqlite3_mprintf returned NULL, so returning!");
        delete record;
        return NULL;
    }
    UD_DEBUG_AS(func, "Query to be executed:[%s]", query);

    CacheDbSession session;
    if (!session.Prepare(func, query)) {
        delete record;
        return NULL;
    }
    sqlite3_stmt* stmt = session.Statement();
    if (url_cache_db_note(sqlite3_step(stmt)) != SQLITE_ROW) {
        /* A miss is not an error. */
        delete record;
        UD_DEBUG_AS(func, "End.<<<<<<<<<<");
        return NULL;
    }
    record->id = sqlite3_column_int64(stmt, 0);
    record->url = column_text_copy(stmt, 1);
    record->filepath = column_text_copy(stmt, 2);
    record->filesize = sqlite3_column_int64(stmt, 3);
    record->downloadtime = sqlite3_column_int64(stmt, 4);
    record->expirytime = sqlite3_column_int64(stmt, 5);
    record->appname = column_text_copy(stmt, 6);
    UD_DEBUG_AS(func, "End.<<<<<<<<<<");
    return record;
}

} // namespace

URLCacheManager::URLCacheManager()
{
    UD_BEGIN();
    CacheDbSession session;
    if (cache_db_handle != NULL) {
        UD_ERROR("DB Already Opened, so Return");
        return;
    }

    if (open_locked(__FUNCTION__))
        UD_END();
}

URLCacheManager* URLCacheManager::getInstance()
{
    /* The first calls of several threads may meet: exactly one creates. */
    static std::once_flag created;
    std::call_once(created, [] { instance = new (std::nothrow) URLCacheManager(); });
    return instance;
}

bool URLCacheManager::addUrlCache(UrlCache& cache)
{
    UD_BEGIN();
    char* query = sqlite3_mprintf(
        "insert into %s (url, filepath, filesize, downloadtime, expirytime, appname) values (%Q, %Q, %lld, %lld, %lld, %Q)",
        URL_CACHE_TABLE_NAME, cache.url, cache.filepath, (long long)cache.filesize, (long long)cache.downloadtime,
        (long long)cache.expirytime, cache.appname);
    return execute_modification(__FUNCTION__, query, false);
}

bool URLCacheManager::updateUrlCache(UrlCache& cache)
{
    UD_BEGIN();
    char* query = sqlite3_mprintf(
        "update %s set url=%Q, filepath=%Q, filesize=%lld, downloadtime=%lld, expirytime=%lld, appname=%Q where id=%lld",
        URL_CACHE_TABLE_NAME, cache.url, cache.filepath, (long long)cache.filesize, (long long)cache.downloadtime,
        (long long)cache.expirytime, cache.appname, (long long)cache.id);
    return execute_modification(__FUNCTION__, query, false);
}

bool URLCacheManager::deleteUrlCache(int64_t id)
{
    UD_BEGIN();
    char* query = sqlite3_mprintf("delete from %s where id=%lld", URL_CACHE_TABLE_NAME, (long long)id);
    return execute_modification(__FUNCTION__, query, true);
}

bool URLCacheManager::deleteUrlCache(char* appName)
{
    UD_BEGIN();
    if (appName == NULL) {
        UD_ERROR("URL is NULL");
        return false;
    }
    char* query = sqlite3_mprintf("delete from %s where appname=%Q", URL_CACHE_TABLE_NAME, appName);
    return execute_modification(__FUNCTION__, query, true);
}

UrlCache* URLCacheManager::findUrlCache(char* url)
{
    UD_BEGIN();
    if (url == NULL) {
        UD_ERROR("URL is NULL");
        return NULL;
    }
    UrlCache* record = new (std::nothrow) UrlCache();
    UD_ASSERT_ALLOC(record);
    return read_one_row(__FUNCTION__, record,
                        sqlite3_mprintf("select * from %s where url=%Q", URL_CACHE_TABLE_NAME, url));
}

UrlCache* URLCacheManager::getUrlCache(int64_t id)
{
    UD_BEGIN();
    UrlCache* record = new (std::nothrow) UrlCache();
    UD_ASSERT_ALLOC(record);
    return read_one_row(__FUNCTION__, record,
                        sqlite3_mprintf("select * from %s where id=%lld", URL_CACHE_TABLE_NAME, (long long)id));
}
