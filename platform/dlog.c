/* Host stand-in for the device's platform log: syslog, and stderr on request. */
#include "dlog.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

/* A download writes some fifty lines, so a line must cost microseconds: the
 * environment is read once, and the system log is probed once instead of
 * syslog() reconnecting for every line where nothing listens. A log daemon
 * that starts later is noticed at the next probe, a few seconds on. */

#define SYSLOG_PROBE_INTERVAL_S 5

static pthread_once_t settings_once = PTHREAD_ONCE_INIT;
static int stderr_wanted;
static int debug_to_syslog;
static atomic_int syslog_listens = -1; /* -1: not probed yet */
static atomic_llong syslog_next_probe;

static int syslog_level(int priority)
{
    if (priority >= DLOG_PRIORITY_FATAL)
        return LOG_CRIT;
    if (priority == DLOG_PRIORITY_ERROR)
        return LOG_ERR;
    if (priority == DLOG_PRIORITY_WARN)
        return LOG_WARNING;
    return LOG_DEBUG;
}

static int setting(const char* name)
{
    const char* v = getenv(name);
    return v != NULL && v[0] != '\0' && strcmp(v, "0") != 0;
}

static void read_settings(void)
{
    stderr_wanted = setting("VELMORA_LOG_STDERR");
    debug_to_syslog = setting("VELMORA_LOG_DEBUG");
}

static long long monotonic_seconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return (long long)now.tv_sec;
}

static int probe_syslog(void)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, _PATH_LOG, sizeof address.sun_path - 1);
    int listens = connect(fd, (struct sockaddr*)&address, sizeof address) == 0;
    close(fd);
    if (listens)
        openlog(NULL, LOG_NDELAY, LOG_USER); /* one connection, kept */
    return listens;
}

static int syslog_available(void)
{
    int listens = atomic_load_explicit(&syslog_listens, memory_order_relaxed);
    if (listens == 1)
        return 1;
    long long now = monotonic_seconds();
    long long next = atomic_load_explicit(&syslog_next_probe, memory_order_relaxed);
    /* One thread probes per interval; the others carry on without syslog. */
    if ((listens == -1 || now >= next) &&
        atomic_compare_exchange_strong(&syslog_next_probe, &next, now + SYSLOG_PROBE_INTERVAL_S)) {
        listens = probe_syslog();
        atomic_store(&syslog_listens, listens);
    }
    return listens == 1;
}

int __dlog_print(int priority, const char* tag, const char* format, ...)
{
    if (format == NULL)
        return -1;
    pthread_once(&settings_once, read_settings);
    /* A download writes some fifty debug lines: the system log, shared by the
     * whole device, gets them only when asked for. */
    int to_syslog = (priority > DLOG_PRIORITY_DEBUG || debug_to_syslog) && syslog_available();
    char line[1024];
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    if (n < 0)
        return n;

    const char* t = tag != NULL ? tag : "";
    if (to_syslog)
        syslog(LOG_USER | syslog_level(priority), "%s: %s", t, line);
    if (stderr_wanted) {
        size_t len = strlen(line);
        const char* nl = (len > 0 && line[len - 1] == '\n') ? "" : "\n";
        fprintf(stderr, "%d/%s: %s%s", priority, t, line, nl);
    }
    return n;
}
