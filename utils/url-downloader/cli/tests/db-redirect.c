/*
 * Preloaded (LD_PRELOAD) into client programs under test. Its db_util_open
 * comes before the platform library's: any path that names the device's
 * database folder ("dbspace", however it is spelt around it) is opened as
 * $UD_TEST_DB_DIR/urlcache.db instead, through the platform's own function,
 * and refused when UD_TEST_DB_DIR is not set. A test never reaches the real
 * /opt/dbspace/.urlcache.db.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef int (*open_fn)(const char*, sqlite3**, int);

__attribute__((visibility("default"))) int db_util_open(const char* path, sqlite3** handle, int option)
{
    open_fn real = (open_fn)dlsym(RTLD_NEXT, "db_util_open");
    if (handle != NULL)
        *handle = NULL;
    if (real == NULL) {
        fprintf(stderr, "db-redirect: platform db_util_open not found\n");
        return SQLITE_CANTOPEN;
    }
    if (path == NULL || handle == NULL || strstr(path, "dbspace") == NULL)
        return real(path, handle, option);

    const char* dir = getenv("UD_TEST_DB_DIR");
    char target[4096];
    if (dir == NULL || dir[0] == '\0' ||
        snprintf(target, sizeof target, "%s/urlcache.db", dir) >= (int)sizeof target) {
        fprintf(stderr, "db-redirect: refusing %s\n", path);
        return SQLITE_CANTOPEN;
    }
    return real(target, handle, option);
}
