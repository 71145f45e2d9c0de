/* What every part of the library uses: the public types, the log lines, the
 * allocation check, the lock utility with its scoped guard, and the command
 * records of the processing pipe, which the client side and the transfer
 * thread both write. Includes nothing of the library's other folders. */
#ifndef URL_DOWNLOADER_COMMON_H
#define URL_DOWNLOADER_COMMON_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "url-downloader.h"
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

/* Result of one finished transfer; owned by the processing thread once sent. */
typedef struct url_downloader_response_info_t {
    int64_t fileSize;   /* a body may pass 2 GiB */
    int64_t expiryTime; /* and a date may pass 2038, on 32-bit targets too */
    url_downloader_error error;
} url_downloader_response_info_t;

/* One command, copied by value through the processing pipe. */
typedef struct url_downloader_message_t {
    int32_t reserved;
    int32_t type; /* url_downloader_message_type_t */
    url_downloader_h service;
    url_downloader_api_h api;
    url_downloader_response_info_t* info;
} url_downloader_message_t;

#ifdef __cplusplus
extern "C" {
#endif

UD_EXPORT url_downloader_error url_downloader_mutex_utility(pthread_mutex_t* mutex, bool* initialised,
                                                            url_downloader_mutex_operation_t operation);
/* A named lock's wrapper: refuses a NULL error word, runs the operation
 * through the utility, stores its code and logs a failure under func with the
 * lock's name. Returns whether the operation succeeded. */
bool _url_downloader_named_mutex_operation(pthread_mutex_t* mutex, bool* initialised, const char* func,
                                           const char* lock_name, url_downloader_mutex_operation_t operation,
                                           url_downloader_error* error);

/* Writes one command into the processing pipe (defined with the pipe). */
UD_EXPORT void url_downloader_write_pipe(const url_downloader_message_t* message, url_downloader_error* error);

#ifdef __cplusplus
}

/* A lock wrapper of the library: bool (operation, error word). */
typedef bool (*UdLockOperation)(url_downloader_mutex_operation_t, url_downloader_error*);

/* Holds one of the library's locks for its scope. Taking it may fail (the
 * lock utility's code is then in Error() and nothing is held); leaving the
 * scope releases it on every path. Release() lets a caller that must report
 * a failed release do so before the scope ends. */
class UdScopedLock {
public:
    explicit UdScopedLock(UdLockOperation operation)
        : operation_(operation), error_(URL_DOWNLOADER_ERROR_NONE),
          held_(operation(URL_DOWNLOADER_MUTEX_LOCK, &error_))
    {
    }
    ~UdScopedLock() { Release(); }
    UdScopedLock(const UdScopedLock&) = delete;
    UdScopedLock& operator=(const UdScopedLock&) = delete;

    bool Held() const { return held_; }
    url_downloader_error Error() const { return error_; }

    /* Releases now; false (with the code in Error()) when that failed. */
    bool Release()
    {
        if (!held_)
            return true;
        held_ = false;
        return operation_(URL_DOWNLOADER_MUTEX_UNLOCK, &error_);
    }

private:
    UdLockOperation operation_;
    url_downloader_error error_;
    bool held_;
};
#endif

#endif
