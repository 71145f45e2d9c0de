/* The end of a transfer: judging its outcome, reporting it upwards and tearing it down. */
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
url_downloader_response_sink_t response_sink = NULL;

// One finished transfer's report, not yet handed to the sink.
struct Report {
    url_downloader_api_h api;
    url_downloader_response_info_t info;
};

// Reports judged on this thread and not yet sent. Only the thread that judged
// them sends them, so no lock is needed; they are plain values, so a thread
// that ends with some unsent leaks nothing.
struct Outbox {
    GArray* reports = g_array_new(FALSE, FALSE, sizeof(Report));
    ~Outbox()
    {
        for (guint i = 0; i < reports->len; ++i)
            UD_ERROR("Dropping unsent response for api-handle %ld",
                     (long)(intptr_t)g_array_index(reports, Report, i).api);
        g_array_free(reports, TRUE);
    }
};
thread_local Outbox outbox;

} // namespace

void _url_downloader_set_response_sink(url_downloader_response_sink_t sink)
{
    __atomic_store_n(&response_sink, sink, __ATOMIC_RELEASE);
}

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

    Report report = {data->apiHandle, {}};
    url_downloader_response_info_t* info = &report.info;
    info->error = URL_DOWNLOADER_ERROR_NONE;
    info->httpStatus = (int32_t)status;
    info->bytesWritten = data->fileSize;
    // A body stopped at its limit, or lost at the close, shows as such
    // rather than as libcurl's write error or as no error at all.
    info->curlCode = data->bodyTooLarge                   ? (int32_t)CURLE_FILESIZE_EXCEEDED
                     : close_failed && result == CURLE_OK ? (int32_t)CURLE_WRITE_ERROR
                                                          : (int32_t)result;
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

    g_array_append_val(outbox.reports, report);
    UD_END();
}

void _url_downloader_flush_responses(void)
{
    // The sink never judges a transfer, so nothing is added meanwhile.
    const url_downloader_response_sink_t sink = __atomic_load_n(&response_sink, __ATOMIC_ACQUIRE);
    for (guint i = 0; i < outbox.reports->len; ++i) {
        const Report& report = g_array_index(outbox.reports, Report, i);
        if (sink != NULL)
            sink(report.api, &report.info);
        else
            UD_ERROR("Dropping unsent response for api-handle %ld", (long)(intptr_t)report.api);
    }
    g_array_set_size(outbox.reports, 0);
}

void _url_downloader_finish_transfer(UrlDownloader* engine, CURL* easy, url_downloader_curl_pvt_data* data,
                                     CURLcode result)
{
    bool listed = data != NULL && data->activeLink != NULL;
    if (listed) {
        // A detached record's request was already released by a cancellation:
        // it gets no report.
        if (data->apiHandle != NULL)
            _url_downloader_response_cb(easy, data, result);
        _url_downloader_teardown_transaction(engine, data);
        return;
    }
    // No record of ours: still take the easy handle out of the multi handle,
    // or it would stay there for good.
    UD_ERROR("Finished transfer has no active record");
    if (UrlDownloader::multiHandle == NULL || curl_multi_remove_handle(UrlDownloader::multiHandle, easy) == CURLM_OK)
        curl_easy_cleanup(easy);
}
