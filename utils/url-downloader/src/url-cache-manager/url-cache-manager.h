/* The persistent URL cache: one SQLite table shared by every process. */
#ifndef URL_CACHE_MANAGER_H
#define URL_CACHE_MANAGER_H

#include <stdint.h>

#include "url-downloader-locks.h"

#define UD_CACHE_EXPORT __attribute__((visibility("default")))

#define URL_CACHE_DB_PATH "/opt/dbspace/.urlcache.db"
#define URL_CACHE_TABLE_NAME "qeturlcache"
/* Budget over the recorded file sizes, its half, and the rows one trim reads. */
#define URL_CACHE_MAX_SIZE 0xA00000L
#define URL_CACHE_HALF_SIZE 0x500000L
#define URL_CACHE_CLEAN_BATCH 100

/* Plain record from which an admission builds a UrlCache; owns nothing. */
typedef struct _url_downloader_cache {
    /* Row ids are 64-bit in SQLite: read as int, an id past 2^31 would name
     * another row. */
    int64_t id;
    char* url;
    char* filepath;
    /* 64-bit everywhere: sizes and their sums pass 2 GiB, and times pass
     * 2038, even where long is 32 bits. */
    int64_t filesize;
    int64_t downloadtime;
    int64_t expirytime;
    char* appname;
} url_downloader_cache;

/* For its scope, the calling thread's statements are one unit of work (one
 * lookup, or one admission): together they wait at most one busy timeout for
 * locks that other processes hold. Outside such a scope each statement has a
 * budget of its own. */
class CacheDbWaitBudget {
public:
    CacheDbWaitBudget();
    ~CacheDbWaitBudget();
    CacheDbWaitBudget(const CacheDbWaitBudget&) = delete;
    CacheDbWaitBudget& operator=(const CacheDbWaitBudget&) = delete;
};

/* What the shared database can do for this process. Another process (an app
 * in a long transaction, a backup tool, a crashed writer) may hold its lock
 * for any time: once a statement has waited out the busy timeout, the
 * database counts as locked and no statement of this process waits for it
 * again until a write batch finds the lock gone. */
typedef enum {
    URL_CACHE_DB_READY,  /* statements run, waiting at most one busy timeout */
    URL_CACHE_DB_LOCKED, /* another process holds the lock: statements fail at once */
    URL_CACHE_DB_OFF     /* this process may not use the file (not in the cache's group) */
} url_cache_db_state;

/* The database's state for this process; opens it first when that was not
 * tried yet (which may wait one busy timeout). */
url_cache_db_state url_cache_db_open_state(void);
/* The state without opening and without waiting for cache_db_lock:
 * URL_CACHE_DB_READY also when never opened. */
url_cache_db_state url_cache_db_current_state(void);

/* One write transaction of this process, begun without waiting: Began() is
 * false while another process holds the lock (or the database is off). Its
 * thread's manager operations run inside it; others of the process wait for
 * its end. Rolled back unless committed. Beginning ends a lock episode. */
class UD_SCOPED_CAPABILITY CacheDbWriteBatch {
public:
    CacheDbWriteBatch() UD_ACQUIRE(cache_db_lock);
    ~CacheDbWriteBatch() UD_RELEASE();
    CacheDbWriteBatch(const CacheDbWriteBatch&) = delete;
    CacheDbWriteBatch& operator=(const CacheDbWriteBatch&) = delete;

    bool Began() const { return began_; }
    /* False when the transaction could not be committed (it is rolled back). */
    bool Commit() UD_REQUIRES(cache_db_lock);

private:
    bool began_ = false;
};

/* One cache row; owns its three strings. */
class UD_CACHE_EXPORT UrlCache {
public:
    UrlCache();
    explicit UrlCache(url_downloader_cache* source);
    UrlCache(const UrlCache& other);
    UrlCache& operator=(const UrlCache& other);
    ~UrlCache();

    int64_t id;
    char* url;
    char* filepath;
    int64_t filesize;
    int64_t downloadtime;
    int64_t expirytime;
    char* appname;
};

/* The process's single access point to the cache table. */
class UD_CACHE_EXPORT URLCacheManager {
public:
    static URLCacheManager* getInstance();

    bool addUrlCache(UrlCache& cache);
    bool updateUrlCache(UrlCache& cache);
    bool deleteUrlCache(int64_t id);
    bool deleteUrlCache(char* appName);
    UrlCache* findUrlCache(char* url);
    UrlCache* getUrlCache(int64_t id);
    int64_t getUrlCacheSize();
    int64_t cleanUrlCache();

    static URLCacheManager* instance;

private:
    URLCacheManager();
    URLCacheManager(const URLCacheManager&) = delete;
    URLCacheManager& operator=(const URLCacheManager&) = delete;
};

#endif
