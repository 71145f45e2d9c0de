/* The cache database's connection and lock, for the manager's files only. */
#ifndef URL_CACHE_DB_H
#define URL_CACHE_DB_H

#include <pthread.h>
#include <sqlite3.h>

#include "url-downloader-locks.h"

/* Runs sql on the connection; cache_db_lock must be held. On failure *errmsg
 * may hold SQLite's message (free it with sqlite3_free) or stay NULL. */
int url_cache_db_exec(const char* sql, char** errmsg) UD_REQUIRES(cache_db_lock);

/* Compiles sql into *stmt; cache_db_lock must be held. */
int url_cache_db_prepare(const char* sql, sqlite3_stmt** stmt) UD_REQUIRES(cache_db_lock);

/* Notes a result of SQLite that says the database is corrupt; returns rc. */
int url_cache_db_note(int rc) UD_REQUIRES(cache_db_lock);

/* Take and release cache_db_lock, unless the calling thread holds it for a
 * write batch already (its statements run inside the batch). */
void url_cache_db_enter(void) UD_ACQUIRE(cache_db_lock);
void url_cache_db_leave(void) UD_RELEASE(cache_db_lock);

/* Whether the connection is inside a transaction; cache_db_lock held. */
bool url_cache_db_in_transaction(void) UD_REQUIRES(cache_db_lock);

/* Closes the connection and forgets what this process learnt about the file
 * (a lock episode, no access), so that the next statement opens it anew: for
 * a process that replaces the database file. No statement may be running. */
void url_cache_db_close(void);

/* Holds cache_db_lock for its scope, and with it at most one compiled
 * statement and its query text, both freed when the scope ends, on every
 * path. */
class UD_SCOPED_CAPABILITY CacheDbSession {
public:
    CacheDbSession() UD_ACQUIRE(cache_db_lock) { url_cache_db_enter(); }
    ~CacheDbSession() UD_RELEASE()
    {
        /* With legacy statements the step's real error comes out here. */
        url_cache_db_note(sqlite3_finalize(stmt_));
        sqlite3_free(query_);
        url_cache_db_leave();
    }
    CacheDbSession(const CacheDbSession&) = delete;
    CacheDbSession& operator=(const CacheDbSession&) = delete;

    /* Compiles query, which the session takes over. On failure logs it
     * under func and returns false. */
    bool Prepare(const char* func, char* query) UD_REQUIRES(cache_db_lock);
    sqlite3_stmt* Statement() const { return stmt_; }

private:
    char* query_ = nullptr;
    sqlite3_stmt* stmt_ = nullptr;
};

/* Text for an error line: SQLite's message when it gave one, else the code's. */
const char* url_cache_db_error_text(const char* errmsg, int rc);

#endif
