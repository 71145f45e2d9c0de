#include <stdio.h>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

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
    }

    size_t written = fwrite(data, size, nmemb, record->fileHandle);
    record->fileSize += (int64_t)written;
    return written;
}
