/* The transfer thread: drives the multi handle until it is told to stop. */
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
// Reads one 4-byte message of the download pipe. False when the pipe can no
// longer deliver one (end of file or a read error): the thread then ends
// rather than spin on a dead descriptor.
bool read_download_message(int fd, int32_t* value)
{
    unsigned char buf[sizeof *value];
    size_t got = 0;
    while (got < sizeof buf) {
        ssize_t n = read(fd, buf + got, sizeof buf - got);
        if (n > 0) {
            got += (size_t)n;
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            if (n == 0) {
                UD_ERROR("Download pipe closed, ending CURL thread loop");
            } else {
                perror("pipe");
                UD_ERROR("Download pipe read failed, errno=[%d]", errno);
            }
            return false;
        }
    }
    memcpy(value, buf, sizeof buf);
    return true;
}

// Finished transfers are reported and torn down in the same locked section
// as the perform that finished them, so a cancellation never meets one
// half-way.
void drain_finished(UrlDownloader* engine, CURLM* multi) UD_REQUIRES(curl_mutex_lock)
{
    CURLMsg* msg;
    int left = 0;
    while ((msg = curl_multi_info_read(multi, &left)) != NULL) {
        if (msg->msg != CURLMSG_DONE) {
            UD_DEBUG("Curl message received=%d\n ", (int)msg->msg);
            continue;
        }
        UD_DEBUG("Curl transaction over\n ");
        // msg dies with the easy handle's removal: copy what is needed.
        CURL* easy = msg->easy_handle;
        CURLcode result = msg->data.result;
        char* priv = NULL;
        curl_easy_getinfo(easy, CURLINFO_PRIVATE, &priv);
        _url_downloader_finish_transfer(engine, easy, (url_downloader_curl_pvt_data*)priv, result);
    }
}

// One perform (repeated while libcurl asks for it); the responses it produced
// are written once the lock is released.
void perform(UrlDownloader* engine, CURLM* multi, int* running, bool report_errors)
{
    CURLMcode rc;
    do {
        {
            UdScopedLock lock(curl_mutex_lock, UdScopedLock::kRetry);
            rc = curl_multi_perform(multi, running);
            if (report_errors && rc != CURLM_OK && rc != CURLM_CALL_MULTI_PERFORM)
                UD_ERROR("Muti-perform Error:: %s\n", curl_multi_strerror(rc));
            drain_finished(engine, multi);
            _url_downloader_flush_stale_bodies();
        }
        _url_downloader_flush_responses();
    } while (rc == CURLM_CALL_MULTI_PERFORM);
}

void run_cycle(UrlDownloader* engine, CURLM* multi)
{
    int running = 0;
    perform(engine, multi, &running, false);

    while (running != 0) {
        long timeout_ms = -1;
        int max_fd = -1;
        fd_set read_set, write_set, error_set;
        FD_ZERO(&read_set);
        FD_ZERO(&write_set);
        FD_ZERO(&error_set);

        {
            UdScopedLock lock(curl_mutex_lock);
            if (!lock.Held()) {
                UD_ERROR("Locking curl_write_lock failed with error-code as %d", (int)lock.Error());
            } else {
                curl_multi_fdset(multi, &read_set, &write_set, &error_set, &max_fd);
                curl_multi_timeout(multi, &timeout_ms);
                if (!lock.Release())
                    UD_ERROR("Unlocking curl_write_lock failed with error-code as %d", (int)lock.Error());
            }
        }

        // Descriptors from FD_SETSIZE up cannot be in a set; libcurl leaves its
        // own out likewise, and such transfers move on each time-out.
        const int wakeup = _url_downloader_transfer_loop_wakeup_fd();
        const bool watch_wakeup = wakeup >= 0 && wakeup < FD_SETSIZE;
        if (watch_wakeup) {
            FD_SET(wakeup, &read_set);
            if (wakeup > max_fd)
                max_fd = wakeup;
        }

        struct timeval wait;
        _url_downloader_compute_wait(timeout_ms, &wait);
        if (select(max_fd + 1, &read_set, &write_set, &error_set, &wait) == -1) {
            int saved = errno;
            UD_ERROR("select error\n");
            // Collect again; a lasting failure must not become a busy loop.
            if (saved != EINTR) {
                struct timespec pause = {0, 10000000};
                nanosleep(&pause, NULL);
            }
            continue;
        }
        if (watch_wakeup && FD_ISSET(wakeup, &read_set))
            _url_downloader_clear_transfer_loop_wakeup();
        perform(engine, multi, &running, true);
    }
}
} // namespace

void _url_downloader_compute_wait(long timeout_ms, struct timeval* wait)
{
    wait->tv_sec = 1;
    wait->tv_usec = 0;
    if (timeout_ms < 0)
        return;
    long seconds = timeout_ms / 1000;
    if (seconds > 1)
        return;
    wait->tv_sec = seconds;
    wait->tv_usec = (timeout_ms % 1000) * 1000;
}

void* url_downloader_download_loop(void* arg)
{
    UD_BEGIN();
    UrlDownloader* engine = (UrlDownloader*)arg;
    CURLM* multi = NULL;
    {
        UdScopedLock lock(curl_mutex_lock, UdScopedLock::kRetry);
        multi = UrlDownloader::multiHandle;
    }
    int downloadFd = UrlDownloader::downloadPipe[0];

    int32_t message = -1;
    for (;;) {
        UD_DEBUG("Waiting for wakeup message");
        if (!read_download_message(downloadFd, &message))
            break;
        if (message == URL_DOWNLOADER_CURL_MSG_CLEANUP)
            break;
        run_cycle(engine, multi);
    }

    UD_DEBUG("Cleaning up multi handle, Exiting CURL thread loop!");
    _url_downloader_drop_multi_handle();
    UD_END();
    _url_downloader_mark_transfer_loop_ended();
    return NULL;
}
