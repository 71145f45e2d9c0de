/* The transfer engine: one libcurl multi handle driven by one transfer thread. */
#ifndef URL_DOWNLOADER_INTERNAL_H
#define URL_DOWNLOADER_INTERNAL_H

#include <pthread.h>
#include <stdio.h>

#include <curl/curl.h>
#include <glib.h>

#include "url-downloader-private.h"

/* Values of the 4-byte messages of the download pipe. */
#define URL_DOWNLOADER_CURL_MSG_CLEANUP 0
#define URL_DOWNLOADER_CURL_MSG_WAKEUP 1

/* Per-transfer record: libcurl's write data, header data and private pointer. */
typedef struct url_downloader_curl_pvt_data {
    char* filePath;               /* engine's copy of the destination path, or NULL */
    FILE* fileHandle;             /* destination, opened on the first body write */
    long expiryTime;              /* 0 none seen, -1 unparsable Expires date */
    long fileSize;                /* body bytes written so far */
    url_downloader_api_h apiHandle; /* the request served; not owned */
    CURL* easyHandle;             /* owned */
} url_downloader_curl_pvt_data;

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
    void RemoveTransaction(url_downloader_curl_pvt_data* data);

    static bool DownloaderInstanceHandleMutex(url_downloader_mutex_operation_t operation, url_downloader_error* error);
    bool DownloaderHandleMutex(url_downloader_mutex_operation_t operation, url_downloader_error* error);

    static UrlDownloader* instance;
    static int downloadPipe[2];
    static pthread_t CurlThread;
    static CURLM* multiHandle;
    static GList* activeTransactions; /* of url_downloader_curl_pvt_data*, newest first */

private:
    UrlDownloader() = default;
    UrlDownloader(const UrlDownloader&) = delete;
    UrlDownloader& operator=(const UrlDownloader&) = delete;
};

#endif
