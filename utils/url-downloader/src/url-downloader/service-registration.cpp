#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <mutex>

#include "library-lifecycle.h"
#include "request-ledger.h"
#include "url-cache-manager.h"
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

url_downloader_error _url_downloader_create_pipe()
{
    // Close-on-exec: the pipe is the library's own and must not leak into
    // programs that the client starts.
    if (pipe2(url_downloader_pipe_fd, O_CLOEXEC) != 0) {
        perror("pipeerror:");
        UD_ERROR("Pipe creattion failed\n");
        url_downloader_pipe_fd[0] = url_downloader_pipe_fd[1] = -1;
        return URL_DOWNLOADER_ERROR_PIPE_CREATION_FAILED;
    }
    UD_DEBUG("Pipe created succesfully\n");
    return URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error _url_downloader_create_thread()
{
    UD_BEGIN();
    pthread_attr_t attr;
    bool created = false;
    if (pthread_attr_init(&attr) == 0) {
        created = pthread_create(&processing_thread, &attr, url_downloader_thread_loop, NULL) == 0;
        if (pthread_attr_destroy(&attr) != 0)
            perror("Cannot destroy the attribute object\n");
    }
    if (!created) {
        UD_ERROR("Thread ceation failed\n");
        return URL_DOWNLOADER_ERROR_THREAD_CREATION_FAILED;
    }
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

void close_processing_pipe()
{
    for (int i = 0; i < 2; ++i) {
        if (url_downloader_pipe_fd[i] >= 0)
            close(url_downloader_pipe_fd[i]);
        url_downloader_pipe_fd[i] = -1;
    }
}

void destroy_list_and_pipe_locks()
{
    url_downloader_error error;
    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_DESTROY, &error))
        UD_ERROR_AS("url_downloader_finalize", "Destroying list mutex failed with error-code as %d", (int)error);
    if (!_url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_DESTROY, &error))
        UD_ERROR_AS("url_downloader_finalize", "Destroying pipe write mutex failed with error-code as %d", (int)error);
}

// Brings the library up. A failed step undoes the earlier ones, so that a
// later registration starts from scratch and nothing is left behind. The
// default main context, where results are queued, is made before the
// processing thread starts, so that its creation is ordered before that
// thread's use of it.
// Caller holds lifecycle_lock and public_call_gate exclusively.
url_downloader_error _url_downloader_init()
{
    // Cannot fail: process-private, initial value 0.
    sem_init(&url_downloader_cancel_all_sem, 0, 0);
    sem_init(&url_downloader_deregister_sem, 0, 0);

    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    if (!_url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_INIT, &error)) {
        UD_ERROR("Global list protection mutex failed\n");
    } else if (!_url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_INIT, &error)) {
        UD_ERROR("Pipe write protection mutex failed\n");
    } else if ((error = _url_downloader_create_pipe()) != URL_DOWNLOADER_ERROR_NONE) {
        UD_ERROR("Pipe creation failed\n");
    } else if ((g_main_context_default(), error = _url_downloader_create_thread()) != URL_DOWNLOADER_ERROR_NONE) {
        close_processing_pipe();
    }
    if (error != URL_DOWNLOADER_ERROR_NONE) {
        url_downloader_error ignored;
        _url_downloader_list_mutex_operation(URL_DOWNLOADER_MUTEX_DESTROY, &ignored);
        _url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_DESTROY, &ignored);
        sem_destroy(&url_downloader_cancel_all_sem);
        sem_destroy(&url_downloader_deregister_sem);
    }
    return error;
}

// Messages still in the pipe behind the clean-up message (results of
// transfers that finished during the sweep) own memory; read them without
// blocking and release it.
void drain_processing_pipe()
{
    int flags = fcntl(url_downloader_pipe_fd[0], F_GETFL);
    if (flags < 0 || fcntl(url_downloader_pipe_fd[0], F_SETFL, flags | O_NONBLOCK) < 0) {
        perror("fcntl");
        return;
    }
    for (;;) {
        url_downloader_message_t message;
        memset(&message, 0, sizeof message);
        ssize_t bytes = read(url_downloader_pipe_fd[0], &message, sizeof message);
        if (bytes < 0 && errno == EINTR)
            continue;
        if (bytes != (ssize_t)sizeof message)
            break;
        free(message.info); // its request goes with the ledger
    }
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

url_downloader_error UdPublicCall::CheckService(const char* func, url_downloader_h service,
                                                void (*apply)(url_downloader_h, void*), void* arg) const
{
    if (!entered_ || destroying()) {
        UD_ERROR_AS(func, "%s", kDestroyingLine);
        return URL_DOWNLOADER_ERROR_SERVICE_DESTROYING;
    }
    if (!up_ || !_url_downloader_with_service(service, apply, arg)) {
        UD_ERROR_AS(func, "Invalid service");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    return URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error _url_downloader_drop_and_wait(const char* func, url_downloader_h service, int32_t type,
                                                  sem_t* reply, const char* waiting, const char* done,
                                                  void (*apply)(url_downloader_h, void*))
{
    {
        UdPublicCall call;
        url_downloader_error error = call.CheckService(func, service, apply);
        if (error != URL_DOWNLOADER_ERROR_NONE)
            return error;
        uint64_t ticket = 0;
        error = _url_downloader_send_message(type, service, NULL, &ticket);
        if (error != URL_DOWNLOADER_ERROR_NONE)
            return error;
        UD_DEBUG_AS(func, "%s", waiting);
        if (_url_downloader_wait_reply(reply, type, ticket))
            UD_DEBUG_AS(func, "%s", done);
    }
    // A callback of the service that began before the sweep may still be
    // running on the main loop's thread; the caller may free what it uses
    // once this returns. Outside the call's gate, so that such a callback
    // may itself finalize.
    _url_downloader_wait_for_deliveries(service);
    return URL_DOWNLOADER_ERROR_NONE;
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
    if (library_up) {
        UD_DEBUG_AS("_url_downloader_init", "service already started\n");
    } else {
        _url_downloader_set_proxy_source(_url_downloader_copy_service_proxy);
        url_downloader_error error;
        {
            GateClosed gate;
            error = _url_downloader_init();
            library_up = error == URL_DOWNLOADER_ERROR_NONE;
        }
        if (error != URL_DOWNLOADER_ERROR_NONE)
            return error;
    }

    if (UrlDownloader::CreateInstance() == NULL)
        return URL_DOWNLOADER_ERROR_THREAD_CREATION_FAILED;

    const char* proxy = config != NULL ? config->proxy : NULL;
    if (proxy != NULL)
        UD_DEBUG("Network proxy is set by application as [%s]\n", proxy);
    url_downloader_h temp_service = _url_downloader_new_service(appName, callback, proxy);

    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
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

    // Replaced under the list lock, and only while the service is
    // registered: the engine copies the proxy under the same lock. A
    // finalization running now is not waited for: it drops the service.
    struct Replacement {
        char* proxy;
    } replacement = {strdup(config->proxy)};
    UdPublicCall call;
    bool replaced = call.LibraryUp() && _url_downloader_with_service(
                                            service,
                                            [](url_downloader_h s, void* arg) {
                                                Replacement* r = (Replacement*)arg;
                                                if (s->fwConfig == NULL) {
                                                    s->fwConfig = (url_downloader_config_t*)calloc(
                                                        1, sizeof(url_downloader_config_t));
                                                    UD_ASSERT_ALLOC(s->fwConfig);
                                                }
                                                free(s->fwConfig->proxy);
                                                UD_DEBUG_AS("url_downloader_configure_network",
                                                            "Network proxy is set by application as [%s]\n",
                                                            r->proxy);
                                                s->fwConfig->proxy = r->proxy;
                                                r->proxy = NULL;
                                            },
                                            &replacement);
    if (!replaced) {
        free(replacement.proxy);
        UD_ERROR("Invalid service");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
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
    // The name is copied under the list lock: a deregistration carried out
    // meanwhile frees the service.
    char* appName = NULL;
    UdPublicCall call;
    url_downloader_error error = call.CheckService(
        __FUNCTION__, service,
        [](url_downloader_h s, void* name) {
            if (s->appName != NULL)
                *(char**)name = strdup(s->appName);
        },
        &appName);
    if (error != URL_DOWNLOADER_ERROR_NONE)
        return error;
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
    // Silencing the callback under the list lock: delivery reads it there.
    url_downloader_error error = _url_downloader_drop_and_wait(
        __FUNCTION__, service, URL_DOWNLOADER_MSG_DEREGISTER_SERVICE, &url_downloader_deregister_sem,
        "Waiting till service is deregistered by processing thread", "Deregistered service",
        [](url_downloader_h s, void*) { s->callback = NULL; });
    if (error != URL_DOWNLOADER_ERROR_NONE)
        return error;
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

    url_downloader_error error = _url_downloader_send_message(URL_DOWNLOADER_MSG_CLEAN_REQUEST_LIST, NULL, NULL, NULL);
    if (error != URL_DOWNLOADER_ERROR_NONE) {
        UD_ERROR("url_downloader_write_pipe failed with error-code as %d", (int)error);
        return;
    }

    UD_ERROR("Waiting for pthread_join on downloader thread to complete");
    pthread_join(processing_thread, NULL);
    drain_processing_pipe();
    _url_downloader_forget_all();

    sem_destroy(&url_downloader_cancel_all_sem);
    sem_destroy(&url_downloader_deregister_sem);
    destroy_list_and_pipe_locks();
    close_processing_pipe();

    library_up = false;
    _url_downloader_store_state(URL_DOWNLOADER_STATE_NOT_STARTED);
    UD_END();
}
