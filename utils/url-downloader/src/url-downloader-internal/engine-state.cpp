/* The engine's static state, its two locks and the hooks it calls back into. */
#include "url-downloader-internal.h"

UrlDownloader* UrlDownloader::instance = NULL;
int UrlDownloader::downloadPipe[2] = {-1, -1};
pthread_t UrlDownloader::CurlThread;
CURLM* UrlDownloader::multiHandle = NULL;
GList* UrlDownloader::activeTransactions = NULL;

// Both locks come up lazily through the lock utility and are recursive.
UdLock downloader_instance_lock = {PTHREAD_MUTEX_INITIALIZER, false, UrlDownloader::DownloaderInstanceHandleMutex};
UdLock curl_mutex_lock = {PTHREAD_MUTEX_INITIALIZER, false, UrlDownloader::DownloaderHandleMutex};

bool UrlDownloader::DownloaderInstanceHandleMutex(url_downloader_mutex_operation_t operation,
                                                  url_downloader_error* error)
{
    return _url_downloader_named_mutex_operation(&downloader_instance_lock.mutex, &downloader_instance_lock.initialised,
                                                 __FUNCTION__, "downloader_instance_lock", operation, error);
}

bool UrlDownloader::DownloaderHandleMutex(url_downloader_mutex_operation_t operation, url_downloader_error* error)
{
    return _url_downloader_named_mutex_operation(&curl_mutex_lock.mutex, &curl_mutex_lock.initialised, __FUNCTION__,
                                                 "curl_mutex_lock", operation, error);
}

namespace {
const url_downloader_engine_hooks_t* engine_hooks = NULL;
} // namespace

void _url_downloader_install_engine_hooks(const url_downloader_engine_hooks_t* hooks)
{
    __atomic_store_n(&engine_hooks, hooks, __ATOMIC_RELEASE);
}

const url_downloader_engine_hooks_t* _url_downloader_engine_hooks(void)
{
    return __atomic_load_n(&engine_hooks, __ATOMIC_ACQUIRE);
}
