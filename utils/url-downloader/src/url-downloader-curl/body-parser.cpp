#include <stdio.h>
#include <stdlib.h>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
// Bodies announced larger than 64 KiB are written through a buffer of their
// own, 64 KiB or (past 1 MiB) 256 KiB, so that each of libcurl's chunks costs
// one write or less and a GiB takes thousands of write calls instead of a
// hundred thousand. Smaller bodies keep stdio's default: thousands of small
// transfers at once must not cost a large buffer each.
const curl_off_t kMediumBody = 64 * 1024;
const curl_off_t kLargeBody = 1024 * 1024;

void buffer_large_body(url_downloader_curl_pvt_data* record)
{
    curl_off_t length = -1;
    if (record->easyHandle == NULL ||
        curl_easy_getinfo(record->easyHandle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK ||
        length <= kMediumBody)
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
