/* The lock utility: one operation on a recursive mutex and its initialised flag. */
#include "url-downloader-common.h"

namespace {
// Serialises the lazy initialisation of every pair: two threads whose first
// use of a lock meets must not both initialise it. The flags are read with
// acquire loads so that a set flag also publishes the initialised mutex.
pthread_mutex_t lazy_init_guard = PTHREAD_MUTEX_INITIALIZER;

bool is_initialised(const bool* initialised) { return __atomic_load_n(initialised, __ATOMIC_ACQUIRE); }
void set_initialised(bool* initialised, bool value) { __atomic_store_n(initialised, value, __ATOMIC_RELEASE); }

// Returns pthread_mutex_init's status.
int init_recursive(pthread_mutex_t* mutex, bool* initialised)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    int status = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (status == 0)
        set_initialised(initialised, true);
    return status;
}

} // namespace

url_downloader_error url_downloader_mutex_utility(pthread_mutex_t* mutex, bool* initialised,
                                                  url_downloader_mutex_operation_t operation)
{
    if (mutex == NULL || initialised == NULL) {
        UD_ERROR("mutex/mutex_init is NULL, so returning!");
        return URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED;
    }

    if (operation == URL_DOWNLOADER_MUTEX_DESTROY) {
        pthread_mutex_lock(&lazy_init_guard);
        if (!is_initialised(initialised)) {
            pthread_mutex_unlock(&lazy_init_guard);
            UD_ERROR("mutex not intialised, so no need to destroy");
            return URL_DOWNLOADER_ERROR_NONE;
        }
        int status = pthread_mutex_destroy(mutex);
        set_initialised(initialised, false);
        pthread_mutex_unlock(&lazy_init_guard);
        if (status != 0)
            UD_ERROR("pthread_mutex_destroy failed with, status=[%d]\n", status);
        return URL_DOWNLOADER_ERROR_NONE;
    }

    // Locks come up lazily: the first use of a pair initialises it. INIT
    // always initialises afresh.
    if (operation == URL_DOWNLOADER_MUTEX_INIT || !is_initialised(initialised)) {
        pthread_mutex_lock(&lazy_init_guard);
        int status = 0;
        if (operation == URL_DOWNLOADER_MUTEX_INIT || !is_initialised(initialised))
            status = init_recursive(mutex, initialised);
        pthread_mutex_unlock(&lazy_init_guard);
        if (status != 0) {
            UD_ERROR("pthread_mutex_init failed, status=[%d]\n", status);
            return URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED;
        }
    }

    switch (operation) {
    case URL_DOWNLOADER_MUTEX_LOCK: {
        int status = pthread_mutex_lock(mutex);
        if (status != 0) {
            UD_ERROR("pthread_mutex_lock failed, status=[%d]\n", status);
            return URL_DOWNLOADER_ERROR_MUTEX_LOCK_FAILED;
        }
        break;
    }
    case URL_DOWNLOADER_MUTEX_UNLOCK: {
        int status = pthread_mutex_unlock(mutex);
        if (status != 0) {
            UD_ERROR("pthread_mutex_unlock failed, status=[%d]\n", status);
            return URL_DOWNLOADER_ERROR_MUTEX_UNLOCK_FAILED;
        }
        break;
    }
    case URL_DOWNLOADER_MUTEX_INIT:
        break;
    default:
        UD_DEBUG("Mutex operation type %d not handled", (int)operation);
        break;
    }
    return URL_DOWNLOADER_ERROR_NONE;
}

bool _url_downloader_named_mutex_operation(pthread_mutex_t* mutex, bool* initialised, const char* func,
                                           const char* lock_name, url_downloader_mutex_operation_t operation,
                                           url_downloader_error* error)
{
    if (error == NULL) {
        UD_ERROR_AS(func, "Provided error-code is NULL");
        return false;
    }
    *error = url_downloader_mutex_utility(mutex, initialised, operation);
    if (*error != URL_DOWNLOADER_ERROR_NONE) {
        UD_ERROR_AS(func, "mutex operation %d on %s failed! error-code: %d", (int)operation, lock_name, (int)*error);
        return false;
    }
    return true;
}
