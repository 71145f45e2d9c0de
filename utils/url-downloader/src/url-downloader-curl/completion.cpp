#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <vector>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
// Response messages built on this thread and not yet written. Only the
// thread that built them writes them, so no lock is needed.
struct Outbox {
    std::vector<url_downloader_message_t*> messages;
    ~Outbox()
    {
        // A thread that ends without flushing must not leak its messages.
        for (url_downloader_message_t* message : messages) {
            UD_ERROR_AS("_url_downloader_flush_responses", "Dropping unsent response for api-handle %ld",
                        (long)(intptr_t)message->api);
            free(message->info);
            free(message);
        }
    }
};
thread_local Outbox outbox;

} // namespace

void _url_downloader_response_cb(CURL* easy_handle, void* user_data, CURLcode result)
{
    UD_BEGIN();
    if (easy_handle == NULL || user_data == NULL) {
        UD_ERROR("Invalid input param");
        return;
    }
    url_downloader_curl_pvt_data* data = (url_downloader_curl_pvt_data*)user_data;

    // stdio buffers the last chunk of the body: a full disk shows up here.
    bool close_failed = !_url_downloader_close_file(data);

    long status = 0;
    curl_easy_getinfo(easy_handle, CURLINFO_RESPONSE_CODE, &status);

    url_downloader_response_info_t* info =
        (url_downloader_response_info_t*)calloc(1, sizeof(url_downloader_response_info_t));
    UD_ASSERT_ALLOC(info);
    url_downloader_message_t* message = (url_downloader_message_t*)calloc(1, sizeof(url_downloader_message_t));
    UD_ASSERT_ALLOC(message);
    message->type = URL_DOWNLOADER_MSG_DOWNLOAD_RESPONSE;
    message->api = data->apiHandle;
    message->info = info;

    if (data->fileSize <= 0 || status != 200) {
        UD_ERROR("Downloaded failed with http status code as %ld", status);
        info->error = URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED;
    } else if (result != CURLE_OK) {
        UD_ERROR("Some error with curl happened: Curl error code %d\n", (int)result);
        info->error = URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED;
    } else if (close_failed) {
        UD_ERROR("Failed to write data to:%s\n", data->filePath != NULL ? data->filePath : "");
        info->error = URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED;
    } else {
        sync();
        info->fileSize = data->fileSize;
        info->expiryTime = data->expiryTime;
    }
    UD_DEBUG("Download done for api-handle %ld, error=[%d]\n", (long)(intptr_t)data->apiHandle, (int)info->error);

    outbox.messages.push_back(message);
    UD_END();
}

void _url_downloader_flush_responses(void)
{
    std::vector<url_downloader_message_t*> pending;
    pending.swap(outbox.messages);
    for (url_downloader_message_t* message : pending) {
        url_downloader_error err = URL_DOWNLOADER_ERROR_NONE;
        url_downloader_write_pipe(message, &err);
        if (err != URL_DOWNLOADER_ERROR_NONE) {
            // Nobody will receive the info record; it is still ours.
            UD_ERROR("Response for api-handle %ld could not be sent, error=[%d]", (long)(intptr_t)message->api,
                     (int)err);
            free(message->info);
        }
        free(message);
    }
}
