/* Answering downloads from the URL cache and admitting finished downloads into it. */
#include "cache-policy.h"

#include "regular-file.h"
#include "request-ledger.h"

#include <new>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/* Zero-filled copy of src in a buffer of strlen + 1 bytes. Returns false,
 * leaving *copy untouched, when that buffer would exceed the bounded-copy
 * limit; otherwise stores the buffer (NULL when out of memory) in *copy. */
bool bounded_copy(const char* src, char** copy)
{
    size_t size = strlen(src) + 1;
    if (size > URL_DOWNLOADER_MAX_COPY_SIZE)
        return false;
    char* buffer = static_cast<char*>(calloc(1, size));
    if (buffer != NULL)
        memcpy(buffer, src, size - 1);
    *copy = buffer;
    return true;
}

/* What a cached or admitted file is, as the cache sees it. */
enum FileCheck { FILE_SERVABLE, FILE_MISSING, FILE_WRITABLE_BY_ANY_USER };

/* Looks at the file at path. Any process in the cache's group can write
 * rows, so the path may name a FIFO, a device, a folder or a symlink to one:
 * only a regular file is ever opened (a final symlink is not followed), and
 * never in a way that blocks. One that any user may rewrite could hand every
 * app of the device someone else's content. */
FileCheck check_file(const char* path, long long* length)
{
    struct stat info;
    int fd = ud_open_regular_file(path, O_RDONLY | O_NOFOLLOW, 0, &info);
    if (fd < 0)
        return FILE_MISSING;
    close(fd);
    *length = (long long)info.st_size;
    return (info.st_mode & S_IWOTH) != 0 ? FILE_WRITABLE_BY_ANY_USER : FILE_SERVABLE;
}

/* Whether a finished download may enter the cache: its file is still a
 * regular file of the recorded size that only its users may rewrite. */
bool admissible(const url_downloader_cache* record)
{
    long long length = -1;
    if (record->filepath == NULL || check_file(record->filepath, &length) != FILE_SERVABLE ||
        length != (long long)record->filesize) {
        UD_ERROR("Not added to cache: %s is not a regular file of the downloaded size that only its users may write",
                 ud_printable(record->filepath));
        return false;
    }
    return true;
}

/* Admissions that met another process's lock on the cache, oldest first (of
 * UrlCache*), written once the lock is gone. The processing thread's alone. */
GQueue held_admissions = G_QUEUE_INIT;
bool held_overflow_logged = false;
int64_t next_settle_ms = 0;

void hold_admission(url_downloader_cache* record)
{
    if (held_admissions.length >= URL_DOWNLOADER_MAX_HELD_ADMISSIONS) {
        if (!held_overflow_logged)
            UD_ERROR("Cache locked by another process: more than %d admissions held, the oldest are dropped",
                     URL_DOWNLOADER_MAX_HELD_ADMISSIONS);
        held_overflow_logged = true;
        delete (UrlCache*)g_queue_pop_head(&held_admissions);
    }
    UrlCache* held = new (std::nothrow) UrlCache(record);
    UD_ASSERT_ALLOC(held);
    g_queue_push_tail(&held_admissions, held);
    UD_DEBUG("Cache locked by another process: admission held until the lock is gone (%u held)",
             held_admissions.length);
}

/* The admission itself: nothing when a valid entry for the URL exists
 * already, else trimmed and inserted. False when it met the lock. */
bool admit_now(url_downloader_cache* record)
{
    char* cached = url_downloader_get_cache_filepath(record);
    if (cached != NULL) {
        UD_DEBUG("URL Found in cache\n");
        free(cached);
        return true;
    }
    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    return url_downloader_add_cache(record, &error) || url_cache_db_current_state() != URL_CACHE_DB_LOCKED;
}

} // namespace

char* url_downloader_get_cache_filepath(url_downloader_cache* cache)
{
    UD_BEGIN();
    if (cache == NULL) {
        UD_ERROR("Invalid input param");
        return NULL;
    }
    URLCacheManager* manager = URLCacheManager::getInstance();
    if (manager == NULL) {
        UD_ERROR("NULL handle");
        return NULL;
    }
    UD_DEBUG("Trying to find URL in Cache\n");
    UrlCache* entry = manager->findUrlCache(cache->url);
    if (entry == NULL) {
        UD_DEBUG("URL Not found in cache\n");
        return NULL;
    }

    time_t now = time(NULL);
    bool fresh = false;
    if (entry->filepath == NULL) {
        UD_ERROR("URL entry exists in DB, but filepath is NULL");
    } else {
        long long length = -1;
        FileCheck check = check_file(entry->filepath, &length);
        if (check == FILE_MISSING) {
            UD_ERROR("URL found in cache but the downloaded file missing in file-system");
        } else if (check == FILE_WRITABLE_BY_ANY_USER) {
            UD_ERROR("URL found in cache but the downloaded file is writable by any user");
        } else if (length != (long long)entry->filesize) {
            UD_ERROR("URL found in cache but the file size mismatch. \nDB stored size is %d, and actaul size is %d",
                     (int)entry->filesize, (int)length);
        } else {
            UD_DEBUG("URL found in cache and same file existing in file-system");
            /* Fresh strictly before the expiry time. */
            fresh = entry->expirytime > (int64_t)now;
            if (!fresh)
                UD_ERROR("But expired Id=[%" PRId64 "]\n", entry->id);
        }
    }

    if (!fresh) {
        UD_ERROR("Entry NOT found in cache");
        /* The row goes; the file, if any, is the client's and stays. */
        manager->deleteUrlCache(entry->id);
        delete entry;
        UD_END();
        return NULL;
    }

    UD_DEBUG("still %" PRId64 " time to expire\n", entry->expirytime - (int64_t)now);
    char* path = strdup(entry->filepath);
    UD_DEBUG("Entry found in cache");
    delete entry;
    UD_END();
    return path;
}

bool url_downloader_check_cache(url_downloader_api_t* api_handle, url_downloader_error* error)
{
    UD_BEGIN();
    if (api_handle == NULL || error == NULL) {
        UD_ERROR("Invalid input param");
        return false;
    }
    *error = URL_DOWNLOADER_ERROR_NONE;
    CacheDbWaitBudget budget; // one lookup: at most one wait for a peer's lock
    if (api_handle->url == NULL) {
        UD_ERROR("provided url is NULL");
        return false;
    }
    // Off for this process: every request is a miss, without a line of its own.
    if (url_cache_db_open_state() == URL_CACHE_DB_OFF)
        return false;

    url_downloader_cache* url_cache = static_cast<url_downloader_cache*>(calloc(1, sizeof(url_downloader_cache)));
    UD_ASSERT_ALLOC(url_cache);
    /* Too long to copy: answer from the network instead. */
    if (!bounded_copy(api_handle->url, &url_cache->url)) {
        UD_ERROR("URL too long for the cache lookup, so not using the cache");
        free(url_cache);
        return false;
    }
    UD_ASSERT_ALLOC(url_cache->url);

    char* path = url_downloader_get_cache_filepath(url_cache);
    if (path == NULL) {
        free(url_cache->url);
        free(url_cache);
        UD_END();
        return false;
    }

    UD_DEBUG("URL Found in cache\n");
    if (api_handle->filePath == NULL || strcmp(api_handle->filePath, path) != 0) {
        UD_DEBUG("but was downloaded in a different filepath\n");
        if (strlen(path) + 1 > URL_DOWNLOADER_MAX_COPY_SIZE) {
            UD_ERROR("Cached file path too long to hand over, so not using the cache");
            free(path);
            free(url_cache->url);
            free(url_cache);
            return false;
        }
    }
    url_downloader_reason_t reason = {};
    reason.fromCache = true;
    _url_downloader_answer_request(api_handle, URL_DOWNLOADER_ERROR_NONE, path, &reason);
    free(path);

    free(url_cache->url);
    free(url_cache);
    UD_END();
    return true;
}

bool url_downloader_add_cache(url_downloader_cache* cache, url_downloader_error* error)
{
    UD_BEGIN();
    if (cache == NULL || error == NULL) {
        UD_ERROR("Invalid input param");
        return false;
    }
    UrlCache record(cache);
    URLCacheManager* manager = URLCacheManager::getInstance();
    *error = URL_DOWNLOADER_ERROR_NONE;
    if (manager == NULL) {
        UD_ERROR("NULL handle");
        *error = URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED;
        return false;
    }

    int64_t size = manager->getUrlCacheSize();
    if (size == -1) {
        *error = URL_DOWNLOADER_ERROR_CACHE_SIZE_FAILED;
        return false;
    }
    /* Trimmed before the insertion, so the new row never makes room for itself. */
    if (size + record.filesize > URL_CACHE_MAX_SIZE && manager->cleanUrlCache() == -1) {
        UD_ERROR("SOMETHING WENT WRONG IN CLEANING UP\n");
        *error = URL_DOWNLOADER_ERROR_CACHE_CLEAN_FAILED;
        return false;
    }

    if (!manager->addUrlCache(record)) {
        UD_ERROR("failed to added to cache \n");
        *error = URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED;
        return false;
    }
    UD_DEBUG("added to cache \n");
    UD_END();
    return true;
}

void _url_downloader_admit_download(url_downloader_cache* record)
{
    const url_cache_db_state state = url_cache_db_open_state();
    if (state == URL_CACHE_DB_OFF || !admissible(record))
        return;
    CacheDbWaitBudget budget; // one admission: at most one wait for a peer's lock
    if (state == URL_CACHE_DB_LOCKED || !admit_now(record))
        hold_admission(record);
}

int _url_downloader_settle_cache(void)
{
    if (held_admissions.length == 0 && url_cache_db_current_state() != URL_CACHE_DB_LOCKED)
        return -1;
    const int64_t now = ud_monotonic_ms();
    if (now < next_settle_ms)
        return (int)(next_settle_ms - now);
    next_settle_ms = now + URL_DOWNLOADER_CACHE_PROBE_MS;

    CacheDbWriteBatch batch;
    if (!batch.Began())
        return URL_DOWNLOADER_CACHE_PROBE_MS;
    // The same checks and trimming as at once, all in the one transaction.
    size_t written = 0;
    const guint held_count = held_admissions.length;
    while (UrlCache* held = (UrlCache*)g_queue_pop_head(&held_admissions)) {
        url_downloader_cache record = {held->id,           held->url,        held->filepath, held->filesize,
                                       held->downloadtime, held->expirytime, held->appname};
        written += admissible(&record) && admit_now(&record);
        delete held;
    }
    if (batch.Commit())
        UD_DEBUG("Cache lock gone: %zu of %u held admissions written", written, held_count);
    held_overflow_logged = false;
    return -1;
}
