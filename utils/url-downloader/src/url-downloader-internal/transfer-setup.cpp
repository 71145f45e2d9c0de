/* Setting up, cancelling and tearing down one transfer. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "transfer-settings.h"
#include "url-downloader-internal.h"

namespace {
const char* const kUserAgent = "Korvane User Agent";

// Entries of activeTransactions. Each record keeps its own node and the count
// is kept here, so that listing, unlisting and counting cost the same with
// ten thousand transfers queued as with one (under curl_mutex_lock).
unsigned active_count UD_GUARDED_BY(curl_mutex_lock) = 0;

void list_transaction(url_downloader_curl_pvt_data* data) UD_REQUIRES(curl_mutex_lock)
{
    UrlDownloader::activeTransactions = g_list_prepend(UrlDownloader::activeTransactions, data);
    data->activeLink = UrlDownloader::activeTransactions;
    ++active_count;
}

void unlist_transaction(url_downloader_curl_pvt_data* data) UD_REQUIRES(curl_mutex_lock)
{
    if (data->activeLink == NULL)
        return;
    UrlDownloader::activeTransactions = g_list_delete_link(UrlDownloader::activeTransactions, data->activeLink);
    data->activeLink = NULL;
    --active_count;
}

// Closes the file and frees the record with its path copy; the easy handle
// must already be gone or be released by the caller.
bool close_body(url_downloader_curl_pvt_data* data) UD_REQUIRES(curl_mutex_lock)
{
    const url_downloader_engine_hooks_t* hooks = _url_downloader_engine_hooks();
    return hooks == NULL || hooks->closeBody(data);
}

void free_record(url_downloader_curl_pvt_data* data) UD_REQUIRES(curl_mutex_lock)
{
    close_body(data); // a partly written file stays on disk
    free(data->filePath);
    data->filePath = NULL;
    free(data);
}

CURLM* current_multi_handle()
{
    UdScopedLock lock(curl_mutex_lock);
    return lock.Held() ? UrlDownloader::multiHandle : NULL;
}

} // namespace

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

    const url_downloader_engine_hooks_t* hooks = _url_downloader_engine_hooks();
    CURL* easy = curl_easy_init();
    if (hooks == NULL || current_multi_handle() == NULL || easy == NULL) {
        UD_ERROR("Curl initialization failed\n");
        if (easy != NULL)
            curl_easy_cleanup(easy);
        return false;
    }

    char* proxy = hooks->proxySource(api->service);
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
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, hooks->bodyWriter);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, user_data);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, hooks->headerReader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, user_data);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, user_data);
    curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(easy, CURLOPT_DEBUGFUNCTION, hooks->tracer);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, kUserAgent);

    // What a client asked for beyond that, after the options above: nothing
    // more is set for a client that asked for nothing.
    url_downloader_transfer_settings_t settings;
    if (hooks->settingsSource(api->service, &settings)) {
        _url_downloader_apply_settings(easy, &settings, user_data);
        _url_downloader_clear_settings(&settings); // libcurl keeps its own copies
    }
    user_data->progress = hooks->progressCell(api);

    UdScopedLock lock(curl_mutex_lock);
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
    UdScopedLock lock(curl_mutex_lock);
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
            UD_ERROR("\n\n *****curl_multi_remove_handle failed with error:: %s*****\n\n", curl_multi_strerror(rc));
            // libcurl may still call back with this record: keep it, but cut
            // it off from its request and its file. A body write now fails
            // for want of a path, which aborts the transfer.
            data->apiHandle = NULL;
            data->progress = NULL;
            close_body(data);
            free(data->filePath);
            data->filePath = NULL;
            return;
        }
        curl_easy_cleanup(data->easyHandle);
        data->easyHandle = NULL;
    }
    engine->RemoveTransaction(data);
}

void _url_downloader_release_transactions(UrlDownloader* engine)
{
    UdScopedLock lock(curl_mutex_lock);
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
