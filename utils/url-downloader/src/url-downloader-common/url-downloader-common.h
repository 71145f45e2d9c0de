/* What every part of the library uses; includes nothing of its other folders. */
/* The public types, the log lines, the allocation check, the locks, and the
 * command records of the processing pipe. */
#ifndef URL_DOWNLOADER_COMMON_H
#define URL_DOWNLOADER_COMMON_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "url-downloader.h"
#include "url-downloader-locks.h"
#include "url-downloader-log.h"

#define UD_EXPORT __attribute__((visibility("default")))

/* Milliseconds of the monotonic clock: for waits and ages, never for dates. */
static inline int64_t ud_monotonic_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Commands of the processing pipe. */
typedef enum {
    URL_DOWNLOADER_MSG_NONE = 1,
    URL_DOWNLOADER_MSG_DOWNLOAD_REQUEST = 2,
    URL_DOWNLOADER_MSG_DOWNLOAD_RESPONSE = 3,
    URL_DOWNLOADER_MSG_CANCEL_REQUEST = 4,
    URL_DOWNLOADER_MSG_CANCEL_ALL_REQUEST = 5,
    URL_DOWNLOADER_MSG_DEREGISTER_SERVICE = 6,
    URL_DOWNLOADER_MSG_CLEAN_REQUEST_LIST = 7
} url_downloader_message_type_t;

/* Result of one finished transfer, as the engine reports it and as a response
 * message carries it (then owned by the processing thread). */
typedef struct url_downloader_response_info_t {
    int64_t fileSize;   /* a body may pass 2 GiB */
    int64_t expiryTime; /* and a date may pass 2038, on 32-bit targets too */
    url_downloader_error error;
    /* Why it ended, for the request's reason: */
    int32_t httpStatus;   /* status of the last response, 0 for none */
    int32_t curlCode;     /* libcurl's result, or the one that names a write or size failure */
    int64_t bytesWritten; /* body bytes written, also on a failure */
} url_downloader_response_info_t;

/* One command, copied by value through the processing pipe. */
typedef struct url_downloader_message_t {
    int32_t reserved;
    int32_t type; /* url_downloader_message_type_t */
    url_downloader_h service;
    url_downloader_api_h api;
    url_downloader_response_info_t* info;
} url_downloader_message_t;

#endif
