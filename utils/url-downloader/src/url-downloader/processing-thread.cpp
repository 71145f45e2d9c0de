/* The processing thread: carries out each command of the processing pipe. */
#include <inttypes.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cache-policy.h"
#include "library-lifecycle.h"
#include "request-ledger.h"
#include "url-downloader-internal.h"

namespace {

long handle_number(const void* handle) { return (long)(intptr_t)handle; }

void _url_downloader_execute_download_request(url_downloader_api_h api, url_downloader_error* error)
{
    UD_BEGIN();
    *error = URL_DOWNLOADER_ERROR_NONE;
    if (!_url_downloader_claim_submitted(api)) {
        // Swept before its message came; the ledger has let it go.
        UD_ERROR("Api not found in the global reuqets list");
        return;
    }
    if (api->useCache) {
        if (url_downloader_check_cache(api, error)) {
            UD_DEBUG("URL found in the DB");
            return;
        }
        UD_DEBUG("URL not found in DB");
    }

    if (_url_downloader_start_transfer(api)) {
        UD_DEBUG("Download requested to CURL");
        // A transfer that was added runs on the transfer thread's next cycle
        // even when this wake-up is lost.
        if (!UrlDownloader::instance->DownloaderExecuteRequest())
            *error = URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED;
    } else {
        UD_ERROR("url_downloader_add_easy_handle failed");
        // Without a transfer nothing would ever answer the request: answer
        // it now as failed. One that was added answers for itself.
        if (api->transferActive == 0) {
            url_downloader_reason_t reason = {};
            reason.curlCode = CURLE_FAILED_INIT;
            _url_downloader_answer_request(api, URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED, NULL, &reason);
        }
    }
    UD_END();
}

void _url_downloader_process_download_response(url_downloader_api_h api, url_downloader_response_info_t* info)
{
    UD_BEGIN();
    if (!_url_downloader_claim_response(api)) {
        // A sweep dropped the request after its transfer had finished; the
        // ledger has let it go.
        UD_ERROR("Entry not found in the global list, api already canceled");
        return;
    }

    url_downloader_error outcome = URL_DOWNLOADER_ERROR_NONE;
    url_downloader_reason_t reason = {};
    if (info != NULL) {
        reason.httpStatus = info->httpStatus;
        reason.curlCode = info->curlCode;
        reason.bytesWritten = info->bytesWritten;
    }
    if (info == NULL) {
        UD_ERROR("Downloaded file meta data missing");
    } else if ((outcome = info->error) == URL_DOWNLOADER_ERROR_NONE) {
        // Every successful download is offered to the cache, whether or not
        // the request consulted it.
        // 64-bit: now + 180 days must not wrap where time_t is 32 bits.
        int64_t now = (int64_t)time(NULL);
        int64_t expiry = info->expiryTime;
        if (now >= expiry)
            expiry = now + DEFAULT_CACHE_LIFETIME;
        url_downloader_cache record;
        memset(&record, 0, sizeof record);
        record.url = api->url;
        record.filepath = api->filePath;
        record.filesize = info->fileSize;
        record.downloadtime = now;
        record.expirytime = expiry;
        record.appname = api->service != NULL ? api->service->appName : NULL;
        UD_DEBUG("Adding to cache \n[ URL=%s,\n filesize=%" PRId64 ",\n appid=%s,\n downloadtime=%" PRId64
                 ",\n expirytime=%" PRId64
                 ", "
                 "filepath=%s]\n",
                 ud_printable(record.url), record.filesize, ud_printable(record.appname), record.downloadtime,
                 record.expirytime, ud_printable(record.filepath));
        _url_downloader_admit_download(&record);
    }
    _url_downloader_answer_request(api, outcome, NULL, &reason);
    UD_END();
}

void _url_downloader_execute_cancel_request(url_downloader_api_h api, url_downloader_error* error)
{
    UD_BEGIN();
    *error = URL_DOWNLOADER_ERROR_NONE;
    if (_url_downloader_cancel_running(api)) {
        _url_downloader_answer_request(api, URL_DOWNLOADER_ERROR_REQUEST_CANCELLED, NULL, NULL);
    } else {
        // Not running: not started yet, finished, or answered from the cache.
        // It ends normally.
        UD_ERROR("Api-handle %ld not found in the global-list", handle_number(api));
    }
    UD_END();
}

void _url_downloader_execute_deregister_service(url_downloader_message_t* message, url_downloader_error* error)
{
    UD_BEGIN();
    _url_downloader_execute_cancel_all_request(message, true, false, error);
    UD_END();
}

void _url_downloader_execute_clean_request_list(url_downloader_message_t* message, url_downloader_error* error)
{
    UD_BEGIN();
    _url_downloader_execute_cancel_all_request(message, true, true, error);
    UD_END();
}

// Returns when a command is in the pipe, or when reading it may block: while
// another process holds the cache's lock, it looks for the lock's end now and
// then instead of sleeping on the pipe.
void wait_for_command()
{
    for (;;) {
        int settle_in_ms = _url_downloader_settle_cache();
        if (_url_downloader_wait_pipe(0))
            return;
        // About to wait: the transfers added or cancelled so far start now,
        // one wake-up for the whole burst.
        _url_downloader_pay_transfer_loop_wakeups();
        if (settle_in_ms < 0 || _url_downloader_wait_pipe(settle_in_ms))
            return;
    }
}
} // namespace

void* url_downloader_thread_loop(void* arg)
{
    UD_BEGIN();
    bool stop = false;
    while (!stop) {
        url_downloader_message_t message;
        memset(&message, 0, sizeof message);
        url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
        _url_downloader_mark_started();

        wait_for_command();
        _url_downloader_read_pipe(&message, &error);
        if (error != URL_DOWNLOADER_ERROR_NONE) {
            UD_ERROR("_url_downloader_read_pipe failed with error-code as %d", (int)error);
            continue;
        }

        switch (message.type) {
        case URL_DOWNLOADER_MSG_NONE:
            break;
        case URL_DOWNLOADER_MSG_DOWNLOAD_REQUEST:
            _url_downloader_execute_download_request(message.api, &error);
            break;
        case URL_DOWNLOADER_MSG_DOWNLOAD_RESPONSE:
            _url_downloader_process_download_response(message.api, message.info);
            break;
        case URL_DOWNLOADER_MSG_CANCEL_REQUEST:
            _url_downloader_execute_cancel_request(message.api, &error);
            break;
        case URL_DOWNLOADER_MSG_CANCEL_ALL_REQUEST:
            _url_downloader_execute_cancel_all_request(&message, false, false, &error);
            UD_DEBUG("canceled all apis, unlocking semaphore");
            _url_downloader_post_reply(message.type);
            break;
        case URL_DOWNLOADER_MSG_DEREGISTER_SERVICE:
            _url_downloader_execute_deregister_service(&message, &error);
            UD_DEBUG("Deregistration of service complete, unlocking semaphore");
            _url_downloader_post_reply(message.type);
            break;
        case URL_DOWNLOADER_MSG_CLEAN_REQUEST_LIST:
            _url_downloader_execute_clean_request_list(&message, &error);
            stop = true;
            break;
        default:
            UD_ERROR("Invalid message type");
            break;
        }

        _url_downloader_discard_response(&message);
        if (error != URL_DOWNLOADER_ERROR_NONE)
            UD_ERROR("Request executing failed with error-code as %d", (int)error);
    }

    UrlDownloader* engine = UrlDownloader::instance;
    if (engine != NULL && !engine->DownloaderCleanupCurl()) {
        // The transfer thread cannot be told to stop: joining it would hang,
        // and destroying the engine under it would pull its state away.
        UD_ERROR("Transfer engine left running");
    } else if (engine != NULL) {
        UD_ERROR("Waiting for pthread_join on curl thread to complete");
        // That thread may be writing the responses of transfers that finished
        // at the last moment, and would block for good once the pipe is full:
        // read them until it has ended (their requests go with the ledger).
        // The engine exists only with its end signal, so waiting on it is safe.
        _url_downloader_drain_pipe(_url_downloader_transfer_loop_ended_fd());
        pthread_join(UrlDownloader::CurlThread, NULL);
        delete engine;
    }
    // Held admissions get one last look; those still held wait for the next start.
    _url_downloader_settle_cache();
    UD_ERROR("Closing the downloader thread!");
    UD_END();
    return NULL;
}
