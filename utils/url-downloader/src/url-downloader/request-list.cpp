#include <stdint.h>
#include <stdlib.h>

#include "url-downloader-private.h"

GList* url_downloader_request_list = NULL;

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
    UD_DEBUG("New api of %ld service and %ld api handle added to the request list", (long)(intptr_t)service,
             (long)(intptr_t)api);

    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, error)) {
        // The caller frees its record on failure, so the entry must not stay
        // behind. The lock is still ours, since releasing it failed.
        url_downloader_request_list = g_list_remove(url_downloader_request_list, req_handle);
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
