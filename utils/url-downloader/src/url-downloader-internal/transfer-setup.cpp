#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
const char* const kUserAgent = "Korvane User Agent";

url_downloader_proxy_source_t proxy_source = NULL;

// Entries of activeTransactions. Each record keeps its own node and the count
// is kept here, so that listing, unlisting and counting cost the same with
// ten thousand transfers queued as with one (under curl_mutex_lock).
unsigned active_count = 0;

void list_transaction(url_downloader_curl_pvt_data* data)
{
    UrlDownloader::activeTransactions = g_list_prepend(UrlDownloader::activeTransactions, data);
    data->activeLink = UrlDownloader::activeTransactions;
    ++active_count;
}

void unlist_transaction(url_downloader_curl_pvt_data* data)
{
    if (data->activeLink == NULL)
        return;
    UrlDownloader::activeTransactions = g_list_delete_link(UrlDownloader::activeTransactions, data->activeLink);
    data->activeLink = NULL;
    --active_count;
}

// Closes the file and frees the record with its path copy; the easy handle
// must already be gone or be released by the caller.
void free_record(url_downloader_curl_pvt_data* data)
{
    _url_downloader_close_file(data); // a partly written file stays on disk
    free(data->filePath);
    data->filePath = NULL;
    free(data);
}

CURLM* current_multi_handle()
{
    UdScopedLock lock(UrlDownloader::DownloaderHandleMutex);
    return lock.Held() ? UrlDownloader::multiHandle : NULL;
}

} // namespace

void _url_downloader_set_proxy_source(url_downloader_proxy_source_t source)
{
    __atomic_store_n(&proxy_source, source, __ATOMIC_RELEASE);
}

bool UrlDownloader::DownloaderCreateEasyHandle(url_downloader_api_t* api)
{
    UD_BEGIN();
    if (api == NULL) {
        UD_ERROR("NULL api handle");
        return false;
    }
    if (api->service == NULL) {
        UD_ERROR("NULL handle");
        return false;
    }

    CURL* easy = curl_easy_init();
    if (current_multi_handle() == NULL || easy == NULL) {
        UD_ERROR("Curl initialization failed\n");
        if (easy != NULL)
            curl_easy_cleanup(easy);
        return false;
    }

    url_downloader_proxy_source_t source = __atomic_load_n(&proxy_source, __ATOMIC_ACQUIRE);
    char* proxy = source != NULL ? source(api->service) : NULL;
    if (proxy != NULL) {
        UD_DEBUG("Using proxy [%s]\n", proxy);
        curl_easy_setopt(easy, CURLOPT_PROXY, proxy); // libcurl keeps its own copy
        free(proxy);
    }

    url_downloader_curl_pvt_data* user_data =
        (url_downloader_curl_pvt_data*)calloc(1, sizeof(url_downloader_curl_pvt_data));
    UD_ASSERT_ALLOC(user_data);
    user_data->filePath = api->filePath != NULL ? strdup(api->filePath) : NULL;
    user_data->apiHandle = api;
    user_data->easyHandle = easy;

    curl_easy_setopt(easy, CURLOPT_URL, api->url);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, url_downloader_body_parser);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, user_data);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, url_downloader_header_parser);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, user_data);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, user_data);
    curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(easy, CURLOPT_DEBUGFUNCTION, url_downloader_curl_trace);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, kUserAgent);

    UdScopedLock lock(DownloaderHandleMutex);
    if (!lock.Held()) {
        UD_ERROR("Locking mutex failed with error-code %d", (int)lock.Error());
        curl_easy_cleanup(easy);
        free_record(user_data);
        return false;
    }

    // The multi handle goes away when the transfer thread ends; check it again
    // now that nobody can change it.
    CURLMcode rc = multiHandle != NULL ? curl_multi_add_handle(multiHandle, easy) : CURLM_BAD_HANDLE;
    if (rc != CURLM_OK) {
        UD_ERROR("curl_multi_add_handle failed!");
        curl_easy_cleanup(easy);
        free_record(user_data);
        return false;
    }
    list_transaction(user_data);
    api->transferActive = 1;
    UD_DEBUG("Curl easy handle added for api-handle %ld\n\n", (long)(intptr_t)api);
    if (!lock.Release()) {
        UD_ERROR("Unlocking mutex failed with error-code %d", (int)lock.Error());
        return false;
    }
    return true;
}

bool UrlDownloader::DownloaderCancelRequest(url_downloader_api_t* api)
{
    UD_BEGIN();
    if (!DownloaderCleanupEasyHandle(api))
        return false;
    // A connection may have come free for a queued transfer.
    _url_downloader_wake_transfer_loop();
    return true;
}

bool UrlDownloader::DownloaderCleanupEasyHandle(url_downloader_api_t* api)
{
    UdScopedLock lock(DownloaderHandleMutex);
    if (!lock.Held())
        return false;
    UD_DEBUG("api-handle is %ld", (long)(intptr_t)api);

    // Newest first; detached records (apiHandle NULL) never match.
    url_downloader_curl_pvt_data* data = NULL;
    for (GList* l = activeTransactions; api != NULL && l != NULL; l = l->next) {
        url_downloader_curl_pvt_data* candidate = (url_downloader_curl_pvt_data*)l->data;
        if (candidate != NULL && candidate->apiHandle == api) {
            data = candidate;
            break;
        }
    }
    if (data == NULL)
        return false;
    UD_DEBUG("API handle found in active transaction list");
    _url_downloader_teardown_transaction(this, data);
    return lock.Release();
}

void UrlDownloader::RemoveTransaction(url_downloader_curl_pvt_data* data)
{
    if (data == NULL) {
        UD_ERROR("Invalid input param");
        return;
    }
    unlist_transaction(data);
    free_record(data);
    UD_DEBUG("Active transaction list count is %d", (int)active_count);
}

void _url_downloader_teardown_transaction(UrlDownloader* engine, url_downloader_curl_pvt_data* data)
{
    if (data->easyHandle != NULL) {
        // Without a multi handle (the transfer thread has ended and cleaned it
        // up) the easy handle is attached to nothing and can simply go.
        CURLMcode rc = UrlDownloader::multiHandle != NULL
                           ? curl_multi_remove_handle(UrlDownloader::multiHandle, data->easyHandle)
                           : CURLM_OK;
        if (rc != CURLM_OK) {
            UD_ERROR_AS("DownloaderCleanupEasyHandle",
                        "\n\n *****curl_multi_remove_handle failed with error:: %s*****\n\n",
                        curl_multi_strerror(rc));
            // libcurl may still call back with this record: keep it, but cut
            // it off from its request and its file. A body write now fails
            // for want of a path, which aborts the transfer.
            data->apiHandle = NULL;
            _url_downloader_close_file(data);
            free(data->filePath);
            data->filePath = NULL;
            return;
        }
        curl_easy_cleanup(data->easyHandle);
        data->easyHandle = NULL;
    }
    engine->RemoveTransaction(data);
}

void _url_downloader_finish_transfer(UrlDownloader* engine, CURL* easy, url_downloader_curl_pvt_data* data,
                                     CURLcode result)
{
    bool listed = data != NULL && data->activeLink != NULL;
    if (listed) {
        // A detached record's request was already released by a cancellation:
        // it gets no report.
        if (data->apiHandle != NULL)
            _url_downloader_response_cb(easy, data, result);
        _url_downloader_teardown_transaction(engine, data);
        return;
    }
    // No record of ours: still take the easy handle out of the multi handle,
    // or it would stay there for good.
    UD_ERROR_AS("url_downloader_download_loop", "Finished transfer has no active record");
    if (UrlDownloader::multiHandle == NULL || curl_multi_remove_handle(UrlDownloader::multiHandle, easy) == CURLM_OK)
        curl_easy_cleanup(easy);
}

void _url_downloader_release_transactions(UrlDownloader* engine)
{
    UdScopedLock lock(UrlDownloader::DownloaderHandleMutex);
    while (UrlDownloader::activeTransactions != NULL) {
        url_downloader_curl_pvt_data* data = (url_downloader_curl_pvt_data*)UrlDownloader::activeTransactions->data;
        unlist_transaction(data);
        if (data->easyHandle != NULL) {
            // curl_easy_cleanup detaches a handle from a multi handle that
            // still exists; once the multi handle is gone it is detached already.
            curl_easy_cleanup(data->easyHandle);
            data->easyHandle = NULL;
        }
        free_record(data);
    }
}
