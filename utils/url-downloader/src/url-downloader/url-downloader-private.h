/* What the client-interface and request-processing files share. */
/* The library-wide state, the processing pipe, the reply waits and result
 * delivery. The request list is the ledger's (request-ledger.h). */
#ifndef URL_DOWNLOADER_PRIVATE_H
#define URL_DOWNLOADER_PRIVATE_H

#include <semaphore.h>
#include <stdint.h>

#include <glib.h>

#include "url-downloader-common.h"
#include "url-downloader-extension.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- library-wide state (service registration) ---- */
extern volatile int url_downloader_state; /* url_downloader_state_t */
extern sem_t url_downloader_cancel_all_sem;
extern sem_t url_downloader_deregister_sem;

/* ---- lock wrappers ---- */
bool _url_downloader_pipe_write_mutex_operation(url_downloader_mutex_operation_t operation,
                                                url_downloader_error* error);

/* ---- processing pipe (processing-pipe.cpp owns its descriptors) ---- */
/* Made by the first registration, closed by finalization once the
 * processing thread has ended. */
bool _url_downloader_create_pipe(url_downloader_error* error);
void _url_downloader_close_pipe(void);
/* Writes one command into the processing pipe. */
UD_EXPORT void url_downloader_write_pipe(const url_downloader_message_t* message, url_downloader_error* error);
void _url_downloader_read_pipe(url_downloader_message_t* message, url_downloader_error* error);
/* Whether a command can be read within timeout_ms (-1: no limit). */
bool _url_downloader_wait_pipe(int timeout_ms);
/* Frees what a response that nobody will handle owns. */
void _url_downloader_discard_response(url_downloader_message_t* message);
/* Reads the pipe, discarding every message, until ended_fd is readable (no
 * wait when it is -1), then what is left without waiting. For the ends of
 * the processing thread and of finalization, when the only messages left
 * are responses whose requests go with the ledger. */
void _url_downloader_drain_pipe(int ended_fd);
/* Allocates a zero-filled message of the type for the service and request,
 * writes it and frees it; false (the code in *error) when the write failed.
 * For a command that gets a reply (cancel-all, deregistration), *ticket
 * receives the command's place among the written commands of its type. */
bool _url_downloader_send_message(int32_t type, url_downloader_h service, url_downloader_api_h api, uint64_t* ticket,
                                  url_downloader_error* error);
/* The transfer engine's report of a finished transfer, sent as a response
 * message (the engine's response sink). */
void _url_downloader_post_response(url_downloader_api_h api, const url_downloader_response_info_t* report);
/* Called by the processing thread once it has carried out a command of a
 * type that gets a reply (cancel-all, deregistration): marks it done and
 * posts the type's semaphore. */
void _url_downloader_post_reply(int32_t type);
/* Waits for a post of the type's semaphore, then until the caller's own
 * command (its ticket) has been carried out: the semaphores are shared by
 * every service, so the post that wakes a caller may be for another's. */
bool _url_downloader_wait_reply(int32_t type, uint64_t ticket);

/* ---- result delivery ---- */
/* Hands the request, its outcome set, to the client's main loop. */
bool _url_downloader_resp_callback(url_downloader_api_h api);
/* The one way a request is answered: sets its outcome (error; on a failure
 * no path, on a success served from another file that file's path; why it
 * ended, or NULL for nothing to tell) and hands it to delivery. Processing
 * thread only. */
void _url_downloader_answer_request(url_downloader_api_h api, url_downloader_error outcome, const char* servedPath,
                                    const url_downloader_reason_t* reason);

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
