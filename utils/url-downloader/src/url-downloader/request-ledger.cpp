/* The request ledger: the request list and every request and service record.
 *
 * It is the only writer of those records: other files ask it to add, check,
 * answer, hand over, sweep and forget, and no code of another file runs while
 * it holds list_write_lock (the locks and their order: url-downloader-locks.h).
 *
 * Ownership. A record is freed here and only here, once nothing refers to
 * it any more: its entry has left the list, no download or cancel message
 * naming it is still in the processing pipe, no transfer of it is in the
 * engine or reporting back, and no delivery of it is queued or running. Each
 * of these holds the record; the functions below take and drop the holds
 * where the hand-overs happen, so no record is freed while anything may still
 * use its address, and no address can come back for a new request while a
 * message still names the old one.
 *
 * A service record is freed when its registration entry leaves the list; its
 * memory is kept as a zeroed tombstone, and a new service gets it only once
 * a thousand later services have gone too: a stale service handle names no
 * later service meanwhile, and the tombstones stay bounded. */
#include "request-ledger.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <condition_variable>
#include <mutex>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define UD_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define UD_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define UD_POISON(p, n) ((void)(p), (void)(n))
#define UD_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

#include "url-downloader-internal.h"

namespace {

// Newest first, of url_downloader_request_entry_t*, and its length (the
// log reports it; counting would walk the list on every delivery).
GList* request_list UD_GUARDED_BY(list_write_lock) = NULL;
int request_count UD_GUARDED_BY(list_write_lock) = 0;

// What holds one request record (see the ownership rules above).
struct Held {
    GList* node;     // its entry in request_list; NULL once unlisted
    bool submitted;  // its download message is in the pipe
    int cancels;     // cancel messages naming it in the pipe
    bool transfer;   // in the engine, or its response is on the way
    guint delivery;  // the idle source queued for it, 0 when none
    bool delivering; // its client callback is running
};

GHashTable* requests UD_GUARDED_BY(list_write_lock) = NULL; // url_downloader_api_h -> Held*
GHashTable* services UD_GUARDED_BY(list_write_lock) = NULL; // url_downloader_h -> its registration entry's node
// Tombstones of deregistered services, oldest first.
GQueue retired_services UD_GUARDED_BY(list_write_lock) = G_QUEUE_INIT;
const guint kRetiredKept = 1024;

// The client callbacks running now, by service and thread.
struct Running {
    url_downloader_h service;
    pthread_t thread;
};
std::mutex delivery_lock;
std::condition_variable delivery_done;
GArray* running = NULL;

long number(const void* handle) { return (long)(intptr_t)handle; }

// Everything below "locked" expects list_write_lock to be held.

void make_indexes_locked() UD_REQUIRES(list_write_lock)
{
    if (requests == NULL)
        requests = g_hash_table_new_full(g_direct_hash, g_direct_equal, NULL, g_free);
    if (services == NULL)
        services = g_hash_table_new(g_direct_hash, g_direct_equal);
}

Held* held_locked(url_downloader_api_h api) UD_REQUIRES(list_write_lock)
{
    return requests != NULL ? (Held*)g_hash_table_lookup(requests, api) : NULL;
}

bool registered_locked(url_downloader_h service) UD_REQUIRES(list_write_lock)
{
    return services != NULL && g_hash_table_contains(services, service);
}

void unlink_node_locked(GList* node) UD_REQUIRES(list_write_lock)
{
    free(node->data);
    request_list = g_list_delete_link(request_list, node);
    --request_count;
}

void unlist_locked(Held* held) UD_REQUIRES(list_write_lock)
{
    if (held->node != NULL)
        unlink_node_locked(held->node);
    held->node = NULL;
}

// A request record with what only the ledger needs. Its destination is the
// absolute path that a relative one named when the download was asked for:
// the transfer and the shared cache use that, since the process's working
// folder may change meanwhile and means nothing to other processes; the
// callback still gets the client's own text.
struct RequestRecord {
    url_downloader_api_t api;       // first: the handle is its address
    char* asked;                    // the client's relative path, else NULL
    char* absolute;                 // what it named, else NULL
    url_downloader_reason_t reason; // why it ended (its text is libcurl's, added when read)
    ud_progress_t progress;         // written by its transfer
};

RequestRecord* record_of(url_downloader_api_h api) { return reinterpret_cast<RequestRecord*>(api); }

// A service record with what only the ledger needs.
struct ServiceRecord {
    url_downloader_service_t service;             // first: the handle is its address
    url_downloader_transfer_settings_t* settings; // extra transfer settings, NULL when none were made
};

ServiceRecord* record_of(url_downloader_h service) { return reinterpret_cast<ServiceRecord*>(service); }

// The path the client callback gets: the client's text while the request
// still names the file it asked for.
void* delivered_path(url_downloader_api_h api)
{
    const RequestRecord* record = record_of(api);
    if (record->asked != NULL && api->filePath != NULL && strcmp(api->filePath, record->absolute) == 0)
        return record->asked;
    return api->filePath;
}

void free_api(url_downloader_api_t* api)
{
    RequestRecord* record = record_of(api);
    g_free(record->asked);
    g_free(record->absolute);
    free(api->filePath);
    api->filePath = NULL;
    free(api->url);
    api->url = NULL;
    free(api);
}

// Frees the request when nothing holds it any more; true when it did.
bool release_locked(url_downloader_api_h api, Held* held) UD_REQUIRES(list_write_lock)
{
    if (held->node != NULL || held->submitted || held->cancels > 0 || held->transfer || held->delivery != 0 ||
        held->delivering)
        return false;
    g_hash_table_remove(requests, api);
    free_api(api);
    return true;
}

// Frees what a service record owns (its name, proxy configuration and settings).
void free_service_fields(url_downloader_h service)
{
    free(service->appName);
    service->appName = NULL;
    if (service->fwConfig != NULL) {
        free(service->fwConfig->proxy);
        free(service->fwConfig);
        service->fwConfig = NULL;
    }
    ServiceRecord* record = record_of(service);
    if (record->settings != NULL) {
        _url_downloader_clear_settings(record->settings);
        free(record->settings);
        record->settings = NULL;
    }
}

void retire_service_locked(url_downloader_h service) UD_REQUIRES(list_write_lock)
{
    free_service_fields(service);
    service->callback = NULL;
    g_queue_push_tail(&retired_services, service);
    UD_POISON(service, sizeof(ServiceRecord));
    // Past twice the number kept (many services went at once), the oldest go.
    if (retired_services.length > 2 * kRetiredKept) {
        void* oldest = g_queue_pop_head(&retired_services);
        UD_UNPOISON(oldest, sizeof(ServiceRecord));
        free(oldest);
    }
}

// Tears the request's transfer down when it is running; true when there was
// one. A transfer that has already finished is not found: its response is on
// the way and keeps holding the record.
bool cancel_transfer_locked(url_downloader_api_h api, Held* held) UD_REQUIRES(list_write_lock)
{
    if (!held->transfer)
        return false;
    UrlDownloader* engine = UrlDownloader::instance;
    if (engine != NULL && !engine->DownloaderCancelRequest(api))
        return false;
    held->transfer = false;
    return true;
}

bool is_running_elsewhere(url_downloader_h service)
{
    pthread_t self = pthread_self();
    for (guint i = 0; running != NULL && i < running->len; ++i) {
        const Running& r = g_array_index(running, Running, i);
        if (r.service == service && !pthread_equal(r.thread, self))
            return true;
    }
    return false;
}

} // namespace

UdLock list_write_lock = {PTHREAD_MUTEX_INITIALIZER, false, _url_downloader_list_mutex_operation};

bool _url_downloader_list_mutex_operation(url_downloader_mutex_operation_t operation, url_downloader_error* error)
{
    return _url_downloader_named_mutex_operation(&list_write_lock.mutex, &list_write_lock.initialised, __FUNCTION__,
                                                 "list_write_lock", operation, error);
}

bool _url_downloader_prepend_request_list(url_downloader_h service, url_downloader_api_h api,
                                          url_downloader_error* error)
{
    UD_BEGIN();
    url_downloader_request_entry_t* req_handle =
        (url_downloader_request_entry_t*)calloc(1, sizeof(url_downloader_request_entry_t));
    UD_ASSERT_ALLOC(req_handle);
    req_handle->service = service;
    req_handle->api = api;

    UdScopedLock lock(list_write_lock);
    if (!lock.Held()) {
        *error = lock.Error();
        free(req_handle);
        return false;
    }
    if (api != NULL && !registered_locked(service)) {
        *error = URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
        free(req_handle);
        return false;
    }
    make_indexes_locked();
    request_list = g_list_prepend(request_list, req_handle);
    ++request_count;
    if (api != NULL) {
        Held* held = g_new0(Held, 1);
        held->node = request_list;
        held->submitted = true; // its download message is sent next
        g_hash_table_insert(requests, api, held);
    } else {
        g_hash_table_insert(services, service, request_list);
    }
    UD_DEBUG("New api of %ld service and %ld api handle added to the request list", number(service), number(api));
    // A failed release leaves the entry listed and its record held, so the
    // caller keeps it: reporting success keeps the two in step.
    lock.Release();
    *error = URL_DOWNLOADER_ERROR_NONE;
    return true;
}

bool _url_downloader_validate_sercvice_handle(url_downloader_h service)
{
    UD_BEGIN();
    UdScopedLock lock(list_write_lock);
    if (lock.Held()) {
        const bool found = registered_locked(service);
        if (found)
            UD_DEBUG("Valid service %ld", number(service));
        if (lock.Release()) {
            UD_END();
            return found;
        }
    }
    UD_ERROR("Mutex Lock/Unlocking Error, code=[%d]\n", (int)lock.Error());
    return false;
}

bool _url_downloader_validate_api_handle(url_downloader_api_h api)
{
    UD_BEGIN();
    if (api == NULL) {
        UD_ERROR("NULL api-handle");
        return false;
    }
    UdScopedLock lock(list_write_lock);
    if (lock.Held()) {
        const Held* held = held_locked(api);
        const bool found = held != NULL && held->node != NULL;
        if (found)
            UD_DEBUG("Valid api handle %ld", number(api));
        if (lock.Release()) {
            UD_END();
            return found;
        }
    }
    UD_ERROR("Mutex Lock/Unlocking Error, code=[%d]\n", (int)lock.Error());
    return false;
}

namespace {
// The oldest tombstone, zeroed, while more than kRetiredKept are kept; else
// NULL. Handing them out ourselves (rather than freeing them) makes sure an
// address comes back only that much later.
url_downloader_service_t* reuse_tombstone()
{
    UdScopedLock lock(list_write_lock);
    if (!lock.Held() || retired_services.length <= kRetiredKept)
        return NULL;
    ServiceRecord* record = (ServiceRecord*)g_queue_pop_head(&retired_services);
    UD_UNPOISON(record, sizeof *record);
    memset(record, 0, sizeof *record);
    return &record->service;
}
} // namespace

url_downloader_h _url_downloader_new_service(const char* appName, url_downloader_callback_t callback, const char* proxy)
{
    url_downloader_service_t* temp_service = reuse_tombstone();
    if (temp_service == NULL) {
        ServiceRecord* record = (ServiceRecord*)calloc(1, sizeof(ServiceRecord));
        temp_service = record != NULL ? &record->service : NULL;
    }
    UD_ASSERT_ALLOC(temp_service);
    if (appName != NULL)
        temp_service->appName = strdup(appName);
    temp_service->callback = callback;
    if (proxy != NULL) {
        temp_service->fwConfig = (url_downloader_config_t*)calloc(1, sizeof(url_downloader_config_t));
        UD_ASSERT_ALLOC(temp_service->fwConfig);
        temp_service->fwConfig->proxy = strdup(proxy);
    }
    return temp_service;
}

void _url_downloader_discard_service(url_downloader_h service)
{
    if (service == NULL)
        return;
    free_service_fields(service);
    free(service);
}

url_downloader_api_h _url_downloader_new_request(url_downloader_h service, const char* filePath, const char* url,
                                                 bool useCache, const void* userData)
{
    RequestRecord* record = (RequestRecord*)calloc(1, sizeof(RequestRecord));
    UD_ASSERT_ALLOC(record);
    url_downloader_api_t* api = &record->api;
    api->service = service;
    ud_progress_init(&record->progress);
    if (!g_path_is_absolute(filePath)) {
        gchar* here = g_get_current_dir();
        record->asked = g_strdup(filePath);
        record->absolute = g_build_filename(here, filePath, NULL);
        g_free(here);
        filePath = record->absolute;
    }
    api->filePath = strdup(filePath);
    api->url = strdup(url);
    api->useCache = useCache;
    api->userData = userData;
    return api;
}

void _url_downloader_discard_request(url_downloader_api_h api)
{
    if (api != NULL)
        free_api(api);
}

bool _url_downloader_replace_proxy(url_downloader_h service, const char* proxy)
{
    char* copy = strdup(proxy);
    UD_ASSERT_ALLOC(copy);
    UdScopedLock lock(list_write_lock);
    if (!lock.Held() || !registered_locked(service)) {
        free(copy);
        return false;
    }
    if (service->fwConfig == NULL) {
        service->fwConfig = (url_downloader_config_t*)calloc(1, sizeof(url_downloader_config_t));
        UD_ASSERT_ALLOC(service->fwConfig);
    }
    free(service->fwConfig->proxy);
    service->fwConfig->proxy = copy;
    return lock.Release();
}

bool _url_downloader_silence_service(url_downloader_h service)
{
    UdScopedLock lock(list_write_lock);
    if (!lock.Held() || !registered_locked(service))
        return false;
    service->callback = NULL; // delivery reads it under this lock
    return lock.Release();
}

bool _url_downloader_copy_service_name(url_downloader_h service, char** appName)
{
    *appName = NULL;
    UdScopedLock lock(list_write_lock);
    if (!lock.Held() || !registered_locked(service))
        return false;
    if (service->appName != NULL) {
        *appName = strdup(service->appName);
        UD_ASSERT_ALLOC(*appName);
    }
    return lock.Release();
}

char* _url_downloader_copy_service_proxy(url_downloader_h service)
{
    UdScopedLock lock(list_write_lock);
    if (!lock.Held() || !registered_locked(service) || service->fwConfig == NULL || service->fwConfig->proxy == NULL)
        return NULL;
    char* proxy = strdup(service->fwConfig->proxy);
    UD_ASSERT_ALLOC(proxy);
    return proxy;
}

void _url_downloader_withdraw_request(url_downloader_api_h api)
{
    UdScopedLock lock(list_write_lock);
    Held* held = lock.Held() ? held_locked(api) : NULL;
    if (held == NULL)
        return;
    unlist_locked(held);
    held->submitted = false;
    release_locked(api, held);
}

bool _url_downloader_pin_for_cancel(url_downloader_api_h api)
{
    UdScopedLock lock(list_write_lock);
    if (!lock.Held() || !_url_downloader_validate_api_handle(api))
        return false;
    held_locked(api)->cancels++;
    return true;
}

void _url_downloader_unpin_cancel(url_downloader_api_h api)
{
    UdScopedLock lock(list_write_lock);
    Held* held = lock.Held() ? held_locked(api) : NULL;
    if (held == NULL || held->cancels == 0)
        return;
    held->cancels--;
    release_locked(api, held);
}

void _url_downloader_wait_for_deliveries(url_downloader_h service)
{
    std::unique_lock<std::mutex> guard(delivery_lock);
    delivery_done.wait(guard, [service] { return !is_running_elsewhere(service); });
}

namespace {
// A message naming the request is being handled: drops the hold that it
// stood for. True when the request is still listed (the caller works on it);
// else the request is freed once nothing else holds it.
bool drop_hold(url_downloader_api_h api, bool Held::*hold)
{
    UdScopedLock lock(list_write_lock);
    Held* held = lock.Held() ? held_locked(api) : NULL;
    if (held == NULL)
        return false;
    held->*hold = false;
    if (_url_downloader_validate_api_handle(api))
        return true;
    release_locked(api, held); // swept while the message was on its way
    return false;
}
} // namespace

bool _url_downloader_claim_submitted(url_downloader_api_h api) { return drop_hold(api, &Held::submitted); }

bool _url_downloader_start_transfer(url_downloader_api_h api)
{
    UrlDownloader* engine = UrlDownloader::instance;
    // Without the list lock: setting up a transfer takes time, and only this
    // thread sweeps, so the request cannot go meanwhile.
    bool added = engine != NULL && engine->DownloaderCreateEasyHandle(api);
    // A transfer can be in the engine although set-up reported a failure
    // (a lock that would not be released): it reports back all the same.
    if (!added && api->transferActive == 0)
        return false;
    UdScopedLock lock(list_write_lock);
    Held* held = lock.Held() ? held_locked(api) : NULL;
    if (held != NULL)
        held->transfer = true;
    return added;
}

bool _url_downloader_claim_response(url_downloader_api_h api) { return drop_hold(api, &Held::transfer); }

bool _url_downloader_cancel_running(url_downloader_api_h api)
{
    UdScopedLock lock(list_write_lock);
    Held* held = lock.Held() && api != NULL ? held_locked(api) : NULL;
    if (held == NULL)
        return false;
    if (held->cancels > 0)
        held->cancels--;
    if (held->node != NULL && cancel_transfer_locked(api, held))
        return true;
    release_locked(api, held);
    return false;
}

void _url_downloader_execute_cancel_all_request(url_downloader_message_t* message, bool withRegistration,
                                                bool allServices, url_downloader_error* error)
{
    UD_BEGIN();
    if (message == NULL || error == NULL) {
        UD_ERROR("Invalid input param");
        return;
    }
    *error = URL_DOWNLOADER_ERROR_NONE;
    url_downloader_h service = message->service;
    UdScopedLock lock(list_write_lock);
    if (!lock.Held()) {
        *error = lock.Error();
        return;
    }
    GList* node = request_list;
    while (node != NULL) {
        GList* next = node->next;
        url_downloader_request_entry_t* entry = (url_downloader_request_entry_t*)node->data;
        if ((!allServices && entry->service != service) || (entry->api == NULL && !withRegistration)) {
            node = next;
            continue;
        }
        if (entry->api == NULL) {
            url_downloader_h gone = entry->service;
            UD_DEBUG("Service registration entry for %s app removed from list", ud_printable(gone->appName));
            g_hash_table_remove(services, gone);
            unlink_node_locked(node);
            retire_service_locked(gone);
        } else {
            url_downloader_api_h api = entry->api;
            Held* held = held_locked(api);
            if (held == NULL) { // cannot happen: every request entry is held
                unlink_node_locked(node);
            } else {
                unlist_locked(held);
                cancel_transfer_locked(api, held);
                const long handle = number(api);
                if (release_locked(api, held))
                    UD_DEBUG("Freeing api-handle %ld", handle);
            }
        }
        node = next;
    }
    UD_DEBUG("List count is %d", request_count);
    if (!lock.Release()) {
        *error = lock.Error();
        return;
    }
    UD_END();
}

void _url_downloader_set_outcome(url_downloader_api_h api, url_downloader_error outcome, const char* servedPath,
                                 const url_downloader_reason_t* reason)
{
    UdScopedLock lock(list_write_lock);
    api->error = outcome;
    if (reason != NULL)
        record_of(api)->reason = *reason;
    if (outcome != URL_DOWNLOADER_ERROR_NONE) {
        free(api->filePath);
        api->filePath = NULL;
    } else if (servedPath != NULL && (api->filePath == NULL || strcmp(api->filePath, servedPath) != 0)) {
        char* copy = strdup(servedPath);
        UD_ASSERT_ALLOC(copy);
        free(api->filePath);
        api->filePath = copy;
    }
}

void _url_downloader_queue_delivery(url_downloader_api_h api, GSourceFunc deliver)
{
    // Queued and recorded in one locked section: the delivery takes the lock
    // first, so it always finds itself recorded, and the lock publishes the
    // request's outcome to the main-loop thread.
    UdScopedLock lock(list_write_lock);
    if (api != NULL)
        api->transferActive = 0;
    guint id = g_idle_add(deliver, api);
    Held* held = lock.Held() && api != NULL ? held_locked(api) : NULL;
    if (held != NULL)
        held->delivery = id;
}

url_downloader_delivery_start_t _url_downloader_begin_delivery(url_downloader_api_h api, url_downloader_delivery_t* out)
{
    UdScopedLock lock(list_write_lock);
    if (!lock.Held())
        return URL_DOWNLOADER_DELIVERY_GONE;
    // Only the source that was queued for this record may deliver it: a
    // source left over from before a finalization may meet a new record at
    // the same address.
    GSource* current = g_main_current_source();
    guint id = current != NULL ? g_source_get_id(current) : 0;
    Held* held = held_locked(api);
    if (held == NULL || held->delivery == 0 || (id != 0 && held->delivery != id))
        return URL_DOWNLOADER_DELIVERY_GONE;
    held->delivery = 0;
    if (!_url_downloader_validate_api_handle(api)) { // swept while it waited: no callback
        release_locked(api, held);
        return URL_DOWNLOADER_DELIVERY_GONE;
    }
    url_downloader_callback_t callback = api->service != NULL ? api->service->callback : NULL;
    if (callback == NULL) {
        unlist_locked(held);
        release_locked(api, held);
        return URL_DOWNLOADER_DELIVERY_SILENT;
    }
    held->delivering = true;
    *out = {callback, api->service, delivered_path(api), (void*)api->userData, api->error};
    std::lock_guard<std::mutex> guard(delivery_lock);
    if (running == NULL)
        running = g_array_new(FALSE, FALSE, sizeof(Running));
    Running self = {api->service, pthread_self()};
    g_array_append_val(running, self);
    return URL_DOWNLOADER_DELIVERY_CALL;
}

int _url_downloader_end_delivery(url_downloader_api_h api, url_downloader_h service)
{
    int left = -1;
    {
        UdScopedLock lock(list_write_lock);
        Held* held = lock.Held() ? held_locked(api) : NULL;
        if (held != NULL) {
            if (held->node != NULL) {
                unlist_locked(held);
                left = request_count;
            }
            held->delivering = false;
            release_locked(api, held);
        }
    }
    std::lock_guard<std::mutex> guard(delivery_lock);
    pthread_t self = pthread_self();
    for (guint i = running->len; i-- > 0;) {
        const Running& r = g_array_index(running, Running, i);
        if (r.service == service && pthread_equal(r.thread, self)) {
            g_array_remove_index_fast(running, i);
            break;
        }
    }
    delivery_done.notify_all();
    return left;
}

void _url_downloader_forget_all(void)
{
    UdScopedLock lock(list_write_lock);
    if (requests != NULL) {
        GHashTableIter it;
        gpointer key, value;
        g_hash_table_iter_init(&it, requests);
        while (g_hash_table_iter_next(&it, &key, &value)) {
            Held* held = (Held*)value;
            if (held->delivery != 0) {
                GSource* source = g_main_context_find_source_by_id(NULL, held->delivery);
                if (source != NULL)
                    g_source_destroy(source);
            }
            held->node = NULL;
            held->submitted = false;
            held->cancels = 0;
            held->transfer = false;
            held->delivery = 0;
            if (!held->delivering) { // a running callback's delivery frees its own
                free_api((url_downloader_api_t*)key);
                g_hash_table_iter_remove(&it);
            }
        }
    }
    for (GList* node = request_list; node != NULL; node = node->next) {
        url_downloader_request_entry_t* entry = (url_downloader_request_entry_t*)node->data;
        if (entry->api == NULL)
            retire_service_locked(entry->service);
        free(entry);
    }
    g_list_free(request_list);
    request_list = NULL;
    request_count = 0;
    if (services != NULL)
        g_hash_table_remove_all(services);
}

bool _url_downloader_store_settings(url_downloader_h service, const url_downloader_transport_t* transport,
                                    const url_downloader_limits_t* limits)
{
    // Copied before the lock, swapped in under it, the old copy freed after.
    url_downloader_transfer_settings_t* fresh = g_new0(url_downloader_transfer_settings_t, 1);
    url_downloader_transfer_settings_t* old = NULL;
    {
        UdScopedLock lock(list_write_lock);
        if (!lock.Held() || !registered_locked(service)) {
            g_free(fresh);
            return false;
        }
        old = record_of(service)->settings;
        url_downloader_transfer_settings_t merged = {};
        if (old != NULL)
            merged = *old;
        if (transport != NULL)
            merged.transport = *transport;
        if (limits != NULL)
            merged.limits = *limits;
        _url_downloader_copy_settings(fresh, &merged);
        record_of(service)->settings = fresh;
    }
    if (old != NULL) {
        _url_downloader_clear_settings(old);
        free(old);
    }
    return true;
}

bool _url_downloader_copy_service_settings(url_downloader_h service, url_downloader_transfer_settings_t* out)
{
    UdScopedLock lock(list_write_lock);
    if (!lock.Held() || !registered_locked(service) || record_of(service)->settings == NULL)
        return false;
    _url_downloader_copy_settings(out, record_of(service)->settings);
    return true;
}

ud_progress_t* _url_downloader_progress_cell(url_downloader_api_h api) { return &record_of(api)->progress; }

namespace {
// The service's request, when both are alive: listed, or (in_callback) with
// its callback running, which holds the record even if a sweep unlisted it
// meanwhile. Else the code to refuse with: 1 for the service, 15 for the request.
url_downloader_error own_request_locked(url_downloader_h service, url_downloader_api_h api, bool in_callback)
    UD_REQUIRES(list_write_lock)
{
    if (!registered_locked(service))
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    const Held* held = api != NULL ? held_locked(api) : NULL;
    if (held == NULL || api->service != service || !(in_callback ? held->delivering : held->node != NULL))
        return URL_DOWNLOADER_ERROR_INVALID_API_HANDLE;
    return URL_DOWNLOADER_ERROR_NONE;
}
} // namespace

url_downloader_error _url_downloader_read_reason(url_downloader_h service, url_downloader_api_h api,
                                                 url_downloader_reason_t* reason)
{
    UdScopedLock lock(list_write_lock);
    url_downloader_error error = lock.Held() ? own_request_locked(service, api, true) : lock.Error();
    if (error == URL_DOWNLOADER_ERROR_NONE)
        *reason = record_of(api)->reason;
    return error;
}

url_downloader_error _url_downloader_read_progress(url_downloader_h service, url_downloader_api_h api,
                                                   url_downloader_progress_t* progress)
{
    UdScopedLock lock(list_write_lock);
    url_downloader_error error = lock.Held() ? own_request_locked(service, api, false) : lock.Error();
    if (error == URL_DOWNLOADER_ERROR_NONE)
        ud_progress_read(&record_of(api)->progress, &progress->received, &progress->expected);
    return error;
}
