/* The processing pipe: its descriptors, every command written and read, and the replies. */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "url-downloader-private.h"

sem_t url_downloader_cancel_all_sem;
sem_t url_downloader_deregister_sem;

UdLock pipe_write_lock = {PTHREAD_MUTEX_INITIALIZER, false, _url_downloader_pipe_write_mutex_operation};

namespace {
// [0] read, [1] write; -1 while the library is down. Made by the first
// registration and closed by finalization, when no other thread runs.
int pipe_fd[2] = {-1, -1};

// Commands that get a reply, counted by type: written (under
// pipe_write_lock, so in pipe order) and carried out (by the processing
// thread, in the same order). A caller's ticket is its command's number.
// They only grow, across restarts too: every such command written is carried
// out before the clean-up message, since finalization waits for the callers.
uint64_t replies_written[2];
uint64_t replies_done[2];
std::mutex reply_lock;
std::condition_variable reply_done;
// The number of the last command with a reply that this thread wrote.
thread_local uint64_t last_ticket;

int reply_slot(int32_t type)
{
    if (type == URL_DOWNLOADER_MSG_CANCEL_ALL_REQUEST)
        return 0;
    if (type == URL_DOWNLOADER_MSG_DEREGISTER_SERVICE)
        return 1;
    return -1;
}

// Each type's semaphore, by slot.
sem_t* const reply_sems[2] = {&url_downloader_cancel_all_sem, &url_downloader_deregister_sem};

// Writes one record; the caller holds pipe_write_lock.
ssize_t write_record(const url_downloader_message_t* message) UD_REQUIRES(pipe_write_lock)
{
    // One write per record: a record is far below PIPE_BUF, so the pipe takes
    // it whole or blocks until there is room; records never interleave.
    ssize_t bytes;
    do {
        bytes = write(pipe_fd[1], message, sizeof *message);
    } while (bytes < 0 && errno == EINTR);
    return bytes;
}

// Whether a command can be read within timeout_ms (-1: no limit), or
// ended_fd (when not -1) became readable first. *ended tells which.
bool wait_readable(int timeout_ms, int ended_fd, bool* ended)
{
    struct pollfd ready[2] = {{pipe_fd[0], POLLIN, 0}, {ended_fd, POLLIN, 0}};
    int woke;
    do {
        woke = poll(ready, ended_fd >= 0 ? 2 : 1, timeout_ms);
    } while (woke < 0 && errno == EINTR);
    if (ended != NULL)
        *ended = ended_fd >= 0 && (ready[1].revents & POLLIN) != 0;
    return woke > 0 && (ready[0].revents & (POLLIN | POLLHUP)) != 0;
}
} // namespace

bool _url_downloader_pipe_write_mutex_operation(url_downloader_mutex_operation_t operation, url_downloader_error* error)
{
    return _url_downloader_named_mutex_operation(&pipe_write_lock.mutex, &pipe_write_lock.initialised, __FUNCTION__,
                                                 "pipe_write_lock", operation, error);
}

bool _url_downloader_create_pipe(url_downloader_error* error)
{
    *error = URL_DOWNLOADER_ERROR_NONE;
    // Close-on-exec: the pipe is the library's own and must not leak into
    // programs that the client starts.
    if (pipe2(pipe_fd, O_CLOEXEC) != 0) {
        perror("pipeerror:");
        UD_ERROR("Pipe creattion failed\n");
        pipe_fd[0] = pipe_fd[1] = -1;
        *error = URL_DOWNLOADER_ERROR_PIPE_CREATION_FAILED;
        return false;
    }
    UD_DEBUG("Pipe created succesfully\n");
    return true;
}

void _url_downloader_close_pipe(void)
{
    for (int& fd : pipe_fd) {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
}

void _url_downloader_post_reply(int32_t type)
{
    const int slot = reply_slot(type);
    if (slot < 0)
        return;
    {
        std::lock_guard<std::mutex> guard(reply_lock);
        replies_done[slot]++;
        reply_done.notify_all();
    }
    sem_post(reply_sems[slot]);
}

bool _url_downloader_wait_reply(int32_t type, uint64_t ticket)
{
    const int slot = reply_slot(type);
    if (slot < 0)
        return false;
    int waited;
    while ((waited = sem_wait(reply_sems[slot])) != 0 && errno == EINTR) {
    }
    std::unique_lock<std::mutex> guard(reply_lock);
    reply_done.wait(guard, [slot, ticket] { return replies_done[slot] >= ticket; });
    return waited == 0;
}

void url_downloader_write_pipe(const url_downloader_message_t* message, url_downloader_error* error)
{
    if (message == NULL || error == NULL) {
        UD_ERROR("Invalid input param");
        return;
    }
    *error = URL_DOWNLOADER_ERROR_NONE;
    UdScopedLock lock(pipe_write_lock);
    if (!lock.Held()) {
        *error = lock.Error();
        UD_DEBUG("Mutex Locking Error, err_code=[%d]\n", (int)*error);
        return;
    }
    ssize_t bytes = write_record(message);
    url_downloader_error outcome = URL_DOWNLOADER_ERROR_NONE;
    if (bytes <= 0) {
        UD_DEBUG("Writing to pipe failed, bytes=[%d]\n", (int)bytes);
        outcome = URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED;
    } else {
        UD_DEBUG("Writing to pipe done, bytes=[%d]\n", (int)bytes);
        int slot = reply_slot(message->type);
        if (slot >= 0) { // counted whoever writes it, or the tickets drift
            std::lock_guard<std::mutex> guard(reply_lock);
            last_ticket = ++replies_written[slot];
        }
    }
    if (!lock.Release()) {
        *error = lock.Error();
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
        bytes = read(pipe_fd[0], message, sizeof *message);
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

bool _url_downloader_wait_pipe(int timeout_ms) { return wait_readable(timeout_ms, -1, NULL); }

void _url_downloader_discard_response(url_downloader_message_t* message)
{
    free(message->info);
    message->info = NULL;
}

void _url_downloader_drain_pipe(int ended_fd)
{
    bool ended = ended_fd < 0;
    for (;;) {
        bool now_ended = false;
        // Until the end signal, wait as long as it takes; after it, what is
        // left is read without waiting.
        const bool readable = wait_readable(ended ? 0 : -1, ended ? -1 : ended_fd, &now_ended);
        ended = ended || now_ended;
        if (readable) {
            url_downloader_message_t message;
            memset(&message, 0, sizeof message);
            ssize_t bytes = read(pipe_fd[0], &message, sizeof message);
            if (bytes == (ssize_t)sizeof message)
                _url_downloader_discard_response(&message); // its request goes with the ledger
            else if (bytes <= 0 && !(bytes < 0 && errno == EINTR))
                return;
        } else if (ended) {
            return;
        }
    }
}

bool _url_downloader_send_message(int32_t type, url_downloader_h service, url_downloader_api_h api, uint64_t* ticket,
                                  url_downloader_error* error)
{
    url_downloader_message_t* message = (url_downloader_message_t*)calloc(1, sizeof(url_downloader_message_t));
    UD_ASSERT_ALLOC(message);
    message->type = type;
    message->service = service;
    message->api = api;
    *error = URL_DOWNLOADER_ERROR_NONE;
    url_downloader_write_pipe(message, error);
    free(message);
    if (ticket != NULL)
        *ticket = last_ticket;
    return *error == URL_DOWNLOADER_ERROR_NONE;
}

void _url_downloader_post_response(url_downloader_api_h api, const url_downloader_response_info_t* report)
{
    url_downloader_response_info_t* info =
        (url_downloader_response_info_t*)calloc(1, sizeof(url_downloader_response_info_t));
    UD_ASSERT_ALLOC(info);
    *info = *report;
    url_downloader_message_t message;
    memset(&message, 0, sizeof message);
    message.type = URL_DOWNLOADER_MSG_DOWNLOAD_RESPONSE;
    message.api = api;
    message.info = info;
    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    url_downloader_write_pipe(&message, &error);
    if (error != URL_DOWNLOADER_ERROR_NONE) {
        // Nobody will receive the info record; it is still ours.
        UD_ERROR("Response for api-handle %ld could not be sent, error=[%d]", (long)(intptr_t)api, (int)error);
        _url_downloader_discard_response(&message);
    }
    // Written, the info record is the processing thread's: it travels by
    // address through the pipe, which the analyzer cannot follow.
} // NOLINT(clang-analyzer-unix.Malloc)
