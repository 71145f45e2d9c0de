/* Host stand-in for the device's database utility. */
#ifndef VELMORA_PLATFORM_DB_UTIL_H
#define VELMORA_PLATFORM_DB_UTIL_H

#include <sqlite3.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Opens the SQLite database at path, creating the file and its missing parent
 * folders. The connection is put in WAL journal mode with synchronous=NORMAL
 * and gets a busy timeout, so that processes sharing the file wait for each
 * other instead of failing. option is accepted for compatibility and ignored.
 * Returns 0 and stores the connection in *handle on success; on failure
 * returns non-zero and leaves *handle NULL.
 */
__attribute__((visibility("default"))) int db_util_open(const char* path, sqlite3** handle, int option);

#ifdef __cplusplus
}
#endif

#endif
