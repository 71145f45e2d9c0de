/*
 * Preloaded (LD_PRELOAD) into client programs under test. Its db_util_open
 * comes before the platform library's, sends the device's cache database to
 * $UD_TEST_DB_DIR/urlcache.db and opens it with the platform's own function.
 * Anything else under the device's database folder is refused, and so is
 * everything there when UD_TEST_DB_DIR is not set: a test can never reach the
 * real database.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <limits.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define REAL_DIR "/opt/dbspace"
#define REAL_PATH REAL_DIR "/.urlcache.db"

typedef int (*open_fn)(const char*, sqlite3**, int);

/* Absolute form of path with ".", ".." and repeated slashes resolved
 * textually; 0 when it does not fit. */
static int normalise(const char* path, char* out, size_t size)
{
    char joined[PATH_MAX * 2];
    if (path[0] == '/') {
        if (snprintf(joined, sizeof joined, "%s", path) >= (int)sizeof joined)
            return 0;
    } else {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof cwd) == NULL ||
            snprintf(joined, sizeof joined, "%s/%s", cwd, path) >= (int)sizeof joined)
            return 0;
    }
    size_t len = 0;
    char* save = NULL;
    for (char* part = strtok_r(joined, "/", &save); part != NULL; part = strtok_r(NULL, "/", &save)) {
        if (strcmp(part, ".") == 0)
            continue;
        if (strcmp(part, "..") == 0) {
            while (len > 0 && out[len - 1] != '/')
                --len;
            if (len > 0)
                --len;
            continue;
        }
        size_t n = strlen(part);
        if (len + 1 + n + 1 > size)
            return 0;
        out[len++] = '/';
        memcpy(out + len, part, n);
        len += n;
    }
    if (len == 0)
        out[len++] = '/';
    out[len] = '\0';
    return 1;
}

__attribute__((visibility("default"))) int db_util_open(const char* path, sqlite3** handle, int option)
{
    open_fn real = (open_fn)dlsym(RTLD_NEXT, "db_util_open");
    if (handle != NULL)
        *handle = NULL;
    if (real == NULL) {
        fprintf(stderr, "db-redirect: platform db_util_open not found\n");
        return SQLITE_CANTOPEN;
    }
    if (path == NULL || handle == NULL)
        return real(path, handle, option);

    char asked[PATH_MAX];
    if (!normalise(path, asked, sizeof asked)) {
        fprintf(stderr, "db-redirect: cannot resolve %s\n", path);
        return SQLITE_CANTOPEN;
    }
    const int in_real_dir = strcmp(asked, REAL_DIR) == 0 ||
                            strncmp(asked, REAL_DIR "/", sizeof REAL_DIR) == 0;
    if (!in_real_dir)
        return real(path, handle, option);
    const char* dir = getenv("UD_TEST_DB_DIR");
    if (strcmp(asked, REAL_PATH) != 0 || dir == NULL || dir[0] == '\0') {
        fprintf(stderr, "db-redirect: refusing %s\n", path);
        return SQLITE_CANTOPEN;
    }
    char target[PATH_MAX];
    if (snprintf(target, sizeof target, "%s/urlcache.db", dir) >= (int)sizeof target)
        return SQLITE_CANTOPEN;
    return real(target, handle, option);
}
