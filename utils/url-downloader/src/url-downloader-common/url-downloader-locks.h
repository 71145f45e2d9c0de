/* Every lock of the library: what it guards, its owner, the order, the guard. */
/* What each lock guards, who owns it, the order in which they may be held
 * together, and the one scoped guard over the lock utility's locks. Clang checks the annotations (-Wthread-safety);
 * other compilers see nothing of them.
 *
 * Order. A thread that holds a lock may take one further down this list,
 * never one further up:
 *
 *   1. public_call_gate (service-registration.cpp, a rwlock): shared by the
 *      public calls and by deliveries while they use library state,
 *      exclusive while the library is brought up or taken down.
 *      lifecycle_lock (same file, std::mutex) is taken before it, by
 *      registration and finalization only, to serialise them.
 *   2. list_write_lock (request-ledger.cpp): the request list, its indexes
 *      and every request and service record reached through them.
 *   3. curl_mutex_lock (engine-state.cpp): the multi handle, the active
 *      transfers and the body files open for them. Taken under
 *      list_write_lock when a sweep or a cancel tears a transfer down.
 *   4. pipe_write_lock (processing-pipe.cpp): one record written into the
 *      processing pipe. reply_lock (same file, std::mutex) is taken under
 *      it to count the commands that get a reply.
 *
 * Locks that stand apart, taken alone or innermost, never holding another
 * library lock:
 *   - downloader_instance_lock (engine-state.cpp): the creation and
 *     destruction of the engine object; registration takes it while holding
 *     lifecycle_lock.
 *   - delivery_lock (request-ledger.cpp, std::mutex): the client callbacks
 *     running now; taken alone or under list_write_lock.
 *   - cache_db_lock (url-cache-manager.cpp): the cache database connection,
 *     its statements and what the process learnt about the file; nothing is
 *     taken under it but SQLite's own locks. A write batch holds it for its
 *     whole scope; the statements run inside the batch do not take it again.
 *   - lazy_init_guard (mutex-utility.cpp): the lazy initialisation of the
 *     lock utility's pairs; held only inside the utility.
 *   - GLib's main-context lock: g_idle_add takes it under list_write_lock,
 *     so that a delivery is queued and recorded in one step; GLib never
 *     calls back into the library while it holds it.
 *
 * Never held: any library lock across a client callback; list_write_lock,
 * curl_mutex_lock or pipe_write_lock across a select() or poll() wait or a
 * blocking read of a pipe. The transfer thread writes its responses into the
 * processing pipe only after it has released curl_mutex_lock, so a full pipe
 * never stops the engine. */
#ifndef URL_DOWNLOADER_LOCKS_H
#define URL_DOWNLOADER_LOCKS_H

#include <pthread.h>
#include <time.h>

#include "url-downloader.h"

#if defined(__clang__) && defined(__cplusplus)
#define UD_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define UD_THREAD_ANNOTATION(x)
#endif

#define UD_CAPABILITY(name) UD_THREAD_ANNOTATION(capability(name))
#define UD_SCOPED_CAPABILITY UD_THREAD_ANNOTATION(scoped_lockable)
#define UD_GUARDED_BY(lock) UD_THREAD_ANNOTATION(guarded_by(lock))
#define UD_ACQUIRED_AFTER(...) UD_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define UD_REQUIRES(...) UD_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define UD_ACQUIRE(...) UD_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define UD_RELEASE(...) UD_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/* For the few functions that are the lock primitives themselves. */
#define UD_NO_THREAD_SAFETY_ANALYSIS UD_THREAD_ANNOTATION(no_thread_safety_analysis)

#ifdef __cplusplus
extern "C" {
#endif
/* The lock utility: one operation on a recursive mutex and its initialised
 * flag, with lazy initialisation and idempotent destruction. */
__attribute__((visibility("default"))) url_downloader_error
url_downloader_mutex_utility(pthread_mutex_t* mutex, bool* initialised, url_downloader_mutex_operation_t operation);
/* A named lock's wrapper: refuses a NULL error word, runs the operation
 * through the utility, stores its code and logs a failure under func with the
 * lock's name. Returns whether the operation succeeded. */
bool _url_downloader_named_mutex_operation(pthread_mutex_t* mutex, bool* initialised, const char* func,
                                           const char* lock_name, url_downloader_mutex_operation_t operation,
                                           url_downloader_error* error);
#ifdef __cplusplus
}

/* A lock wrapper of the library: bool (operation, error word). */
typedef bool (*UdLockOperation)(url_downloader_mutex_operation_t, url_downloader_error*);

/* One lock of the lock utility: the mutex, its initialised flag and the
 * named wrapper through which every operation on it goes. */
struct UD_CAPABILITY("mutex") UdLock {
    pthread_mutex_t mutex;
    bool initialised;
    UdLockOperation operation;
};

extern UdLock list_write_lock;
extern UdLock curl_mutex_lock UD_ACQUIRED_AFTER(list_write_lock);
extern UdLock pipe_write_lock UD_ACQUIRED_AFTER(curl_mutex_lock);
extern UdLock downloader_instance_lock;

/* A plain mutex outside the lock utility that the analysis knows. */
struct UD_CAPABILITY("mutex") UdPlainLock {
    pthread_mutex_t mutex;
};
/* Innermost: nothing of the library is taken under it. */
extern UdPlainLock cache_db_lock UD_ACQUIRED_AFTER(pipe_write_lock, downloader_instance_lock);

/* Holds one of the lock utility's locks for its scope. Taking it may fail
 * (the utility's code is then in Error() and nothing is held); leaving the
 * scope releases it on every path. Release() lets a caller that must report
 * a failed release do so before the scope ends. The retrying form is for a
 * thread that cannot go on without the lock: it pauses between attempts
 * rather than burn a core, and it never fails. */
class UD_SCOPED_CAPABILITY UdScopedLock {
public:
    enum Retry { kRetry };

    explicit UdScopedLock(UdLock& lock) UD_ACQUIRE(lock)
        : lock_(lock), error_(URL_DOWNLOADER_ERROR_NONE), held_(lock.operation(URL_DOWNLOADER_MUTEX_LOCK, &error_))
    {
    }
    UdScopedLock(UdLock& lock, Retry) UD_ACQUIRE(lock) : lock_(lock), error_(URL_DOWNLOADER_ERROR_NONE), held_(false)
    {
        while (!lock.operation(URL_DOWNLOADER_MUTEX_LOCK, &error_)) {
            struct timespec pause = {0, 1000000};
            nanosleep(&pause, NULL);
        }
        held_ = true;
        error_ = URL_DOWNLOADER_ERROR_NONE;
    }
    ~UdScopedLock() UD_RELEASE() { Release(); }
    UdScopedLock(const UdScopedLock&) = delete;
    UdScopedLock& operator=(const UdScopedLock&) = delete;

    bool Held() const { return held_; }
    url_downloader_error Error() const { return error_; }

    /* Releases now; false (with the code in Error()) when that failed. */
    bool Release() UD_RELEASE()
    {
        if (!held_)
            return true;
        held_ = false;
        return lock_.operation(URL_DOWNLOADER_MUTEX_UNLOCK, &error_);
    }

private:
    UdLock& lock_;
    url_downloader_error error_;
    bool held_;
};
#endif

#endif
