/* Host stand-in for the device's platform log. */
#ifndef VELMORA_PLATFORM_DLOG_H
#define VELMORA_PLATFORM_DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Priorities used by the library: 4 for debug lines, 6 for error lines. */
enum { DLOG_PRIORITY_DEBUG = 4, DLOG_PRIORITY_WARN = 5, DLOG_PRIORITY_ERROR = 6, DLOG_PRIORITY_FATAL = 7 };

/*
 * Formats one line and sends it to the system log (syslog) under the tag, at
 * a level derived from the priority, when a system log listens (probed at the
 * first line and again every few seconds while none does). Debug lines
 * (priority 4 and below) go there only when the environment variable
 * VELMORA_LOG_DEBUG is set; warnings and errors always. When
 * VELMORA_LOG_STDERR is set, every line, debug included, is also printed to
 * standard error as "<P>/<tag>: <text>". Both settings count when set to a
 * non-empty value other than "0" at the process's first line.
 * Returns the number of characters formatted, or a negative value on error.
 */
__attribute__((visibility("default"), format(printf, 3, 4))) int __dlog_print(int priority, const char* tag,
                                                                              const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif
