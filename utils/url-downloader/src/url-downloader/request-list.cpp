#include <stdint.h>
#include <stdlib.h>

#include "url-downloader-private.h"

GList* url_downloader_request_list = NULL;

namespace {
// Requests whose download message has not been handled yet; guarded by
// list_write_lock. Entered in the same locked section that lists them, so
// that no sweep can see a request listed but not yet owned by its message.
GHashTable* submitted_requests = NULL;
} // namespace

bool _url_downloader_prepend_request_list(url_downloader_h service, url_downloader_api_h api, url_downloader_error* error)
{
    UD_BEGIN();
    url_downloader_request_entry_t* req_handle =
        (url_downloader_request_entry_t*)calloc(1, sizeof(url_downloader_request_entry_t));
    UD_ASSERT_ALLOC(req_handle);
    req_handle->service = service;
    req_handle->api = api;

    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, error)) {
        free(req_handle);
        return false;
    }
    url_downloader_request_list = g_list_prepend(url_downloader_request_list, req_handle);
    if (api != NULL) {
        if (submitted_requests == NULL)
            submitted_requests = g_hash_table_new(g_direct_hash, g_direct_equal);
        g_hash_table_add(submitted_requests, api);
    }
    UD_DEBUG("New api of %ld service and %ld api handle added to the request list", (long)(intptr_t)service,
             (long)(intptr_t)api);

    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, error)) {
        // The caller frees its record on failure, so the entry must not stay
        // behind. The lock is still ours, since releasing it failed.
        url_downloader_request_list = g_list_remove(url_downloader_request_list, req_handle);
        if (api != NULL)
            g_hash_table_remove(submitted_requests, api);
        free(req_handle);
        url_downloader_error ignored;
        _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &ignored);
        return false;
    }
    return true;
}

namespace {
// Walks the list under list_write_lock for the first entry matching the
// predicate. Compares addresses only, so a dead handle is never dereferenced.
template <typename Match>
bool find_listed(const char* func, Match match, bool* found)
{
    url_downloader_error error;
    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &error)) {
        UD_ERROR_AS(func, "Mutex Lock/Unlocking Error, code=[%d]\n", (int)error);
        return false;
    }
    *found = false;
    for (GList* node = url_downloader_request_list; node != NULL; node = node->next) {
        if (match((const url_downloader_request_entry_t*)node->data)) {
            *found = true;
            break;
        }
    }
    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error)) {
        UD_ERROR_AS(func, "Mutex Lock/Unlocking Error, code=[%d]\n", (int)error);
        return false;
    }
    return true;
}
} // namespace

bool _url_downloader_validate_sercvice_handle(url_downloader_h service)
{
    UD_BEGIN();
    bool found = false;
    if (!find_listed(__FUNCTION__, [service](const url_downloader_request_entry_t* e) { return e->service == service; }, &found))
        return false;
    if (found)
        UD_DEBUG("Valid service %ld", (long)(intptr_t)service);
    UD_END();
    return found;
}

bool _url_downloader_validate_api_handle(url_downloader_api_h api)
{
    UD_BEGIN();
    if (api == NULL) {
        UD_ERROR("NULL api-handle");
        return false;
    }
    bool found = false;
    if (!find_listed(__FUNCTION__, [api](const url_downloader_request_entry_t* e) { return e->api == api; }, &found))
        return false;
    if (found)
        UD_DEBUG("Valid api handle %ld", (long)(intptr_t)api);
    UD_END();
    return found;
}

namespace {
// Takes the request's entry out of the list; caller holds list_write_lock.
bool unlist_locked(url_downloader_api_h api)
{
    for (GList* node = url_downloader_request_list; node != NULL; node = node->next) {
        if (((url_downloader_request_entry_t*)node->data)->api == api) {
            free(node->data);
            url_downloader_request_list = g_list_delete_link(url_downloader_request_list, node);
            return true;
        }
    }
    return false;
}
} // namespace

bool _url_downloader_claim_submitted(url_downloader_api_h api, bool* listed)
{
    *listed = false;
    url_downloader_error error;
    if (api == NULL || !_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &error))
        return false;
    bool owned = submitted_requests != NULL && g_hash_table_remove(submitted_requests, api);
    for (GList* node = url_downloader_request_list; node != NULL && !*listed; node = node->next)
        *listed = ((url_downloader_request_entry_t*)node->data)->api == api;
    _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error);
    return owned;
}

void _url_downloader_withdraw_request(url_downloader_api_h api)
{
    url_downloader_error error;
    if (api == NULL || !_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &error))
        return;
    if (submitted_requests != NULL)
        g_hash_table_remove(submitted_requests, api);
    unlist_locked(api);
    _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error);
}

bool _url_downloader_owned_by_queue(url_downloader_api_h api)
{
    return (submitted_requests != NULL && g_hash_table_contains(submitted_requests, api)) ||
           _url_downloader_delivery_pending(api);
}

void _url_downloader_forget_queued_requests(void)
{
    _url_downloader_drop_pending_deliveries();
    url_downloader_error error;
    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, &error))
        return;
    if (submitted_requests != NULL)
        g_hash_table_destroy(submitted_requests);
    submitted_requests = NULL;
    _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error);
}

void _url_downloader_free_api(url_downloader_api_t* api)
{
    if (api == NULL)
        return;
    free(api->filePath);
    api->filePath = NULL;
    free(api->url);
    api->url = NULL;
    free(api);
}

void _url_downloader_free_service(url_downloader_service_t* service)
{
    if (service == NULL)
        return;
    free(service->appName);
    service->appName = NULL;
    if (service->fwConfig != NULL) {
        free(service->fwConfig->proxy);
        service->fwConfig->proxy = NULL;
        free(service->fwConfig);
        service->fwConfig = NULL;
    }
    free(service);
}
