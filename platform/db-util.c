/* Host stand-in for the device's database utility: opens the cache database file. */
#include "db-util.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "dlog.h"

#define DB_UTIL_LOG_TAG "DB-UTIL"

/* How long a connection waits for another process's lock: long enough for
 * any healthy writer (they hold it for milliseconds), short enough that a
 * stuck one stalls nobody for long. */
#define DB_UTIL_BUSY_TIMEOUT_MS 2000

/* A database is shared by the users of one group, not by every user: a
 * process that could write rows could hand other apps content of its own.
 * Folders made here are setgid, so that what is made inside belongs to their
 * group, and never world-writable; a database file is readable and writable
 * by its owner and group only. The modes are set explicitly, since the
 * process's umask would narrow them. SQLite gives the -wal and -shm files it
 * makes the database file's mode and, as root, its owner and group. */
#define DB_UTIL_DIR_MODE 02775
#define DB_UTIL_FILE_MODE 0660

/* Creates every missing folder above the file at path. */
static int make_parent_dirs(const char* path)
{
    char* copy = strdup(path);
    if (copy == NULL)
        return -1;
    for (char* p = copy + 1; *p != '\0'; ++p) {
        if (*p != '/')
            continue;
        *p = '\0';
        if (mkdir(copy, DB_UTIL_DIR_MODE) == 0) {
            chmod(copy, DB_UTIL_DIR_MODE);
        } else if (errno != EEXIST) {
            free(copy);
            return -1;
        }
        *p = '/';
    }
    free(copy);
    return 0;
}

static long long monotonic_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Runs a statement, retrying while another connection holds the lock that it
 * needs, until the deadline. Switching a new file to WAL needs an exclusive
 * lock, and SQLite refuses it at once instead of calling the busy handler, so
 * two processes that open the file together would otherwise fail. Each try's
 * own busy wait is cut to what is left, so the whole open waits at most one
 * busy timeout. */
static int exec_when_free(sqlite3* db, const char* sql, long long deadline_ms)
{
    const struct timespec pause = {0, 10L * 1000 * 1000};
    int rc = SQLITE_BUSY;
    for (;;) {
        long long left = deadline_ms - monotonic_ms();
        sqlite3_busy_timeout(db, left > 0 ? (int)left : 0);
        rc = sqlite3_exec(db, sql, NULL, NULL, NULL);
        if ((rc != SQLITE_BUSY && rc != SQLITE_LOCKED) || monotonic_ms() >= deadline_ms)
            break;
        nanosleep(&pause, NULL);
    }
    sqlite3_busy_timeout(db, DB_UTIL_BUSY_TIMEOUT_MS);
    return rc;
}

static int is_corrupt(int rc) { return (rc & 0xff) == SQLITE_CORRUPT || (rc & 0xff) == SQLITE_NOTADB; }

/* Moves a corrupt database (and its -wal) aside to path.corrupt, so that the
 * next open makes a new one; the -shm index only describes the old file. */
static void move_aside(const char* path)
{
    size_t size = strlen(path) + sizeof ".corrupt-wal";
    char* aside = malloc(size);
    char* from = malloc(size);
    if (aside != NULL && from != NULL) {
        snprintf(aside, size, "%s.corrupt", path);
        rename(path, aside);
        snprintf(from, size, "%s-wal", path);
        snprintf(aside, size, "%s.corrupt-wal", path);
        rename(from, aside);
        snprintf(from, size, "%s-shm", path);
        unlink(from);
        __dlog_print(DLOG_PRIORITY_ERROR, DB_UTIL_LOG_TAG, "db_util_open: %s is corrupt, moved aside to %s.corrupt",
                     path, path);
    }
    free(aside);
    free(from);
}

static int open_once(const char* path, sqlite3** handle);

int db_util_open(const char* path, sqlite3** handle, int option)
{
    (void)option;
    if (handle == NULL)
        return SQLITE_MISUSE;
    *handle = NULL;
    if (path == NULL || path[0] == '\0')
        return SQLITE_MISUSE;
    if (make_parent_dirs(path) != 0)
        return SQLITE_CANTOPEN;
    int rc = open_once(path, handle);
    /* A file that is not (or no longer) a database would stay unusable for
     * every process: it is moved aside once and made anew. */
    if (is_corrupt(rc)) {
        move_aside(path);
        rc = open_once(path, handle);
    }
    return rc;
}

/* The group of the folder that holds path; -1 when it cannot be read. */
static gid_t folder_group(const char* path)
{
    char* folder = strdup(path);
    if (folder == NULL)
        return (gid_t)-1;
    char* slash = strrchr(folder, '/');
    if (slash == folder)
        slash[1] = '\0';
    else if (slash != NULL)
        *slash = '\0';
    struct stat info;
    gid_t group = stat(slash != NULL ? folder : ".", &info) == 0 ? info.st_gid : (gid_t)-1;
    free(folder);
    return group;
}

/* Takes world write access away from a database file or side file that an
 * older version made open to all; only its owner (or root) can. A symlink
 * there is left alone: it is never followed. */
static void close_to_other_users(const char* path, const char* suffix)
{
    size_t size = strlen(path) + strlen(suffix) + 1;
    char* name = malloc(size);
    if (name == NULL)
        return;
    snprintf(name, size, "%s%s", path, suffix);
    int fd = open(name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    struct stat info;
    if (fd >= 0 && fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & S_IWOTH) != 0 &&
        (info.st_uid == geteuid() || geteuid() == 0))
        fchmod(fd, info.st_mode & 07775);
    if (fd >= 0)
        close(fd);
    free(name);
}

static int open_once(const char* path, sqlite3** handle)
{
    /* Made here, not by SQLite, so that its mode and group are the shared
     * ones: the folder's group even where the folder is not setgid (which
     * the process can only give when it is in that group, or root). */
    int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, DB_UTIL_FILE_MODE);
    if (fd >= 0) {
        gid_t group = folder_group(path);
        if (group != (gid_t)-1 && fchown(fd, (uid_t)-1, group) != 0) {
            /* not in the folder's group: the file keeps the process's */
        }
        fchmod(fd, DB_UTIL_FILE_MODE);
        close(fd);
    }
    close_to_other_users(path, "");
    close_to_other_users(path, "-wal");
    close_to_other_users(path, "-shm");

    /* A symlink at the path is refused, not followed: whoever may write the
     * folder could otherwise make a privileged process create or overwrite
     * a file of their choosing. (SQLite opens its -wal and -shm files without
     * following a symlink in any case.) */
    sqlite3* db = NULL;
    int rc = sqlite3_open_v2(path, &db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX | SQLITE_OPEN_NOFOLLOW,
                             NULL);
    if (rc == SQLITE_OK)
        rc = sqlite3_busy_timeout(db, DB_UTIL_BUSY_TIMEOUT_MS);
    const long long deadline_ms = monotonic_ms() + DB_UTIL_BUSY_TIMEOUT_MS;
    /* WAL: a row costs one log append, and readers never block the writer. */
    if (rc == SQLITE_OK)
        rc = exec_when_free(db, "PRAGMA journal_mode=WAL;", deadline_ms);
    if (rc == SQLITE_OK)
        rc = exec_when_free(db, "PRAGMA synchronous=NORMAL;", deadline_ms);
    if (rc != SQLITE_OK) {
        sqlite3_close(db);
        return rc != 0 ? rc : SQLITE_ERROR;
    }
    *handle = db;
    return 0;
}
