/* The cache database's connection and lock, shared by the manager's source
 * files only. */
#ifndef URL_CACHE_DB_H
#define URL_CACHE_DB_H

#include <pthread.h>
#include <sqlite3.h>

/* Guards cache_db_handle and every statement run on it; never destroyed. */
extern pthread_mutex_t cache_db_lock;
/* The process's connection; NULL until (or unless) the database was opened. */
extern sqlite3* cache_db_handle;

/* Runs sql on the connection; cache_db_lock must be held. On failure *errmsg
 * may hold SQLite's message (free it with sqlite3_free) or stay NULL. */
int url_cache_db_exec(const char* sql, char** errmsg);

/* Compiles sql into *stmt; cache_db_lock must be held. */
int url_cache_db_prepare(const char* sql, sqlite3_stmt** stmt);

/* Takes cache_db_lock and compiles query into *stmt. On failure it logs the
 * failure under func, frees query, releases the lock and returns false; on
 * success the lock stays held. */
bool url_cache_db_lock_and_prepare(const char* func, char* query, sqlite3_stmt** stmt);

/* Reads an INTEGER column into a long, whatever width long has here. */
long url_cache_db_column_long(sqlite3_stmt* stmt, int column);

/* Text for an error line: SQLite's message when it gave one, else the code's. */
const char* url_cache_db_error_text(const char* errmsg, int rc);

#endif
