/* What the client-interface and request-processing files share with each
 * other: the library-wide state, the processing pipe, the reply waits and
 * result delivery. The request list is the ledger's (request-ledger.h). */
#ifndef URL_DOWNLOADER_PRIVATE_H
#define URL_DOWNLOADER_PRIVATE_H

#include <semaphore.h>
#include <stdint.h>

#include <glib.h>

#include "url-downloader-common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- library-wide state (service registration) ---- */
extern volatile int url_downloader_state;      /* url_downloader_state_t */
extern int url_downloader_pipe_fd[2];          /* processing pipe: [0] read, [1] write */
extern sem_t url_downloader_cancel_all_sem;
extern sem_t url_downloader_deregister_sem;

/* ---- lock wrappers ---- */
bool _url_downloader_pipe_write_mutex_operation(url_downloader_mutex_operation_t operation, url_downloader_error* error);

/* ---- processing pipe ---- */
void _url_downloader_read_pipe(url_downloader_message_t* message, url_downloader_error* error);
/* Allocates a zero-filled message of the type for the service and request,
 * writes it and frees it; returns the write's outcome. For a command that
 * gets a reply (cancel-all, deregistration), *ticket receives the command's
 * place among the written commands of its type. */
url_downloader_error _url_downloader_send_message(int32_t type, url_downloader_h service, url_downloader_api_h api,
                                                  uint64_t* ticket);
/* Called by the processing thread once it has carried out a command of a
 * type that gets a reply: marks it done and posts the type's semaphore. */
void _url_downloader_post_reply(int32_t type, sem_t* reply);
/* Waits for a reply post on the semaphore, then until the caller's own
 * command (its ticket) has been carried out: the semaphores are shared by
 * every service, so the post that wakes a caller may be for another's. */
bool _url_downloader_wait_reply(sem_t* reply, int32_t type, uint64_t ticket);

/* ---- result delivery ---- */
bool _url_downloader_resp_callback(url_downloader_api_h api);

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
