/* Opening outside paths as regular files only, never blocking. */
/* For paths that come from outside the process (a client's destination, a
 * row of the shared cache): nothing but a plain file is ever opened or
 * blocked on. */
#ifndef URL_DOWNLOADER_REGULAR_FILE_H
#define URL_DOWNLOADER_REGULAR_FILE_H

#include <sys/stat.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens path with open()'s flags and mode, only when it is, or with O_CREAT
 * becomes, a regular file on a storage file system. It is looked at before
 * it is opened, so a FIFO, a device or a folder is never opened; with
 * O_NOFOLLOW a final symlink is not followed either. The open never blocks,
 * and what was opened must be what was looked at. O_TRUNC truncates only
 * after these checks. Returns the descriptor (close-on-exec), its status in
 * *info when info is not NULL; -1 with errno set otherwise (EINVAL for
 * something that is not such a file). */
int ud_open_regular_file(const char* path, int flags, mode_t mode, struct stat* info);

#ifdef __cplusplus
}
#endif

#endif
