/* The transfer engine: one libcurl multi handle driven by one transfer thread. */
#ifndef URL_DOWNLOADER_INTERNAL_H
#define URL_DOWNLOADER_INTERNAL_H

#include <pthread.h>
#include <stdio.h>

#include <curl/curl.h>
#include <glib.h>

#include "transfer-progress.h"
#include "url-downloader-common.h"
#include "url-downloader-extension.h"

/* The most connections the engine holds at once (see the connection policy
 * in engine-lifecycle.cpp); the body writer keeps as many files open. */
#define URL_DOWNLOADER_MAX_CONNECTIONS 32

/* Values of the 4-byte messages of the download pipe. */
#define URL_DOWNLOADER_CURL_MSG_CLEANUP 0
#define URL_DOWNLOADER_CURL_MSG_WAKEUP 1

/* Per-transfer record: libcurl's write data, header data and private pointer. */
typedef struct url_downloader_curl_pvt_data {
    char* filePath;                 /* engine's copy of the destination path, or NULL */
    FILE* fileHandle;               /* destination, opened on the first body write */
    char* fileBuffer;               /* its stdio buffer when the body is large, else NULL */
    int64_t lastChunkMs;            /* monotonic time of the last body chunk, 0 before the first */
    int64_t bufferedSinceMs;        /* since when bytes wait in the stdio buffer, 0 when none do */
    bool writeFailed;               /* a close before the end of the body lost bytes */
    int64_t expiryTime;             /* 0 none seen, -1 unparsable Expires date */
    int64_t fileSize;               /* body bytes written so far */
    url_downloader_api_h apiHandle; /* the request served; not owned */
    CURL* easyHandle;               /* owned */
    GList* activeLink;              /* its node in activeTransactions, NULL when not listed */
    ud_progress_t* progress;        /* the request's progress cell, NULL once detached; not owned */
    int64_t maxBodySize;            /* body bytes allowed, 0 for any */
    bool bodyTooLarge;              /* the body passed maxBodySize */
} url_downloader_curl_pvt_data;

/* A service's extra transfer settings: its transport security and limits.
 * The strings are owned copies (free with _url_downloader_clear_settings). */
typedef struct url_downloader_transfer_settings_t {
    url_downloader_transport_t transport;
    url_downloader_limits_t limits;
} url_downloader_transfer_settings_t;
/* Copies src into dst, strings included. */
void _url_downloader_copy_settings(url_downloader_transfer_settings_t* dst,
                                   const url_downloader_transfer_settings_t* src);
/* Frees the strings and zeroes the settings. */
void _url_downloader_clear_settings(url_downloader_transfer_settings_t* settings);

/* What the engine calls back into, all of it above the engine: the proxy of
 * a request's service (a copy that the engine frees, or NULL), the service's
 * extra settings (false when it has none; else a copy in *out, cleared by the
 * engine), the request's progress cell, the transfer
 * thread's body (given the engine), libcurl's body, header and debug
 * callbacks, and the close of a transfer's body file (false when its last
 * write failed; curl_mutex_lock held). Installed before the engine is
 * created; the engine never names the code behind them. */
typedef struct url_downloader_engine_hooks_t {
    char* (*proxySource)(url_downloader_h service);
    bool (*settingsSource)(url_downloader_h service, url_downloader_transfer_settings_t* out);
    ud_progress_t* (*progressCell)(url_downloader_api_h api);
    void* (*transferLoop)(void* engine);
    size_t (*bodyWriter)(void* data, size_t size, size_t nmemb, void* user_data);
    size_t (*headerReader)(char* line, size_t size, size_t nmemb, void* user_data);
    int (*tracer)(CURL* easy, curl_infotype type, char* data, size_t size, void* user_data);
    bool (*closeBody)(url_downloader_curl_pvt_data* record);
} url_downloader_engine_hooks_t;
void _url_downloader_install_engine_hooks(const url_downloader_engine_hooks_t* hooks);
/* The hooks installed, or NULL. */
const url_downloader_engine_hooks_t* _url_downloader_engine_hooks(void);

/* Engine singleton. All state is static; an object only marks that the engine exists. */
class UD_EXPORT UrlDownloader {
public:
    static UrlDownloader* CreateInstance();
    ~UrlDownloader();

    bool DownloaderInit();
    bool DownloaderExecuteRequest();
    bool DownloaderCleanupCurl();

    bool DownloaderCreateEasyHandle(url_downloader_api_t* api);
    bool DownloaderCancelRequest(url_downloader_api_t* api);
    bool DownloaderCleanupEasyHandle(url_downloader_api_t* api);
    void RemoveTransaction(url_downloader_curl_pvt_data* data) UD_REQUIRES(curl_mutex_lock);

    static bool DownloaderInstanceHandleMutex(url_downloader_mutex_operation_t operation, url_downloader_error* error);
    static bool DownloaderHandleMutex(url_downloader_mutex_operation_t operation, url_downloader_error* error);

    static UrlDownloader* instance;
    static int downloadPipe[2];
    static pthread_t CurlThread;
    static CURLM* multiHandle UD_GUARDED_BY(curl_mutex_lock);
    static GList*
        activeTransactions UD_GUARDED_BY(curl_mutex_lock); /* of url_downloader_curl_pvt_data*, newest first */

private:
    UrlDownloader() = default;
    UrlDownloader(const UrlDownloader&) = delete;
    UrlDownloader& operator=(const UrlDownloader&) = delete;
};

/* Tear-down helpers shared by the cancellation path and the transfer thread;
 * the caller holds curl_mutex_lock. Not exported. */

/* Takes one listed transfer out of the multi handle and releases it. When
 * libcurl refuses to let go of the easy handle, the record stays listed but is
 * detached from its request (apiHandle NULL, file closed, no path), so that
 * nobody finds it by request and libcurl can still call back into it safely;
 * it is released with the engine. */
void _url_downloader_teardown_transaction(UrlDownloader* engine, url_downloader_curl_pvt_data* data)
    UD_REQUIRES(curl_mutex_lock);

/* The transfer loop's wake-up descriptor (an eventfd, -1 when the engine is
 * down), which the loop watches in select() besides libcurl's sockets; waking
 * it makes a running cycle perform at once. Set up and closed with the engine.
 * _url_downloader_wake_transfer_loop owes a wake-up (after an addition or a
 * cancellation) and pays once a batch is owed; the processing thread pays the
 * rest with _url_downloader_pay_transfer_loop_wakeups before it waits. */
int _url_downloader_transfer_loop_wakeup_fd(void);
void _url_downloader_wake_transfer_loop(void);
void _url_downloader_pay_transfer_loop_wakeups(void);
void _url_downloader_clear_transfer_loop_wakeup(void);

/* Readable once the transfer thread has done its last work (it writes no
 * response after that), so that the processing thread can wait for its end
 * while it drains the processing pipe; -1 when the engine is down. */
int _url_downloader_transfer_loop_ended_fd(void);
void _url_downloader_mark_transfer_loop_ended(void);

/* Cleans the multi handle up and forgets it, under curl_mutex_lock, so that a
 * late set-up or cancellation finds no multi handle instead of a freed one. */
void _url_downloader_drop_multi_handle(void);

/* Releases every record still listed (easy handle, file, path copy, record).
 * Only once the transfer thread has ended. */
void _url_downloader_release_transactions(UrlDownloader* engine);

#endif
