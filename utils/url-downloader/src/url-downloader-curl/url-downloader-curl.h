/* The transfer thread, the completion report and the libcurl callbacks. */
#ifndef URL_DOWNLOADER_CURL_H
#define URL_DOWNLOADER_CURL_H

#include <stddef.h>
#include <sys/time.h>

#include <curl/curl.h>

#include "url-downloader-internal.h"

extern "C" {
/* Transfer thread body; arg is the engine object. Returns NULL (0). */
UD_EXPORT void* url_downloader_download_loop(void* arg);
/* libcurl body callback: writes into the record's destination file. libcurl
 * calls it inside a perform, which runs under curl_mutex_lock. */
UD_EXPORT size_t url_downloader_body_parser(void* data, size_t size, size_t nmemb, void* user_data)
    UD_REQUIRES(curl_mutex_lock);
/* libcurl header callback: takes the expiry time from Expires / Cache-Control max-age. */
UD_EXPORT size_t url_downloader_header_parser(char* line, size_t size, size_t nmemb, void* user_data);
}

/* libcurl debug callback: libcurl's own verbose output where the trace mode
 * says (standard error by default, the platform log, or nowhere), with the
 * credentials of authorization headers masked. */
int url_downloader_curl_trace(CURL* easy, curl_infotype type, char* data, size_t size, void* user_data);
/* Where the trace goes (url_downloader_trace_t), for the process; read by
 * every call of the callback, so it applies to running transfers at once. */
void _url_downloader_set_trace_mode(int mode);
/* Closes the record's destination file, if open, and frees its buffer.
 * False when the close failed (stdio's last write: a full disk shows here). */
bool _url_downloader_close_file(url_downloader_curl_pvt_data* record) UD_REQUIRES(curl_mutex_lock);

/* Writes out the bodies whose bytes have waited in their stdio buffer for
 * the flush delay or longer. The transfer loop calls it each time it wakes,
 * with curl_mutex_lock held. */
void _url_downloader_flush_stale_bodies(void) UD_REQUIRES(curl_mutex_lock);

/* Where finished transfers are reported: the request and its outcome (the
 * sink copies what it keeps). Installed by the code above the engine. */
typedef void (*url_downloader_response_sink_t)(url_downloader_api_h api, const url_downloader_response_info_t* info);
void _url_downloader_set_response_sink(url_downloader_response_sink_t sink);

/* Judges one finished transfer and queues its report on the calling thread;
 * _url_downloader_flush_responses hands the reports to the sink, so that the
 * transfer thread never waits on a full processing pipe while it holds
 * curl_mutex_lock. */
void _url_downloader_response_cb(CURL* easy_handle, void* user_data, CURLcode result) UD_REQUIRES(curl_mutex_lock);

/* Hands the reports queued on the calling thread to the sink, oldest first.
 * Call without curl_mutex_lock. */
void _url_downloader_flush_responses(void);

/* Handles one finished easy handle reported by the multi handle: reports it
 * (when it still belongs to a request) and tears it down. Also copes with an
 * easy handle whose record is missing or detached. */
void _url_downloader_finish_transfer(UrlDownloader* engine, CURL* easy, url_downloader_curl_pvt_data* data,
                                     CURLcode result) UD_REQUIRES(curl_mutex_lock);

/* The select() wait of one transfer cycle for libcurl's time-out (ms, negative
 * for none): libcurl's time-out up to 1999 ms, else one second. */
void _url_downloader_compute_wait(long timeout_ms, struct timeval* wait);

#endif
