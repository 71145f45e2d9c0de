/*
 * libvelmora-urldownloader: background HTTP/HTTPS downloads with a shared URL cache.
 *
 * A client registers once (url_downloader_register), asks for downloads
 * (url_downloader_download) and gets a request handle at once. When the
 * download ends, the client's callback runs on the thread that runs the GLib
 * main loop of the default main context (g_main_context_default()), never on a
 * library thread. The client must therefore run such a main loop.
 *
 * Every string passed in is copied; the caller keeps ownership of its own.
 * This header is valid C99 and C++.
 */
#ifndef VELMORA_URL_DOWNLOADER_H
#define VELMORA_URL_DOWNLOADER_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define URL_DOWNLOADER_API __attribute__((visibility("default")))
#else
#define URL_DOWNLOADER_API
#endif

/** Result of every public call (but url_downloader_finalize) and outcome of a request. */
typedef enum {
    URL_DOWNLOADER_ERROR_NONE = 0,                 /**< success; a completed download or cache hit */
    URL_DOWNLOADER_ERROR_INVALID_PARAMETER = 1,    /**< NULL or unknown service handle, NULL out-parameter */
    URL_DOWNLOADER_ERROR_INVALID_URL = 2,          /**< url_downloader_download got a NULL URL */
    URL_DOWNLOADER_ERROR_INVALID_FILE_PATH = 3,    /**< url_downloader_download got a NULL file path */
    URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED = 4,     /**< internal: a cache row could not be inserted */
    URL_DOWNLOADER_ERROR_CACHE_CLEAN_FAILED = 5,   /**< url_downloader_clean could not delete the rows */
    URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED = 6,      /**< request outcome: status not 200, empty body or transfer error */
    URL_DOWNLOADER_ERROR_CACHE_SIZE_FAILED = 7,    /**< internal: the cache size could not be read */
    URL_DOWNLOADER_ERROR_PIPE_READ_FAILED = 8,     /**< internal: the processing thread could not read a command */
    URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED = 9,    /**< a command could not be queued */
    URL_DOWNLOADER_ERROR_PIPE_CREATION_FAILED = 10,/**< the first registration could not create its pipe */
    URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED = 11,   /**< a lock could not be initialised */
    URL_DOWNLOADER_ERROR_MUTEX_LOCK_FAILED = 12,   /**< a lock could not be taken */
    URL_DOWNLOADER_ERROR_MUTEX_UNLOCK_FAILED = 13,  /**< a lock could not be released */
    URL_DOWNLOADER_ERROR_THREAD_CREATION_FAILED = 14, /**< a library thread or the transfer engine could not be started */
    URL_DOWNLOADER_ERROR_INVALID_API_HANDLE = 15,  /**< NULL or dead request handle, NULL request out-parameter */
    URL_DOWNLOADER_ERROR_REQUEST_CANCELLED = 16,   /**< request outcome: cancelled with url_downloader_cancel_request */
    URL_DOWNLOADER_ERROR_SERVICE_DESTROYING = 17,  /**< url_downloader_finalize is running */
    /* 18 is not used. */
    URL_DOWNLOADER_ERROR_INVALID_NETWORK_CONFIG = 19 /**< NULL configuration or NULL proxy */
} url_downloader_error;

/** Library state word (read without a lock by every public call). */
typedef enum {
    URL_DOWNLOADER_STATE_NOT_STARTED = 0,
    URL_DOWNLOADER_STATE_STARTED = 1,
    URL_DOWNLOADER_STATE_DESTROYING = 2
} url_downloader_state_t;

/** Operation codes of the library's lock utility. */
typedef enum {
    URL_DOWNLOADER_MUTEX_INIT = 0,
    URL_DOWNLOADER_MUTEX_LOCK = 1,
    URL_DOWNLOADER_MUTEX_UNLOCK = 2,
    URL_DOWNLOADER_MUTEX_DESTROY = 3
} url_downloader_mutex_operation_t;

/** Network configuration. The library keeps its own copy, never the caller's record. */
typedef struct url_downloader_config_t {
    char* proxy; /**< proxy for every transfer of the service, e.g. "http://10.0.0.1:3128"; NULL: none */
} url_downloader_config_t;

struct url_downloader_service_t;
struct url_downloader_api_t;

/** Handle of a registered client (a service). Valid until its deregistration or finalization. */
typedef struct url_downloader_service_t* url_downloader_h;
/** Handle of one download request. Valid until its callback has returned or it is dropped. */
typedef struct url_downloader_api_t* url_downloader_api_h;

/**
 * Client callback: callback(request, file_path, user_data, error).
 *
 * - Runs on the thread of the GLib main loop of the default main context.
 * - file_path (a const char* passed as void*) is the downloaded file, or the
 *   cached file on a cache hit (which may lie at another path than the one
 *   asked for); NULL when error is 6 (download failed) or 16 (cancelled).
 *   It is freed when the callback returns: copy it if you need it later.
 * - user_data is the pointer given to url_downloader_download.
 * - error is 0, 6 or 16. The bool result is ignored.
 * - Called at most once per request; not called for requests dropped by
 *   url_downloader_cancel_all_requests, url_downloader_deregister or
 *   url_downloader_finalize. The request handle stays valid while the
 *   callback runs (cancelling it then changes nothing) and is dead once it
 *   returns.
 * - It may call any public function, url_downloader_deregister and
 *   url_downloader_finalize included.
 */
typedef bool (*url_downloader_callback_t)(url_downloader_api_h request, void* file_path,
                                          void* user_data, int error);

/** One registered client. Owned by the library; clients only hold its address. */
typedef struct url_downloader_service_t {
    url_downloader_callback_t callback; /**< NULL: results are never delivered */
    url_downloader_config_t* fwConfig;  /**< library's copy of the proxy configuration, or NULL */
    char* appName;                      /**< copy of the application name, or NULL */
} url_downloader_service_t;

/** One download request. Owned by the library; clients only hold its address. */
typedef struct url_downloader_api_t {
    int32_t transferActive;     /**< 1 once a transfer has been added to the engine */
    url_downloader_h service;   /**< the service that submitted the request */
    char* filePath;             /**< destination path (or cached file's path); NULL on failure */
    char* url;                  /**< the URL */
    bool useCache;              /**< consult the URL cache before a transfer */
    const void* userData;       /**< client's opaque pointer, never dereferenced */
    int error;                  /**< outcome: 0, 6 or 16 */
} url_downloader_api_t;

/** Element of the library's request list: a registration entry (api NULL) or a request entry. */
typedef struct url_downloader_request_entry_t {
    url_downloader_h service;
    url_downloader_api_h api;
} url_downloader_request_entry_t;

/**
 * Registers a client and returns its service handle in *handle.
 * The first registration in a process starts the library (processing thread,
 * transfer engine). app_name labels the service's cache rows (may be NULL);
 * callback may be NULL (results are then never delivered); config may be NULL
 * or carry a NULL proxy (no proxy).
 * Returns 0, 1 (handle NULL), 17 (finalizing), 10, 11, 12, 13 or 14.
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_register(const char* app_name,
                                                                url_downloader_callback_t callback,
                                                                const url_downloader_config_t* config,
                                                                url_downloader_h* handle);

/**
 * Replaces the service's proxy for transfers set up from now on; running
 * transfers keep theirs. A proxy can be replaced but not removed. Never waits
 * for a finalization: while one runs, every service is being dropped (1).
 * Returns 0, 1 (NULL or unknown service) or 19 (config or its proxy NULL).
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_configure_network(url_downloader_h service,
                                                                         const url_downloader_config_t* config);

/**
 * Deletes every cache row of the service's application (on the calling thread).
 * Cached files stay on disk. Returns 0, 1 (NULL or unknown service),
 * 5 (deletion failed, also for a service registered without a name) or 17.
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_clean(url_downloader_h service);

/**
 * Deregisters the service and blocks until the processing thread has dropped
 * all its requests (no callbacks for them) and freed it, and until a callback
 * of the service that is running on another thread has returned; the handle
 * is dead afterwards and no callback of the service runs any more. May be
 * called from inside the client callback (it does not wait for that one).
 * Returns 0, 1 (NULL or unknown service), 17, or the pipe/lock error (9, 11-13).
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_deregister(url_downloader_h service);

/**
 * Takes the library down: drops every request and service without callbacks,
 * stops the threads and blocks until they have ended. Every handle is dead
 * afterwards; a later url_downloader_register starts the library again.
 * Calls made while it runs get 17. May be called from the client callback.
 */
URL_DOWNLOADER_API void url_downloader_finalize(void);

/**
 * Asks for a download of url into file_path (created or truncated). With
 * use_cache, a valid cache entry for the URL answers the request without a
 * transfer (the callback then gets the cached file's path). Every successful
 * download is recorded in the cache. Returns the request handle in *request.
 * Returns 0, 1 (NULL or unknown service), 15 (request NULL), 17,
 * 3 (file_path NULL), 2 (url NULL), or the pipe/lock error (9, 11-13).
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_download(url_downloader_h service,
                                                                const char* file_path,
                                                                const char* url,
                                                                bool use_cache,
                                                                const void* user_data,
                                                                url_downloader_api_h* request);

/**
 * Cancels a request whose transfer is running: its callback then gets
 * error 16 and a NULL path. A request not yet started or already finished is
 * not affected. Returns at once: 0, 1 (NULL or unknown service), 15 (NULL or
 * dead request handle), 17, or the pipe/lock error.
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_cancel_request(url_downloader_h service,
                                                                      url_downloader_api_h request);

/**
 * Drops every request of the service without callbacks and blocks until that
 * is done, and until a callback of the service that is running on another
 * thread has returned: once it returns, no callback of a dropped request
 * runs. The service stays registered. Returns 0, 1, 17, or the pipe/lock error.
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_cancel_all_requests(url_downloader_h service);

#ifdef __cplusplus
}
#endif

#endif /* VELMORA_URL_DOWNLOADER_H */
