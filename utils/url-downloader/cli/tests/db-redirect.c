/* Preloaded into the client programs under test: a database path in the
 * device's folder ("dbspace") opens $UD_TEST_DB_DIR/urlcache.db instead,
 * through the platform's own db_util_open, and is refused when that is not
 * set. No test reaches the real /opt/dbspace/.urlcache.db. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

__attribute__((visibility("default"))) int db_util_open(const char* path, sqlite3** handle, int option)
{
    __typeof__(db_util_open)* const real = (__typeof__(db_util_open)*)dlsym(RTLD_NEXT, "db_util_open");
    const char* dir = getenv("UD_TEST_DB_DIR");
    char target[4096];
    if (real != NULL && (path == NULL || handle == NULL || strstr(path, "dbspace") == NULL))
        return real(path, handle, option);
    if (handle != NULL)
        *handle = NULL;
    if (real == NULL || dir == NULL || dir[0] == '\0' ||
        snprintf(target, sizeof target, "%s/urlcache.db", dir) >= (int)sizeof target) {
        fprintf(stderr, "db-redirect: refusing %s\n", path != NULL ? path : "(null)");
        return SQLITE_CANTOPEN;
    }
    return real(target, handle, option);
}
