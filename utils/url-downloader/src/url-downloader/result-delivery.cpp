#include <stdint.h>
#include <stdlib.h>

#include "url-downloader-private.h"

bool _url_downloader_resp_callback(url_downloader_api_h api)
{
    UD_BEGIN();
    // From here on the request's fate is its delivery: a sweep that runs
    // before the idle callback must free the record itself rather than leave
    // it to a transfer response that will never come. Taking the list lock
    // also publishes the outcome fields to the main-loop thread.
    url_downloader_error error;
    if (_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &error)) {
        if (api != NULL)
            api->transferActive = 0;
        _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error);
    }
    g_idle_add(_url_downloader_idle_callback, api);
    UD_END();
    return true;
}

gboolean _url_downloader_idle_callback(void* data)
{
    UD_BEGIN();
    if (data == NULL) {
        UD_ERROR("Invalid input param");
        return FALSE;
    }
    url_downloader_api_t* api = (url_downloader_api_t*)data;
    if (!_url_downloader_validate_api_handle(api)) {
        UD_ERROR("Entry not found in the global list, so returning");
        return FALSE;
    }

    // Take the request out of the list and read everything the callback needs
    // under the lock: once the entry is gone no sweep can free the request,
    // and while it was listed its service was alive. The callback itself runs
    // without the lock, since it may deregister and wait for the processing
    // thread, which needs the lock.
    url_downloader_error error;
    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &error))
        return FALSE;
    GList* node = url_downloader_request_list;
    while (node != NULL && ((url_downloader_request_entry_t*)node->data)->api != api)
        node = node->next;
    url_downloader_callback_t callback = NULL;
    void* path = NULL;
    void* user_data = NULL;
    int outcome = 0;
    if (node != NULL) {
        UD_DEBUG("Valid api handle");
        url_downloader_request_entry_t* entry = (url_downloader_request_entry_t*)node->data;
        if (api->service != NULL)
            callback = api->service->callback;
        path = api->filePath;
        user_data = (void*)api->userData;
        outcome = api->error;
        url_downloader_request_list = g_list_delete_link(url_downloader_request_list, node);
        UD_DEBUG("Request removed from the list for api-handle %ld, remaining list count is %d", (long)(intptr_t)api,
                 (int)g_list_length(url_downloader_request_list));
        free(entry);
    }
    bool unlocked = _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error);
    if (node == NULL)
        return FALSE; // a sweep took it between the check and the lock, and owns it now

    if (callback != NULL) {
        UD_DEBUG("Calling client callback for api-handle = %ld", (long)(intptr_t)api);
        callback(api, path, user_data, outcome);
    }
    _url_downloader_free_api(api);
    if (!unlocked)
        return FALSE;
    UD_END();
    return FALSE;
}
