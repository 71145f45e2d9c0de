#include <stdint.h>
#include <stdlib.h>

#include "url-downloader-private.h"

namespace {
// Requests handed over for delivery whose idle source has not run yet, with
// that source's id. Guarded by list_write_lock. A request in here belongs to
// its delivery: a sweep only unlists it, and the delivery frees it. So its
// address cannot be reused by a new request before the stale idle source has
// run, and the delivery acts only on requests it owns.
GHashTable* pending_deliveries = NULL;
} // namespace

bool _url_downloader_delivery_pending(url_downloader_api_h api)
{
    return pending_deliveries != NULL && g_hash_table_contains(pending_deliveries, api);
}

void _url_downloader_drop_pending_deliveries(void)
{
    url_downloader_error error;
    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &error))
        return;
    if (pending_deliveries != NULL) {
        GHashTableIter it;
        gpointer api, id;
        g_hash_table_iter_init(&it, pending_deliveries);
        while (g_hash_table_iter_next(&it, &api, &id)) {
            GSource* source = g_main_context_find_source_by_id(NULL, GPOINTER_TO_UINT(id));
            if (source != NULL)
                g_source_destroy(source);
            _url_downloader_free_api((url_downloader_api_t*)api);
        }
        g_hash_table_destroy(pending_deliveries);
        pending_deliveries = NULL;
    }
    _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error);
}

bool _url_downloader_resp_callback(url_downloader_api_h api)
{
    UD_BEGIN();
    // The idle source is queued and recorded under list_write_lock: its run
    // takes the lock first, so it always finds itself recorded, and the lock
    // publishes the request's outcome to the main-loop thread.
    url_downloader_error error;
    bool locked = _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &error);
    guint id = g_idle_add(_url_downloader_idle_callback, api);
    if (locked) {
        if (api != NULL) {
            api->transferActive = 0;
            if (pending_deliveries == NULL)
                pending_deliveries = g_hash_table_new(g_direct_hash, g_direct_equal);
            g_hash_table_insert(pending_deliveries, api, GUINT_TO_POINTER(id));
        }
        _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error);
    }
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

    // Everything is decided and read under the lock, and the entry leaves the
    // list before the callback runs: the callback may deregister and wait for
    // the processing thread, which needs the lock, and no sweep can free what
    // is being read.
    url_downloader_error error;
    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &error))
        return FALSE;
    bool owned = pending_deliveries != NULL && g_hash_table_remove(pending_deliveries, api);
    GList* node = NULL;
    if (owned) {
        node = url_downloader_request_list;
        while (node != NULL && ((url_downloader_request_entry_t*)node->data)->api != api)
            node = node->next;
    }
    if (node == NULL) {
        _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error);
        UD_ERROR("Entry not found in the global list, so returning");
        // Swept while it waited: no callback, but the record is ours to free.
        if (owned)
            _url_downloader_free_api(api);
        return FALSE;
    }
    UD_DEBUG("Valid api handle");
    url_downloader_request_entry_t* entry = (url_downloader_request_entry_t*)node->data;
    url_downloader_callback_t callback = api->service != NULL ? api->service->callback : NULL;
    void* path = api->filePath;
    void* user_data = (void*)api->userData;
    int outcome = api->error;
    url_downloader_request_list = g_list_delete_link(url_downloader_request_list, node);
    free(entry);
    UD_DEBUG("Request removed from the list for api-handle %ld, remaining list count is %d", (long)(intptr_t)api,
             (int)g_list_length(url_downloader_request_list));
    bool unlocked = _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error);

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
