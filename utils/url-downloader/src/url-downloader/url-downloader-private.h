/* What the client-interface and request-processing code shares with the
 * cache and the transfer engine: the command records, the processing pipe,
 * the locks and the request list. */
#ifndef URL_DOWNLOADER_PRIVATE_H
#define URL_DOWNLOADER_PRIVATE_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include <glib.h>

#include "url-downloader.h"
#include "url-downloader-log.h"

#define UD_EXPORT __attribute__((visibility("default")))

/* Commands of the processing pipe. */
typedef enum {
    URL_DOWNLOADER_MSG_NONE = 1,
    URL_DOWNLOADER_MSG_DOWNLOAD_REQUEST = 2,
    URL_DOWNLOADER_MSG_DOWNLOAD_RESPONSE = 3,
    URL_DOWNLOADER_MSG_CANCEL_REQUEST = 4,
    URL_DOWNLOADER_MSG_CANCEL_ALL_REQUEST = 5,
    URL_DOWNLOADER_MSG_DEREGISTER_SERVICE = 6,
    URL_DOWNLOADER_MSG_CLEAN_REQUEST_LIST = 7
} url_downloader_message_type_t;

/* Result of one finished transfer; owned by the processing thread once sent. */
typedef struct url_downloader_response_info_t {
    int32_t fileSize;
    int32_t expiryTime;
    url_downloader_error error;
} url_downloader_response_info_t;

/* One command, copied by value through the processing pipe. */
typedef struct url_downloader_message_t {
    int32_t reserved;
    int32_t type; /* url_downloader_message_type_t */
    url_downloader_h service;
    url_downloader_api_h api;
    url_downloader_response_info_t* info;
} url_downloader_message_t;

#ifdef __cplusplus
extern "C" {
#endif

/* ---- library-wide state (service registration) ---- */
extern volatile int url_downloader_state;      /* url_downloader_state_t */
extern GList* url_downloader_request_list;     /* of url_downloader_request_entry_t*, newest first */
extern int url_downloader_pipe_fd[2];          /* processing pipe: [0] read, [1] write */
extern sem_t url_downloader_cancel_all_sem;
extern sem_t url_downloader_deregister_sem;

/* ---- lock utility ---- */
UD_EXPORT url_downloader_error url_downloader_mutex_utility(pthread_mutex_t* mutex, bool* initialised,
                                                            url_downloader_mutex_operation_t operation);
/* A named lock's wrapper: refuses a NULL error word, runs the operation
 * through the utility, stores its code and logs a failure under func with the
 * lock's name. Returns whether the operation succeeded. */
bool _url_downloader_named_mutex_operation(pthread_mutex_t* mutex, bool* initialised, const char* func,
                                           const char* lock_name, url_downloader_mutex_operation_t operation,
                                           url_downloader_error* error);
bool _url_downloader_list_mutex_operation(url_downloader_mutex_operation_t operation, url_downloader_error* error);
bool _url_downloader_pipe_write_mutex_operation(url_downloader_mutex_operation_t operation, url_downloader_error* error);

/* ---- processing pipe ---- */
/* Waits for the processing thread's post on a reply semaphore, through
 * interruptions; true once it came. */
bool _url_downloader_wait_reply(sem_t* reply);
UD_EXPORT void url_downloader_write_pipe(const url_downloader_message_t* message, url_downloader_error* error);
void _url_downloader_read_pipe(url_downloader_message_t* message, url_downloader_error* error);
/* Allocates a zero-filled message of the type for the service and request,
 * writes it and frees it; returns the write's outcome. */
url_downloader_error _url_downloader_send_message(int32_t type, url_downloader_h service, url_downloader_api_h api);

/* ---- request list ---- */
bool _url_downloader_prepend_request_list(url_downloader_h service, url_downloader_api_h api, url_downloader_error* error);
bool _url_downloader_validate_sercvice_handle(url_downloader_h service);
bool _url_downloader_validate_api_handle(url_downloader_api_h api);
/* A request whose download message is still in the pipe, or whose delivery
 * is still queued, belongs to that queued work: a sweep only takes it out of
 * the list, and the queued work frees it. So its address cannot be reused by
 * a new request while something still refers to it. Caller holds
 * list_write_lock. */
bool _url_downloader_owned_by_queue(url_downloader_api_h api);
/* Called by the handler of a download message: the request is no longer
 * owned by its message. Tells whether it is still listed. */
bool _url_downloader_claim_submitted(url_downloader_api_h api, bool* listed);
/* Takes back a request whose download message will never be handled: it is
 * no longer owned by a message and no longer listed. The caller frees it. */
void _url_downloader_withdraw_request(url_downloader_api_h api);
/* At finalization: frees every request still waiting for its delivery and
 * removes its idle source, and forgets the owned-by-queue records. */
void _url_downloader_forget_queued_requests(void);
/* Frees a request record with its strings. */
void _url_downloader_free_api(url_downloader_api_t* api);
/* Frees a service record with its name and network configuration. */
void _url_downloader_free_service(url_downloader_service_t* service);

/* ---- result delivery ---- */
bool _url_downloader_resp_callback(url_downloader_api_h api);
/* Whether the request's delivery is queued; caller holds list_write_lock. */
bool _url_downloader_delivery_pending(url_downloader_api_h api);
/* Frees every request whose delivery is still queued and removes its source. */
void _url_downloader_drop_pending_deliveries(void);

/* ---- processing thread ---- */
UD_EXPORT void* url_downloader_thread_loop(void* arg);

#ifdef __cplusplus
}
#endif

/* GLib idle function that delivers one result; exported under its C++ name. */
#ifdef __cplusplus
UD_EXPORT gboolean _url_downloader_idle_callback(void* data);
#endif

#endif
