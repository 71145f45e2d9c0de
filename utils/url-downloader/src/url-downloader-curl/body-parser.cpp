#include <stdio.h>
#include <stdlib.h>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
// A body larger than this is written through a buffer of kLargeBuffer bytes,
// so that a GiB takes thousands of write calls instead of a hundred thousand.
// Small bodies keep stdio's default: thousands of transfers at once must not
// cost a large buffer each.
const curl_off_t kLargeBody = 1024 * 1024;
const size_t kLargeBuffer = 256 * 1024;

void buffer_large_body(url_downloader_curl_pvt_data* record)
{
    curl_off_t length = -1;
    if (record->easyHandle == NULL ||
        curl_easy_getinfo(record->easyHandle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK ||
        length <= kLargeBody)
        return;
    record->fileBuffer = (char*)malloc(kLargeBuffer);
    if (record->fileBuffer != NULL && setvbuf(record->fileHandle, record->fileBuffer, _IOFBF, kLargeBuffer) != 0) {
        free(record->fileBuffer);
        record->fileBuffer = NULL;
    }
}
} // namespace

bool _url_downloader_close_file(url_downloader_curl_pvt_data* record)
{
    bool closed = true;
    if (record->fileHandle != NULL) {
        closed = fclose(record->fileHandle) == 0;
        record->fileHandle = NULL;
    }
    free(record->fileBuffer); // only after the close, which flushes it
    record->fileBuffer = NULL;
    return closed;
}

size_t url_downloader_body_parser(void* data, size_t size, size_t nmemb, void* user_data)
{
    if (user_data == NULL) {
        UD_ERROR("User_data is NULL. returning!");
        return 0;
    }
    url_downloader_curl_pvt_data* record = (url_downloader_curl_pvt_data*)user_data;

    // Opened on the first chunk only, so an empty body creates no file; "wb"
    // truncates whatever was there before.
    if (record->fileHandle == NULL) {
        if (record->filePath == NULL) {
            UD_ERROR("No Filename to write data\n");
            return 0;
        }
        record->fileHandle = fopen(record->filePath, "wb");
        if (record->fileHandle == NULL) {
            UD_ERROR("Failed to write data to:%s\n", record->filePath);
            return 0;
        }
        buffer_large_body(record);
    }

    size_t written = fwrite(data, size, nmemb, record->fileHandle);
    record->fileSize += (int64_t)written;
    return written;
}
