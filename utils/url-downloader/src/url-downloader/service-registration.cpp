/* Registration, network configuration, cache clean, deregistration and finalization. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <mutex>

#include "library-lifecycle.h"
#include "request-ledger.h"
#include "url-cache-manager.h"
#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

volatile int url_downloader_state = URL_DOWNLOADER_STATE_NOT_STARTED;

namespace {
// Serialises registrations with each other and with finalization: racing
// first registrations must bring the library up once, and no registration may
// slip in while finalization takes the library down.
std::mutex lifecycle_lock;

// Whether the semaphores, locks, pipe and processing thread exist. The state
// word cannot tell: it says started only once the processing thread runs.
// Written under lifecycle_lock with public_call_gate held exclusively.
bool library_up = false;

pthread_t processing_thread;

// Shared by public calls while they use library state, exclusive while the
// library is brought up or taken down. Never destroyed.
pthread_rwlock_t public_call_gate = PTHREAD_RWLOCK_INITIALIZER;

// Holds the gate exclusively for its scope.
class GateClosed {
public:
    GateClosed() { pthread_rwlock_wrlock(&public_call_gate); }
    ~GateClosed() { pthread_rwlock_unlock(&public_call_gate); }
    GateClosed(const GateClosed&) = delete;
    GateClosed& operator=(const GateClosed&) = delete;
};

const char* const kDestroyingLine = "Service state is destroying(Finalized call is running)\n";

bool destroying() { return _url_downloader_load_state() == URL_DOWNLOADER_STATE_DESTROYING; }

bool _url_downloader_create_thread(url_downloader_error* error)
{
    UD_BEGIN();
    *error = URL_DOWNLOADER_ERROR_NONE;
    pthread_attr_t attr;
    bool created = false;
    if (pthread_attr_init(&attr) == 0) {
        created = pthread_create(&processing_thread, &attr, url_downloader_thread_loop, NULL) == 0;
        if (pthread_attr_destroy(&attr) != 0)
            perror("Cannot destroy the attribute object\n");
    }
    if (!created) {
        UD_ERROR("Thread ceation failed\n");
        *error = URL_DOWNLOADER_ERROR_THREAD_CREATION_FAILED;
        return false;
    }
    UD_END();
    return true;
}

// What the transfer engine calls back into: the services' proxies and
// settings, the requests' progress cells, the transfer thread's body and
// libcurl's callbacks, and where finished transfers are reported.
const url_downloader_engine_hooks_t kEngineHooks = {
    _url_downloader_copy_service_proxy, _url_downloader_copy_service_settings,
    _url_downloader_progress_cell,      url_downloader_download_loop,
    url_downloader_body_parser,         url_downloader_header_parser,
    url_downloader_curl_trace,          _url_downloader_close_file,
};

// Brings the library up unless it is. A failed step undoes the earlier ones,
// so that a later registration starts from scratch and nothing is left
// behind. The default main context, where results are queued, is made before
// the processing thread starts, so that its creation is ordered before that
// thread's use of it. Caller holds lifecycle_lock.
bool _url_downloader_init(url_downloader_error* error)
{
    *error = URL_DOWNLOADER_ERROR_NONE;
    if (library_up) {
        UD_DEBUG("service already started\n");
        return true;
    }
    _url_downloader_install_engine_hooks(&kEngineHooks);
    _url_downloader_set_response_sink(_url_downloader_post_response);

    GateClosed gate;
    // Cannot fail: process-private, initial value 0.
    sem_init(&url_downloader_cancel_all_sem, 0, 0);
    sem_init(&url_downloader_deregister_sem, 0, 0);

    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_INIT, error)) {
        UD_ERROR("Global list protection mutex failed\n");
    } else if (!_url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_INIT, error)) {
        UD_ERROR("Pipe write protection mutex failed\n");
    } else if (!_url_downloader_create_pipe(error)) {
        UD_ERROR("Pipe creation failed\n");
    } else if ((g_main_context_default(), !_url_downloader_create_thread(error))) {
        _url_downloader_close_pipe();
    }
    if (*error != URL_DOWNLOADER_ERROR_NONE) {
        url_downloader_error ignored;
        _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_DESTROY, &ignored);
        _url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_DESTROY, &ignored);
        sem_destroy(&url_downloader_cancel_all_sem);
        sem_destroy(&url_downloader_deregister_sem);
        return false;
    }
    library_up = true;
    return true;
}

} // namespace

UdPublicCall::UdPublicCall(bool refuse_while_finalizing) : entered_(false), up_(false)
{
    // Finalization holds the gate until it is done: checking first keeps
    // calls made meanwhile from waiting for it.
    if (refuse_while_finalizing && destroying())
        return;
    pthread_rwlock_rdlock(&public_call_gate);
    entered_ = true;
    up_ = library_up;
}

UdPublicCall::~UdPublicCall()
{
    if (entered_)
        pthread_rwlock_unlock(&public_call_gate);
}

url_downloader_error UdPublicCall::CheckLibrary() const
{
    if (!entered_ || destroying())
        return URL_DOWNLOADER_ERROR_SERVICE_DESTROYING;
    return up_ ? URL_DOWNLOADER_ERROR_NONE : URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
}

url_downloader_error UdPublicCall::CheckService(url_downloader_h service) const
{
    const url_downloader_error error = CheckLibrary();
    if (error != URL_DOWNLOADER_ERROR_NONE)
        return error;
    return _url_downloader_validate_sercvice_handle(service) ? URL_DOWNLOADER_ERROR_NONE
                                                             : URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
}

const char* UdPublicCall::Refusal(url_downloader_error error)
{
    return error == URL_DOWNLOADER_ERROR_SERVICE_DESTROYING ? kDestroyingLine : "Invalid service";
}

url_downloader_error url_downloader_register(const char* appName, url_downloader_callback_t callback,
                                             const url_downloader_config_t* config, url_downloader_h* handle)
{
    UD_BEGIN();
    if (handle == NULL) {
        UD_ERROR("Handle not allocated\n");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    *handle = NULL;
    if (destroying()) {
        UD_ERROR("%s", kDestroyingLine);
        return URL_DOWNLOADER_ERROR_SERVICE_DESTROYING;
    }

    std::unique_lock<std::mutex> lifecycle(lifecycle_lock);
    if (destroying()) { // a finalization whose clean-up could not be queued
        UD_ERROR("%s", kDestroyingLine);
        return URL_DOWNLOADER_ERROR_SERVICE_DESTROYING;
    }
    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    if (!_url_downloader_init(&error))
        return error;

    if (UrlDownloader::CreateInstance() == NULL)
        return URL_DOWNLOADER_ERROR_THREAD_CREATION_FAILED;

    const char* proxy = config != NULL ? config->proxy : NULL;
    if (proxy != NULL)
        UD_DEBUG("Network proxy is set by application as [%s]\n", proxy);
    url_downloader_h temp_service = _url_downloader_new_service(appName, callback, proxy);

    _url_downloader_prepend_request_list(temp_service, NULL, &error);
    lifecycle.unlock();
    if (error != URL_DOWNLOADER_ERROR_NONE) {
        _url_downloader_discard_service(temp_service);
        UD_ERROR("Message_write failed with error-code as %d", (int)error);
        return error;
    }
    *handle = temp_service;
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error url_downloader_configure_network(url_downloader_h service, const url_downloader_config_t* config)
{
    UD_BEGIN();
    if (service == NULL) {
        UD_ERROR("invalid handle");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    if (config == NULL || config->proxy == NULL) {
        UD_ERROR("invalid handle");
        return URL_DOWNLOADER_ERROR_INVALID_NETWORK_CONFIG;
    }

    // Replaced only while the service is registered: the engine copies the
    // proxy under the same lock. A finalization running now is not waited
    // for: it drops the service.
    UdPublicCall call;
    if (!call.LibraryUp() || !_url_downloader_replace_proxy(service, config->proxy)) {
        UD_ERROR("Invalid service");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    UD_DEBUG("Network proxy is set by application as [%s]\n", config->proxy);
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error url_downloader_clean(url_downloader_h service)
{
    UD_BEGIN();
    if (service == NULL) {
        UD_ERROR("NULL service");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    // A copy of the name: a deregistration carried out meanwhile frees the
    // service.
    char* appName = NULL;
    UdPublicCall call;
    url_downloader_error error = call.CheckService(service);
    if (error == URL_DOWNLOADER_ERROR_NONE && !_url_downloader_copy_service_name(service, &appName))
        error = URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    if (error != URL_DOWNLOADER_ERROR_NONE) {
        UD_ERROR("%s", UdPublicCall::Refusal(error));
        return error;
    }
    URLCacheManager* cache = URLCacheManager::getInstance();
    bool deleted = cache != NULL && cache->deleteUrlCache(appName);
    free(appName);
    return deleted ? URL_DOWNLOADER_ERROR_NONE : URL_DOWNLOADER_ERROR_CACHE_CLEAN_FAILED;
}

url_downloader_error url_downloader_deregister(url_downloader_h service)
{
    UD_BEGIN();
    if (service == NULL) {
        UD_ERROR("NULL service");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    {
        UdPublicCall call;
        url_downloader_error error = call.CheckService(service);
        // Silenced first: a result delivered from now on is not called back.
        if (error == URL_DOWNLOADER_ERROR_NONE && !_url_downloader_silence_service(service))
            error = URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
        if (error != URL_DOWNLOADER_ERROR_NONE) {
            UD_ERROR("%s", UdPublicCall::Refusal(error));
            return error;
        }
        uint64_t ticket = 0;
        if (!_url_downloader_send_message(URL_DOWNLOADER_MSG_DEREGISTER_SERVICE, service, NULL, &ticket, &error))
            return error;
        UD_DEBUG("Waiting till service is deregistered by processing thread");
        if (_url_downloader_wait_reply(URL_DOWNLOADER_MSG_DEREGISTER_SERVICE, ticket))
            UD_DEBUG("Deregistered service");
    }
    // Outside the call's gate, so that a callback of the service that runs
    // now may itself finalize; the caller may free what it uses once this
    // returns.
    _url_downloader_wait_for_deliveries(service);
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

void url_downloader_finalize(void)
{
    UD_BEGIN();
    if (destroying()) {
        UD_ERROR("Service is in destroying state");
        return;
    }
    std::lock_guard<std::mutex> lifecycle(lifecycle_lock);
    if (destroying()) {
        UD_ERROR("Service is in destroying state");
        return;
    }
    if (!library_up) {
        UD_ERROR("Service not started. Nothing to be done");
        return;
    }

    // From here public calls are refused; those already running finish
    // before the clean-up is queued, so nothing of theirs can come after it.
    _url_downloader_store_state(URL_DOWNLOADER_STATE_DESTROYING);
    GateClosed gate;

    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    if (!_url_downloader_send_message(URL_DOWNLOADER_MSG_CLEAN_REQUEST_LIST, NULL, NULL, NULL, &error)) {
        UD_ERROR("url_downloader_write_pipe failed with error-code as %d", (int)error);
        return;
    }

    UD_ERROR("Waiting for pthread_join on downloader thread to complete");
    pthread_join(processing_thread, NULL);
    // Responses of transfers that finished during the sweep may still be
    // behind the clean-up message.
    _url_downloader_drain_pipe(-1);
    _url_downloader_forget_all();

    sem_destroy(&url_downloader_cancel_all_sem);
    sem_destroy(&url_downloader_deregister_sem);
    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_DESTROY, &error))
        UD_ERROR("Destroying list mutex failed with error-code as %d", (int)error);
    if (!_url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_DESTROY, &error))
        UD_ERROR("Destroying pipe write mutex failed with error-code as %d", (int)error);
    _url_downloader_close_pipe();

    library_up = false;
    _url_downloader_store_state(URL_DOWNLOADER_STATE_NOT_STARTED);
    UD_END();
}
