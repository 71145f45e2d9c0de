/* Creating and destroying the transfer engine, its pipes and its wake-ups. */
#include <errno.h>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>

#include "url-downloader-internal.h"

namespace {
// Set while CreateInstance throws away an engine whose initialisation failed.
// It still holds downloader_instance_lock then, and other registrations may be
// waiting on it, so that lock must survive the destructor.
thread_local bool keep_instance_lock;

// How many connections the engine may hold. Every transfer past these waits in
// libcurl's queue (still cancellable) until a connection frees up, so the
// number of outstanding requests never shows in the descriptor count: at most
// a socket and a destination file per connection, plus a resolver's socket
// pair while a name is looked up, about 100 in all, far below FD_SETSIZE and a
// 256-descriptor limit. Six per host is what common HTTP stacks use: small
// servers with short listen queues keep up, and a fast server still gets
// enough parallel requests to fill the link. Connections are kept and reused
// between transfers (one TLS handshake per connection, not per file); the idle
// ones kept are bounded too, so a burst leaves at most that many open.
const long kMaxConnectionsPerHost = 6;
const long kMaxConnections = URL_DOWNLOADER_MAX_CONNECTIONS;
const long kMaxIdleConnections = 16;

// Wakes the transfer loop out of select() when a transfer is added or a
// cancellation frees a connection, so that nothing waits for the select
// time-out. Separate from the download pipe, which the loop reads only while
// no transfer runs.
std::atomic<int> loop_wakeup_fd{-1};
// Signalled by the transfer thread as its last act.
std::atomic<int> loop_ended_fd{-1};

// Wake-ups owed to the loop. Each wake-up makes the loop perform, and a
// perform walks every queued transfer, so a burst of additions or
// cancellations is answered with one wake-up: the processing thread pays
// what it owes before it waits for its next command, or once this many are
// owed.
std::atomic<int> wakeups_owed{0};
const int kWakeupBatch = 64;

void close_loop_wakeup()
{
    wakeups_owed = 0;
    for (std::atomic<int>* owned : {&loop_wakeup_fd, &loop_ended_fd}) {
        int fd = owned->exchange(-1);
        if (fd >= 0)
            close(fd);
    }
}

void apply_connection_policy(CURLM* multi)
{
    if (multi == NULL)
        return;
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
    curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, kMaxConnections);
    curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, kMaxIdleConnections);
}

void close_download_pipe()
{
    for (int& fd : UrlDownloader::downloadPipe) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
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
    UdScopedLock lock(downloader_instance_lock);
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
    url_downloader_error err = URL_DOWNLOADER_ERROR_NONE;
    if (!DownloaderHandleMutex(URL_DOWNLOADER_MUTEX_INIT, &err)) {
        UD_ERROR("Curl multi-handle protection mutex failed with error_code as %d", (int)err);
        return false;
    }
    {
        // A missing multi handle is caught per transfer by DownloaderCreateEasyHandle.
        UdScopedLock lock(curl_mutex_lock, UdScopedLock::kRetry);
        multiHandle = curl_multi_init();
        apply_connection_policy(multiHandle);
    }

    bool piped = pipe2(downloadPipe, O_CLOEXEC) == 0;
    if (!piped)
        downloadPipe[0] = downloadPipe[1] = -1;
    if (piped) {
        loop_wakeup_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        loop_ended_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
    if (!piped || fcntl(downloadPipe[1], F_SETFL, O_NONBLOCK) != 0 || loop_wakeup_fd < 0 || loop_ended_fd < 0) {
        perror("pipeerror: \n");
        UD_ERROR("Download PIPE creation failed");
        close_download_pipe();
        close_loop_wakeup();
        _url_downloader_drop_multi_handle();
        return false;
    }
    UD_DEBUG("Download PIPE created successfully");

    bool result = false;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) == 0) {
        const url_downloader_engine_hooks_t* hooks = _url_downloader_engine_hooks();
        int rc = hooks != NULL ? pthread_create(&CurlThread, &attr, hooks->transferLoop, this) : EINVAL;
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
        close_loop_wakeup();
        _url_downloader_drop_multi_handle();
    }
    UD_END();
    return result;
}

void _url_downloader_drop_multi_handle(void)
{
    UdScopedLock lock(curl_mutex_lock, UdScopedLock::kRetry);
    CURLM* multi = UrlDownloader::multiHandle;
    UrlDownloader::multiHandle = NULL;
    curl_multi_cleanup(multi);
}

bool UrlDownloader::DownloaderExecuteRequest()
{
    if (!write_download_message(URL_DOWNLOADER_CURL_MSG_WAKEUP)) {
        UD_ERROR("PIPE write error occured");
        return false;
    }
    _url_downloader_wake_transfer_loop();
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
    close_loop_wakeup();

    instance = NULL;
    UD_END();
}

int _url_downloader_transfer_loop_wakeup_fd(void) { return loop_wakeup_fd.load(); }

void _url_downloader_wake_transfer_loop(void)
{
    if (++wakeups_owed >= kWakeupBatch)
        _url_downloader_pay_transfer_loop_wakeups();
}

void _url_downloader_pay_transfer_loop_wakeups(void)
{
    if (wakeups_owed.exchange(0) == 0)
        return;
    // A counter that is already non-zero wakes the loop all the same, so a
    // failed write (the counter full) loses nothing.
    int fd = loop_wakeup_fd.load();
    if (fd >= 0 && eventfd_write(fd, 1) != 0 && errno != EAGAIN)
        UD_ERROR("Transfer loop wake-up failed, errno=[%d]", errno);
}

int _url_downloader_transfer_loop_ended_fd(void) { return loop_ended_fd.load(); }

void _url_downloader_mark_transfer_loop_ended(void)
{
    int fd = loop_ended_fd.load();
    if (fd >= 0)
        eventfd_write(fd, 1);
}

void _url_downloader_clear_transfer_loop_wakeup(void)
{
    eventfd_t count;
    int fd = loop_wakeup_fd.load();
    if (fd >= 0)
        eventfd_read(fd, &count);
}
