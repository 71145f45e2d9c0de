/* The library's log lines: one tag, a debug and an error form. */
/* Each line carries the logging function's name and source line. */
#ifndef URL_DOWNLOADER_LOG_H
#define URL_DOWNLOADER_LOG_H

#include <stddef.h>

#include "dlog.h"

#define UD_LOG_TAG "URL-Downloader"
#define UD_LOG_PRIORITY_DEBUG 4
#define UD_LOG_PRIORITY_ERROR 6

#ifdef __cplusplus
extern "C" {
#endif
/* Formats one line and hands it to the platform log under the library's tag,
 * with the password of any "user:password@" in it masked as "***". */
void ud_log_print(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
#ifdef __cplusplus
}
#endif

/* Logs under an explicit function name (for lines that belong to a step
 * folded into another function). */
#define UD_DEBUG_AS(func, fmt, ...) \
    ud_log_print(UD_LOG_PRIORITY_DEBUG, "[UD_DEBUG]: [%s () Line %d]: " fmt, func, __LINE__, ##__VA_ARGS__)
#define UD_ERROR_AS(func, fmt, ...) \
    ud_log_print(UD_LOG_PRIORITY_ERROR, "[UD_ERROR]: [%s () Line %d] : " fmt, func, __LINE__, ##__VA_ARGS__)

#define UD_DEBUG(fmt, ...) UD_DEBUG_AS(__FUNCTION__, fmt, ##__VA_ARGS__)
#define UD_ERROR(fmt, ...) UD_ERROR_AS(__FUNCTION__, fmt, ##__VA_ARGS__)

#define UD_BEGIN() UD_DEBUG(">>>>>>>>Begin.")
#define UD_END() UD_DEBUG("End.<<<<<<<<<<")

/* A string for a "%s" that may be NULL. */
static inline const char* ud_printable(const char* text) { return text != NULL ? text : "(null)"; }

/* Running out of memory for a record is fatal: the assertion names the variable. */
#define UD_ASSERT_ALLOC(ptr) ((ptr) != NULL ? (void)0 : ud_alloc_failed(#ptr, __FILE__, __LINE__, __FUNCTION__))

#ifdef __cplusplus
extern "C" {
#endif
/* Stops the process with an assertion message naming expr. Unlike assert(),
 * it stays active in release builds. */
void ud_alloc_failed(const char* expr, const char* file, int line, const char* func) __attribute__((noreturn));
#ifdef __cplusplus
}
#endif

#endif
