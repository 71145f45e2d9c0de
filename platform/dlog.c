#include "dlog.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

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

static int stderr_wanted(void)
{
    const char* v = getenv("VELMORA_LOG_STDERR");
    return v != NULL && v[0] != '\0' && strcmp(v, "0") != 0;
}

int __dlog_print(int priority, const char* tag, const char* format, ...)
{
    if (format == NULL)
        return -1;
    char line[1024];
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    if (n < 0)
        return n;

    const char* t = tag != NULL ? tag : "";
    syslog(LOG_USER | syslog_level(priority), "%s: %s", t, line);
    if (stderr_wanted()) {
        size_t len = strlen(line);
        const char* nl = (len > 0 && line[len - 1] == '\n') ? "" : "\n";
        fprintf(stderr, "%d/%s: %s%s", priority, t, line, nl);
    }
    return n;
}
