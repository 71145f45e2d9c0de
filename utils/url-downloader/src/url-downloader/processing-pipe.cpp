#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "url-downloader-private.h"

int url_downloader_pipe_fd[2] = {-1, -1};
sem_t url_downloader_cancel_all_sem;
sem_t url_downloader_deregister_sem;

bool _url_downloader_wait_reply(sem_t* reply)
{
    int waited;
    while ((waited = sem_wait(reply)) != 0 && errno == EINTR) {
    }
    return waited == 0;
}

void url_downloader_write_pipe(const url_downloader_message_t* message, url_downloader_error* error)
{
    if (message == NULL || error == NULL) {
        UD_ERROR("Invalid input param");
        return;
    }
    *error = URL_DOWNLOADER_ERROR_NONE;

    if (!_url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_LOCK, error)) {
        UD_DEBUG("Mutex Locking Error, err_code=[%d]\n", (int)*error);
        return;
    }

    // One write per record: a record is far below PIPE_BUF, so the pipe takes
    // it whole or blocks until there is room; records never interleave.
    ssize_t bytes;
    do {
        bytes = write(url_downloader_pipe_fd[1], message, sizeof *message);
    } while (bytes < 0 && errno == EINTR);

    url_downloader_error outcome;
    if (bytes <= 0) {
        UD_DEBUG("Writing to pipe failed, bytes=[%d]\n", (int)bytes);
        outcome = URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED;
    } else {
        UD_DEBUG("Writing to pipe done, bytes=[%d]\n", (int)bytes);
        outcome = URL_DOWNLOADER_ERROR_NONE;
    }

    if (!_url_downloader_pipe_write_mutex_operation(URL_DOWNLOADER_MUTEX_UNLOCK, error)) {
        UD_DEBUG("Mutex Unlocking Error, err_code=[%d]\n", (int)*error);
        return;
    }
    *error = outcome;
}

void _url_downloader_read_pipe(url_downloader_message_t* message, url_downloader_error* error)
{
    UD_DEBUG("Waiting to Read from pipe...\n");
    ssize_t bytes;
    do {
        bytes = read(url_downloader_pipe_fd[0], message, sizeof *message);
    } while (bytes < 0 && errno == EINTR);

    if (bytes <= 0) {
        UD_DEBUG("Error in reading message %d\n", (int)bytes);
        perror("pipe");
        *error = URL_DOWNLOADER_ERROR_PIPE_READ_FAILED;
        return;
    }
    UD_DEBUG("Message read successfully...bytes=[%d]\n", (int)bytes);
    *error = URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error _url_downloader_send_message(int32_t type, url_downloader_h service, url_downloader_api_h api)
{
    url_downloader_message_t* message = (url_downloader_message_t*)calloc(1, sizeof(url_downloader_message_t));
    UD_ASSERT_ALLOC(message);
    message->type = type;
    message->service = service;
    message->api = api;
    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    url_downloader_write_pipe(message, &error);
    free(message);
    return error;
}
