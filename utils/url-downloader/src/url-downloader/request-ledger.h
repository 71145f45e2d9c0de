/* The request ledger: the one owner and writer of every request and service record. */
/* It owns the request list and every service and request record from
 * registration or submission until it is freed. Other files ask it to add,
 * check, answer, hand over, sweep and forget; none of them touches list
 * links or writes or frees a record. See request-ledger.cpp for the
 * ownership rules. */
#ifndef URL_DOWNLOADER_REQUEST_LEDGER_H
#define URL_DOWNLOADER_REQUEST_LEDGER_H

#include <glib.h>

#include "url-downloader-internal.h"
#include "url-downloader-private.h"

/* ---- the request list's own operations ---- */

/* Adds an entry: a registration entry when api is NULL, else a request entry,
 * which is refused with 1 unless the service is registered at that moment
 * (checked and added in one locked section, so that a deregistration cannot
 * come in between). A request entry starts owned by its download message. */
bool _url_downloader_prepend_request_list(url_downloader_h service, url_downloader_api_h api,
                                          url_downloader_error* error);
/* Whether the service, or the request, is listed now. Addresses only: a dead
 * handle is refused without its record being read. The public calls, the
 * processing thread and the delivery check handles with these; an operation
 * that acts on a handle checked before looks it up again in the same locked
 * section as it acts, since a deregistration may have come in between. */
bool _url_downloader_validate_sercvice_handle(url_downloader_h service);
bool _url_downloader_validate_api_handle(url_downloader_api_h api);
bool _url_downloader_list_mutex_operation(url_downloader_mutex_operation_t operation, url_downloader_error* error);

/* ---- client threads ---- */

/* Makes a new service record (copies of the name and proxy). */
url_downloader_h _url_downloader_new_service(const char* appName, url_downloader_callback_t callback,
                                             const char* proxy);
/* Frees a service record that never got into the list. */
void _url_downloader_discard_service(url_downloader_h service);
/* Makes a new request record (copies of path and URL). */
url_downloader_api_h _url_downloader_new_request(url_downloader_h service, const char* filePath, const char* url,
                                                 bool useCache, const void* userData);
/* Frees a request record that never got into the list. */
void _url_downloader_discard_request(url_downloader_api_h api);
/* Each of these acts on a registered service only, in the locked section
 * that found it registered, and returns false when it is not. */
/* Replaces the service's proxy with a copy of proxy. */
bool _url_downloader_replace_proxy(url_downloader_h service, const char* proxy);
/* Silences the service: its results are no longer called back. */
bool _url_downloader_silence_service(url_downloader_h service);
/* Stores a copy of the service's name (free it), or NULL, in *appName. */
bool _url_downloader_copy_service_name(url_downloader_h service, char** appName);
/* The download message of a listed request could not be written: takes the
 * request back and frees it. */
void _url_downloader_withdraw_request(url_downloader_api_h api);
/* Checks that the request is listed and keeps its record alive until the
 * cancel message naming it has been handled (or unpinned after a failed
 * write), so that its address cannot be reused meanwhile. */
bool _url_downloader_pin_for_cancel(url_downloader_api_h api);
void _url_downloader_unpin_cancel(url_downloader_api_h api);
/* Copy of the service's proxy (free it), or NULL; the engine's proxy source. */
char* _url_downloader_copy_service_proxy(url_downloader_h service);
/* Replaces the service's transport security and limits with copies of those
 * given (a NULL one stays as it is), in one locked section. */
bool _url_downloader_store_settings(url_downloader_h service, const url_downloader_transport_t* transport,
                                    const url_downloader_limits_t* limits);
/* Copies the service's extra settings into *out; false when it has none.
 * The engine's settings source. */
bool _url_downloader_copy_service_settings(url_downloader_h service, url_downloader_transfer_settings_t* out);
/* The request's progress cell, which its transfer writes; the engine's
 * progress source. */
ud_progress_t* _url_downloader_progress_cell(url_downloader_api_h api);
/* Copies why the request ended (without its text) while its callback runs:
 * 0, 1 (service not registered) or 15 (not this service's request, or not
 * being delivered). */
url_downloader_error _url_downloader_read_reason(url_downloader_h service, url_downloader_api_h api,
                                                 url_downloader_reason_t* reason);
/* Copies the progress of a listed request of the service: 0, 1 or 15. */
url_downloader_error _url_downloader_read_progress(url_downloader_h service, url_downloader_api_h api,
                                                   url_downloader_progress_t* progress);
/* Waits until no client callback of the service runs on another thread. */
void _url_downloader_wait_for_deliveries(url_downloader_h service);

/* ---- processing thread ---- */

/* The download message of the request is being handled: true when the
 * request is still listed (then the processing thread works on it); else the
 * ledger has freed it if nothing else refers to it. */
bool _url_downloader_claim_submitted(url_downloader_api_h api);
/* Sets up the request's transfer (through the engine); the record is then
 * also owned by the transfer until its response is handled or it is torn
 * down. Returns the engine's answer. */
bool _url_downloader_start_transfer(url_downloader_api_h api);
/* The response of the request's transfer is being handled: true when the
 * request is still listed; else freed as above. */
bool _url_downloader_claim_response(url_downloader_api_h api);
/* Handles a cancel message: tears the request's running transfer down and
 * returns true when there was one (the request is then the caller's to
 * answer with 16). */
bool _url_downloader_cancel_running(url_downloader_api_h api);
/* The request's outcome: sets its error and, on a failure, drops its path
 * (the callback gets NULL); on a success served from another file, the path
 * becomes a copy of servedPath. (_url_downloader_answer_request sets it and
 * hands the request to delivery.) */
void _url_downloader_set_outcome(url_downloader_api_h api, url_downloader_error outcome, const char* servedPath,
                                 const url_downloader_reason_t* reason);
/* The request sweep: drops the selected entries of the message's service (or
 * of every service) without callbacks, registration entries too when asked. */
void _url_downloader_execute_cancel_all_request(url_downloader_message_t* message, bool withRegistration,
                                                bool allServices, url_downloader_error* error);
/* Queues deliver(api) as an idle source on the default main context, for
 * the request handed over; the hand-over of _url_downloader_resp_callback. */
void _url_downloader_queue_delivery(url_downloader_api_h api, GSourceFunc deliver);

/* ---- the client's main loop ---- */

/* What a delivery hands to the client callback. */
typedef struct url_downloader_delivery_t {
    url_downloader_callback_t callback;
    url_downloader_h service;
    void* path;
    void* userData;
    int error;
} url_downloader_delivery_t;

typedef enum {
    URL_DOWNLOADER_DELIVERY_CALL,  /* call the callback with *out */
    URL_DOWNLOADER_DELIVERY_GONE,  /* swept, or not this source's: nothing to do */
    URL_DOWNLOADER_DELIVERY_SILENT /* no callback: removed and freed */
} url_downloader_delivery_start_t;

/* Starts the delivery of the request queued by the running idle source. On
 * CALL the record stays alive (and listed) until _url_downloader_end_delivery. */
url_downloader_delivery_start_t _url_downloader_begin_delivery(url_downloader_api_h api,
                                                               url_downloader_delivery_t* out);
/* The callback has returned: removes the request and frees it. Returns the
 * number of entries left, or -1 when the request had already left the list. */
int _url_downloader_end_delivery(url_downloader_api_h api, url_downloader_h service);

/* ---- finalization ---- */

/* Frees every request and service record still held (a request whose
 * callback is running is left to its delivery) and empties the list. Called
 * once the processing thread has ended. */
void _url_downloader_forget_all(void);

#endif
