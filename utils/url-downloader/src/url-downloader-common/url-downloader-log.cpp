/* The library's log lines, with credentials masked, handed to the platform log. */
#include "url-downloader-log.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

// Characters that end a "user:password@host" run in a log line: blanks, the
// brackets and quotes the lines put around values, and the path's slash.
bool ends_run(char c) { return c == '\0' || strchr(" \t\r\n[]()<>'\",;=/", c) != NULL; }

// Copies line into out (of size out_size, never exceeded) with the password
// of every "user:password@" replaced by "***". Returns the length written.
size_t mask_user_info(const char* line, char* out, size_t out_size)
{
    size_t o = 0;
    auto put = [&](const char* text, size_t n) {
        for (size_t k = 0; k < n && o + 1 < out_size; ++k)
            out[o++] = text[k];
    };
    const char* p = line;
    while (*p != '\0') {
        if (ends_run(*p)) {
            put(p++, 1);
            continue;
        }
        const char* start = p;
        while (!ends_run(*p))
            ++p;
        // The last '@' of the run ends the user-info (a password may hold one).
        const char* at = (const char*)memrchr(start, '@', (size_t)(p - start));
        const char* colon = at != NULL ? (const char*)memchr(start, ':', (size_t)(at - start)) : NULL;
        if (colon == NULL) {
            put(start, (size_t)(p - start));
            continue;
        }
        put(start, (size_t)(colon + 1 - start));
        put("***", 3);
        put(at, (size_t)(p - at));
    }
    out[o] = '\0';
    return o;
}

} // namespace

void ud_log_print(int priority, const char* format, ...)
{
    char line[4096];
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    if (n < 0)
        return;
    // Credentials in a proxy or a URL never reach the log: the platform's log
    // is readable by more than the app. Lines without an '@' go as they are.
    if (strchr(line, '@') == NULL) {
        __dlog_print(priority, UD_LOG_TAG, "%s", line);
        return;
    }
    char masked[sizeof line + 16];
    mask_user_info(line, masked, sizeof masked);
    __dlog_print(priority, UD_LOG_TAG, "%s", masked);
}
