#include "url-downloader-internal.h"

UrlDownloader* UrlDownloader::instance = NULL;
int UrlDownloader::downloadPipe[2] = {-1, -1};
pthread_t UrlDownloader::CurlThread;
CURLM* UrlDownloader::multiHandle = NULL;
GList* UrlDownloader::activeTransactions = NULL;

namespace {
// Both locks come up lazily through the lock utility and are recursive: the
// transfer thread re-enters curl_mutex_lock when it tears a finished
// transfer down from inside its own locked section.
pthread_mutex_t downloader_instance_lock;
bool downloader_instance_lock_initialised;
pthread_mutex_t curl_mutex_lock;
bool curl_mutex_lock_initialised;
} // namespace

bool UrlDownloader::DownloaderInstanceHandleMutex(url_downloader_mutex_operation_t operation,
                                                  url_downloader_error* error)
{
    return _url_downloader_named_mutex_operation(&downloader_instance_lock, &downloader_instance_lock_initialised,
                                                 __FUNCTION__, "downloader_instance_lock", operation, error);
}

bool UrlDownloader::DownloaderHandleMutex(url_downloader_mutex_operation_t operation, url_downloader_error* error)
{
    return _url_downloader_named_mutex_operation(&curl_mutex_lock, &curl_mutex_lock_initialised, __FUNCTION__,
                                                 "curl_mutex_lock", operation, error);
}
