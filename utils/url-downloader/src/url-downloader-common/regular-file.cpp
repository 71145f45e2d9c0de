/* Opening a path from outside the process only when it is a regular file, never blocking. */
#include "regular-file.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdint.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace {

/* Kernel file systems whose "regular files" are controls, not storage:
 * writing /proc/self/comm renames the process, reading some of /sys acts. */
bool is_pseudo_file_system(int fd)
{
    static const uint32_t kPseudo[] = {PROC_SUPER_MAGIC, SYSFS_MAGIC,        DEBUGFS_MAGIC,       TRACEFS_MAGIC,
                                       SECURITYFS_MAGIC, CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, BPF_FS_MAGIC,
                                       EFIVARFS_MAGIC,   PSTOREFS_MAGIC,     0x62656570 /* configfs */};
    struct statfs fs;
    if (fstatfs(fd, &fs) != 0)
        return true; // unknown: not trusted
    // f_type is 32 bits wide on 32-bit targets, where some magics look negative.
    const uint32_t type = (uint32_t)fs.f_type;
    for (uint32_t magic : kPseudo)
        if (type == magic)
            return true;
    return false;
}

int fail(int fd, int error)
{
    if (fd >= 0)
        close(fd);
    errno = error;
    return -1;
}

} // namespace

int ud_open_regular_file(const char* path, int flags, mode_t mode, struct stat* info)
{
    if (path == NULL || path[0] == '\0')
        return fail(-1, EINVAL);
    struct stat seen;
    const bool existed = ((flags & O_NOFOLLOW) != 0 ? lstat(path, &seen) : stat(path, &seen)) == 0;
    if (!existed && (errno != ENOENT || (flags & O_CREAT) == 0))
        return -1;
    if (existed && !S_ISREG(seen.st_mode))
        return fail(-1, EINVAL);

    // O_NONBLOCK: should the path have become a FIFO since it was looked at,
    // the open returns at once instead of waiting for the other side.
    int fd = open(path, (flags & ~O_TRUNC) | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, mode);
    if (fd < 0)
        return -1;
    struct stat opened;
    if (fstat(fd, &opened) != 0)
        return fail(fd, errno);
    if (!S_ISREG(opened.st_mode) || (existed && (opened.st_dev != seen.st_dev || opened.st_ino != seen.st_ino)) ||
        is_pseudo_file_system(fd))
        return fail(fd, EINVAL);
    if ((flags & O_TRUNC) != 0 && opened.st_size != 0) {
        if (ftruncate(fd, 0) != 0)
            return fail(fd, errno);
        opened.st_size = 0;
    }
    if (info != NULL)
        *info = opened;
    return fd;
}
