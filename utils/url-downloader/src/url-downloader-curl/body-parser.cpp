/* The body callback: writes a response body into its destination file. */
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "regular-file.h"
#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
// Bodies announced larger than 64 KiB are written through a buffer of their
// own, 64 KiB or (past 1 MiB) 256 KiB, so that each of libcurl's chunks costs
// one write or less and a GiB takes thousands of write calls instead of a
// hundred thousand. Smaller bodies keep stdio's default: thousands of small
// transfers at once must not cost a large buffer each.
const curl_off_t kMediumBody = (curl_off_t)64 * 1024;
const curl_off_t kLargeBody = (curl_off_t)1024 * 1024;

// Applications follow a download by watching its file, and a cancelled one
// resumes from what reached it: bytes may wait in a buffer this long at most
// (checked as chunks arrive and each time the transfer loop wakes). A chunk
// that comes this long after the previous one is written at once: a slow
// stream gains nothing from a buffer.
const int64_t kFlushDelayMs = 100;

// The records whose buffers hold bytes. Touched only under curl_mutex_lock
// (body writes, closes and the loop's check all run under it); short, since
// only transfers with a connection write bodies.
GPtrArray* buffered UD_GUARDED_BY(curl_mutex_lock) = g_ptr_array_new();

// Destination files open now, oldest first. One perform may run many short
// transfers one after another on a kept connection, and their files are only
// closed when the loop handles their completion after it: past one file per
// connection, the oldest is closed early and reopened to append should more
// of its body come, so the descriptors stay bounded whatever libcurl does.
// Same lock as above.
GPtrArray* open_bodies UD_GUARDED_BY(curl_mutex_lock) = g_ptr_array_new();

void set_buffered(url_downloader_curl_pvt_data* record, int64_t since) UD_REQUIRES(curl_mutex_lock)
{
    if ((record->bufferedSinceMs != 0) != (since != 0)) {
        if (since != 0)
            g_ptr_array_add(buffered, record);
        else
            g_ptr_array_remove(buffered, record);
    }
    record->bufferedSinceMs = since;
}

void flush_body(url_downloader_curl_pvt_data* record) UD_REQUIRES(curl_mutex_lock)
{
    // A failed write shows again at the close, which fails the transfer.
    fflush(record->fileHandle);
    set_buffered(record, 0);
}

/* The destination as a stream: only a regular file, created or truncated (or
 * appended to when reopened). This runs on the transfer thread under the curl
 * lock, so it must never block: a FIFO, a device, a folder or a /proc entry
 * fails this transfer at once and holds up no other. */
FILE* open_destination(const char* path, bool append)
{
    const int fd = ud_open_regular_file(path, O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC), 0666, NULL);
    if (fd < 0)
        return NULL;
    FILE* stream = fdopen(fd, append ? "ab" : "wb");
    if (stream == NULL)
        close(fd);
    return stream;
}

// The body's announced length, -1 when unknown.
curl_off_t announced_length(const url_downloader_curl_pvt_data* record)
{
    curl_off_t length = -1;
    if (record->easyHandle == NULL ||
        curl_easy_getinfo(record->easyHandle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK)
        return -1;
    return length;
}

void buffer_large_body(url_downloader_curl_pvt_data* record, curl_off_t length)
{
    if (length <= kMediumBody)
        return;
    const size_t size = length > kLargeBody ? 256 * 1024 : 64 * 1024;
    record->fileBuffer = (char*)malloc(size);
    if (record->fileBuffer != NULL && setvbuf(record->fileHandle, record->fileBuffer, _IOFBF, size) != 0) {
        free(record->fileBuffer);
        record->fileBuffer = NULL;
    }
}
} // namespace

bool _url_downloader_close_file(url_downloader_curl_pvt_data* record)
{
    if (record->fileHandle != NULL) {
        record->writeFailed |= fclose(record->fileHandle) != 0;
        record->fileHandle = NULL;
        g_ptr_array_remove(open_bodies, record);
    }
    const bool closed = !record->writeFailed;
    set_buffered(record, 0);
    free(record->fileBuffer); // only after the close, which flushes it
    record->fileBuffer = NULL;
    return closed;
}

void _url_downloader_flush_stale_bodies(void)
{
    const int64_t now = ud_monotonic_ms();
    // flush_body takes the record out of the list: walk it from its end.
    for (guint i = buffered->len; i-- > 0;) {
        url_downloader_curl_pvt_data* record = (url_downloader_curl_pvt_data*)g_ptr_array_index(buffered, i);
        if (now - record->bufferedSinceMs >= kFlushDelayMs)
            flush_body(record);
    }
}

size_t url_downloader_body_parser(void* data, size_t size, size_t nmemb, void* user_data)
{
    if (user_data == NULL) {
        UD_ERROR("User_data is NULL. returning!");
        return 0;
    }
    url_downloader_curl_pvt_data* record = (url_downloader_curl_pvt_data*)user_data;
    // A chunk that would take the body past its limit is not written (nor
    // is a file made for it): the transfer ends there.
    if (record->maxBodySize > 0 && record->fileSize + (int64_t)(size * nmemb) > record->maxBodySize) {
        UD_ERROR("Body of api-handle %ld passed its limit of %lld bytes", (long)(intptr_t)record->apiHandle,
                 (long long)record->maxBodySize);
        record->bodyTooLarge = true;
        return 0;
    }

    // Opened on the first chunk only, so an empty body creates no file; it
    // truncates whatever was there before. A file closed early is reopened.
    if (record->fileHandle == NULL) {
        if (record->filePath == NULL) {
            UD_ERROR("No Filename to write data\n");
            return 0;
        }
        if (open_bodies->len >= URL_DOWNLOADER_MAX_CONNECTIONS)
            _url_downloader_close_file((url_downloader_curl_pvt_data*)g_ptr_array_index(open_bodies, 0));
        record->fileHandle = open_destination(record->filePath, record->fileSize > 0);
        if (record->fileHandle == NULL) {
            UD_ERROR("Failed to write data to:%s\n", record->filePath);
            return 0;
        }
        g_ptr_array_add(open_bodies, record);
        const curl_off_t length = announced_length(record);
        buffer_large_body(record, length);
        if (record->progress != NULL)
            ud_progress_set_expected(record->progress, length);
    }

    const size_t before = __fpending(record->fileHandle);
    size_t written = fwrite(data, size, nmemb, record->fileHandle);
    record->fileSize += (int64_t)written;
    if (record->progress != NULL)
        ud_progress_set_received(record->progress, record->fileSize);

    const int64_t now = ud_monotonic_ms();
    const size_t pending = __fpending(record->fileHandle);
    const bool paused = now - record->lastChunkMs >= kFlushDelayMs; // also the first chunk
    record->lastChunkMs = now;
    if (pending == 0)
        set_buffered(record, 0);
    else if (paused || (record->bufferedSinceMs != 0 && now - record->bufferedSinceMs >= kFlushDelayMs))
        flush_body(record);
    else if (record->bufferedSinceMs == 0 || pending < before + written * size)
        set_buffered(record, now); // stdio wrote out what waited: only this chunk waits now
    return written;
}
