/* The persistent URL cache: one SQLite table shared by every process. */
#ifndef URL_CACHE_MANAGER_H
#define URL_CACHE_MANAGER_H

#include <stdint.h>

#define UD_CACHE_EXPORT __attribute__((visibility("default")))

#define URL_CACHE_DB_PATH "/opt/dbspace/.urlcache.db"
#define URL_CACHE_TABLE_NAME "qeturlcache"
/* Budget over the recorded file sizes, its half, and the rows one trim reads. */
#define URL_CACHE_MAX_SIZE 0xA00000L
#define URL_CACHE_HALF_SIZE 0x500000L
#define URL_CACHE_CLEAN_BATCH 100

/* Plain record from which an admission builds a UrlCache; owns nothing. */
typedef struct _url_downloader_cache {
    int id;
    char* url;
    char* filepath;
    /* 64-bit everywhere: sizes and their sums pass 2 GiB, and times pass
     * 2038, even where long is 32 bits. */
    int64_t filesize;
    int64_t downloadtime;
    int64_t expirytime;
    char* appname;
} url_downloader_cache;

/* Starts a new unit of work for the calling thread's statements (one lookup,
 * or one admission): together they wait at most one busy timeout for locks
 * that other processes hold. A thread that never starts one gets a fresh
 * budget per statement. */
void url_cache_db_new_wait_budget(void);

/* One cache row; owns its three strings. */
class UD_CACHE_EXPORT UrlCache {
public:
    UrlCache();
    explicit UrlCache(url_downloader_cache* source);
    UrlCache(const UrlCache& other);
    UrlCache& operator=(const UrlCache& other);
    ~UrlCache();

    int id;
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
    bool deleteUrlCache(int id);
    bool deleteUrlCache(char* appName);
    UrlCache* findUrlCache(char* url);
    UrlCache* getUrlCache(int id);
    int64_t getUrlCacheSize();
    int64_t cleanUrlCache();

    static URLCacheManager* instance;

private:
    URLCacheManager();
    URLCacheManager(const URLCacheManager&) = delete;
    URLCacheManager& operator=(const URLCacheManager&) = delete;
};

#endif
