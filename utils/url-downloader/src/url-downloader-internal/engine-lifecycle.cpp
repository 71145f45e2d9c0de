#include <errno.h>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
// Set while CreateInstance throws away an engine whose initialisation failed.
// It still holds downloader_instance_lock then, and other registrations may be
// waiting on it, so that lock must survive the destructor.
thread_local bool keep_instance_lock;

void close_download_pipe()
{
    for (int i = 0; i < 2; i++) {
        if (UrlDownloader::downloadPipe[i] >= 0) {
            close(UrlDownloader::downloadPipe[i]);
            UrlDownloader::downloadPipe[i] = -1;
        }
    }
}

// The write end is non-blocking. A wake-up that finds the pipe full is not
// needed: the wake-ups already in it make the transfer thread run another
// cycle, which picks up every transfer added by then. Blocking there instead
// could deadlock: the transfer thread, busy in its cycle, may itself be
// waiting for the processing thread to read the processing pipe. The cleanup
// message must not be lost, so it waits for room.
bool write_download_message(int32_t value)
{
    for (;;) {
        ssize_t bytes = write(UrlDownloader::downloadPipe[1], &value, sizeof value);
        if (bytes > 0)
            return true;
        if (bytes < 0 && errno == EINTR)
            continue;
        if (bytes < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (value != URL_DOWNLOADER_CURL_MSG_CLEANUP)
                return true;
            struct pollfd room = {UrlDownloader::downloadPipe[1], POLLOUT, 0};
            poll(&room, 1, 100);
            continue;
        }
        return false;
    }
}
} // namespace

UrlDownloader* UrlDownloader::CreateInstance()
{
    UD_BEGIN();
    // A lock that cannot be taken is reported by its wrapper; creating the
    // engine without it could make two.
    UdScopedLock lock(DownloaderInstanceHandleMutex);
    if (!lock.Held())
        return NULL;
    if (instance == NULL) {
        instance = new (std::nothrow) UrlDownloader();
        if (instance == NULL || !instance->DownloaderInit()) {
            // Dispose of the half-made engine before anyone else can see it.
            UrlDownloader* failed = instance;
            if (failed != NULL) {
                keep_instance_lock = true;
                delete failed; // resets instance
                keep_instance_lock = false;
            }
            instance = NULL;
            return NULL;
        }
    }
    UD_END();
    return instance;
}

bool UrlDownloader::DownloaderInit()
{
    UD_BEGIN();
    // A missing multi handle is caught per transfer by DownloaderCreateEasyHandle.
    multiHandle = curl_multi_init();

    url_downloader_error err = URL_DOWNLOADER_ERROR_NONE;
    if (!DownloaderHandleMutex(URL_DOWNLOADER_MUTEX_INIT, &err)) {
        UD_ERROR("Curl multi-handle protection mutex failed with error_code as %d", (int)err);
        curl_multi_cleanup(multiHandle);
        multiHandle = NULL;
        return false;
    }

    bool piped = pipe2(downloadPipe, O_CLOEXEC) == 0;
    if (!piped)
        downloadPipe[0] = downloadPipe[1] = -1;
    if (!piped || fcntl(downloadPipe[1], F_SETFL, O_NONBLOCK) != 0) {
        perror("pipeerror: \n");
        UD_ERROR("Download PIPE creation failed");
        close_download_pipe();
        curl_multi_cleanup(multiHandle);
        multiHandle = NULL;
        return false;
    }
    UD_DEBUG("Download PIPE created successfully");

    bool result = false;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) == 0) {
        int rc = pthread_create(&CurlThread, &attr, url_downloader_download_loop, this);
        if (rc != 0) {
            errno = rc;
            perror("threaderror: \n");
            UD_ERROR("Download thread creation failed");
        } else {
            UD_DEBUG("Download thread created successfully");
            result = true;
        }
        if (pthread_attr_destroy(&attr) != 0)
            perror("Cannot destroy the attribute object\n");
    }

    if (!result) {
        // No thread will ever clean these up.
        close_download_pipe();
        curl_multi_cleanup(multiHandle);
        multiHandle = NULL;
    }
    UD_END();
    return result;
}

bool UrlDownloader::DownloaderExecuteRequest()
{
    if (!write_download_message(URL_DOWNLOADER_CURL_MSG_WAKEUP)) {
        UD_ERROR("PIPE write error occured");
        return false;
    }
    return true;
}

bool UrlDownloader::DownloaderCleanupCurl()
{
    if (!write_download_message(URL_DOWNLOADER_CURL_MSG_CLEANUP)) {
        UD_ERROR("PIPE write error occured");
        return false;
    }
    UD_DEBUG("Cleanup message written to pipe for CURL thread termination.");
    return true;
}

UrlDownloader::~UrlDownloader()
{
    UD_BEGIN();
    // The transfer thread has ended (or never ran): whatever is still listed
    // was set up but never finished, or was detached after a failed removal.
    _url_downloader_release_transactions(this);

    url_downloader_error err = URL_DOWNLOADER_ERROR_NONE;
    if (!DownloaderHandleMutex(URL_DOWNLOADER_MUTEX_DESTROY, &err))
        UD_ERROR("Destroying mutex failed with error-code as %d", (int)err);
    if (!keep_instance_lock && !DownloaderInstanceHandleMutex(URL_DOWNLOADER_MUTEX_DESTROY, &err))
        UD_ERROR("Destroying mutex failed with error-code as %d", (int)err);

    close_download_pipe();

    multiHandle = NULL;
    instance = NULL;
    activeTransactions = NULL;
    UD_END();
}
