#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "url-downloader-private.h"

int url_downloader_pipe_fd[2] = {-1, -1};
sem_t url_downloader_cancel_all_sem;
sem_t url_downloader_deregister_sem;

namespace {
pthread_mutex_t pipe_write_lock;
bool pipe_write_lock_initialised;

// Commands that get a reply, counted by type: written (under
// pipe_write_lock, so in pipe order) and carried out (by the processing
// thread, in the same order). A caller's ticket is its command's number.
// They only grow, across restarts too: every such command written is carried
// out before the clean-up message, since finalization waits for the callers.
uint64_t replies_written[2];
uint64_t replies_done[2];
std::mutex reply_lock;
std::condition_variable reply_done;

int reply_slot(int32_t type)
{
    if (type == URL_DOWNLOADER_MSG_CANCEL_ALL_REQUEST)
        return 0;
    if (type == URL_DOWNLOADER_MSG_DEREGISTER_SERVICE)
        return 1;
    return -1;
}

// Writes one record; the caller holds pipe_write_lock.
ssize_t write_record(const url_downloader_message_t* message)
{
    // One write per record: a record is far below PIPE_BUF, so the pipe takes
    // it whole or blocks until there is room; records never interleave.
    ssize_t bytes;
    do {
        bytes = write(url_downloader_pipe_fd[1], message, sizeof *message);
    } while (bytes < 0 && errno == EINTR);
    return bytes;
}

void write_pipe(const url_downloader_message_t* message, url_downloader_error* error, uint64_t* ticket)
{
    *error = URL_DOWNLOADER_ERROR_NONE;
    UdScopedLock lock(_url_downloader_pipe_write_mutex_operation);
    if (!lock.Held()) {
        *error = lock.Error();
        UD_DEBUG_AS("url_downloader_write_pipe", "Mutex Locking Error, err_code=[%d]\n", (int)*error);
        return;
    }
    ssize_t bytes = write_record(message);
    url_downloader_error outcome = URL_DOWNLOADER_ERROR_NONE;
    if (bytes <= 0) {
        UD_DEBUG_AS("url_downloader_write_pipe", "Writing to pipe failed, bytes=[%d]\n", (int)bytes);
        outcome = URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED;
    } else {
        UD_DEBUG_AS("url_downloader_write_pipe", "Writing to pipe done, bytes=[%d]\n", (int)bytes);
        int slot = reply_slot(message->type);
        if (slot >= 0) { // counted whoever writes it, or the tickets drift
            std::lock_guard<std::mutex> guard(reply_lock);
            uint64_t number = ++replies_written[slot];
            if (ticket != NULL)
                *ticket = number;
        }
    }
    if (!lock.Release()) {
        *error = lock.Error();
        UD_DEBUG_AS("url_downloader_write_pipe", "Mutex Unlocking Error, err_code=[%d]\n", (int)*error);
        return;
    }
    *error = outcome;
}
} // namespace

bool _url_downloader_pipe_write_mutex_operation(url_downloader_mutex_operation_t operation, url_downloader_error* error)
{
    return _url_downloader_named_mutex_operation(&pipe_write_lock, &pipe_write_lock_initialised, __FUNCTION__,
                                                 "pipe_write_lock", operation, error);
}

void _url_downloader_post_reply(int32_t type, sem_t* reply)
{
    int slot = reply_slot(type);
    if (slot >= 0) {
        std::lock_guard<std::mutex> guard(reply_lock);
        replies_done[slot]++;
        reply_done.notify_all();
    }
    sem_post(reply);
}

bool _url_downloader_wait_reply(sem_t* reply, int32_t type, uint64_t ticket)
{
    int waited;
    while ((waited = sem_wait(reply)) != 0 && errno == EINTR) {
    }
    int slot = reply_slot(type);
    if (slot >= 0) {
        std::unique_lock<std::mutex> guard(reply_lock);
        reply_done.wait(guard, [slot, ticket] { return replies_done[slot] >= ticket; });
    }
    return waited == 0;
}

void url_downloader_write_pipe(const url_downloader_message_t* message, url_downloader_error* error)
{
    if (message == NULL || error == NULL) {
        UD_ERROR("Invalid input param");
        return;
    }
    write_pipe(message, error, NULL);
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

url_downloader_error _url_downloader_send_message(int32_t type, url_downloader_h service, url_downloader_api_h api,
                                                  uint64_t* ticket)
{
    url_downloader_message_t* message = (url_downloader_message_t*)calloc(1, sizeof(url_downloader_message_t));
    UD_ASSERT_ALLOC(message);
    message->type = type;
    message->service = service;
    message->api = api;
    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    write_pipe(message, &error, ticket);
    free(message);
    return error;
}
