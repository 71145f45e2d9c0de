/* The public calls that ask for a download and cancel one or all. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "library-lifecycle.h"
#include "request-ledger.h"

url_downloader_error url_downloader_download(url_downloader_h service, const char* filePath, const char* url,
                                             bool useCache, const void* userData, url_downloader_api_h* handle)
{
    UD_BEGIN();
    if (service == NULL) {
        UD_ERROR("NULL service\n");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    if (handle == NULL) {
        UD_ERROR("NULL api-handle");
        return URL_DOWNLOADER_ERROR_INVALID_API_HANDLE;
    }
    *handle = NULL;
    UdPublicCall call;
    url_downloader_error checked = call.CheckService(service);
    if (checked != URL_DOWNLOADER_ERROR_NONE) {
        UD_ERROR("%s", UdPublicCall::Refusal(checked));
        return checked;
    }
    if (filePath == NULL) {
        UD_ERROR("NULL filename");
        return URL_DOWNLOADER_ERROR_INVALID_FILE_PATH;
    }
    if (url == NULL) {
        UD_ERROR("NULL URL");
        return URL_DOWNLOADER_ERROR_INVALID_URL;
    }

    url_downloader_api_h api = _url_downloader_new_request(service, filePath, url, useCache, userData);
    UD_DEBUG("URL Downloader requested cache[%d], url[%s] filename[%s] \n", (int)useCache, url, filePath);

    // The service is checked again where the entry is added, in one locked
    // section: it may have been deregistered since the check above.
    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    if (!_url_downloader_prepend_request_list(service, api, &error)) {
        if (error == URL_DOWNLOADER_ERROR_INVALID_PARAMETER)
            UD_ERROR("Invalid service");
        else
            UD_ERROR("Appending request to the list failed");
        _url_downloader_discard_request(api);
        return error;
    }

    if (!_url_downloader_send_message(URL_DOWNLOADER_MSG_DOWNLOAD_REQUEST, service, api, NULL, &error)) {
        UD_ERROR("Writing message to pipe failed");
        _url_downloader_withdraw_request(api);
        return error;
    }
    *handle = api;
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error url_downloader_cancel_request(url_downloader_h service, url_downloader_api_h api)
{
    UD_BEGIN();
    UD_DEBUG("api-handle is %ld", (long)(intptr_t)api);
    if (service == NULL) {
        UD_ERROR("NULL service");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    UdPublicCall call;
    url_downloader_error checked = call.CheckService(service);
    if (checked != URL_DOWNLOADER_ERROR_NONE) {
        UD_ERROR("%s", UdPublicCall::Refusal(checked));
        return checked;
    }
    // Pinned until its cancel message is handled, so that the address
    // cannot be taken by a new request before then.
    if (!_url_downloader_pin_for_cancel(api)) {
        UD_ERROR("Invalid api handle");
        return URL_DOWNLOADER_ERROR_INVALID_API_HANDLE;
    }
    url_downloader_error error = URL_DOWNLOADER_ERROR_NONE;
    if (!_url_downloader_send_message(URL_DOWNLOADER_MSG_CANCEL_REQUEST, service, api, NULL, &error)) {
        _url_downloader_unpin_cancel(api);
        return error;
    }
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error url_downloader_cancel_all_requests(url_downloader_h service)
{
    UD_BEGIN();
    if (service == NULL) {
        UD_ERROR("NULL service");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    {
        UdPublicCall call;
        url_downloader_error error = call.CheckService(service);
        if (error != URL_DOWNLOADER_ERROR_NONE) {
            UD_ERROR("%s", UdPublicCall::Refusal(error));
            return error;
        }
        uint64_t ticket = 0;
        if (!_url_downloader_send_message(URL_DOWNLOADER_MSG_CANCEL_ALL_REQUEST, service, NULL, &ticket, &error))
            return error;
        UD_DEBUG("Waiting till all the requests are cancelled by processing thread");
        if (_url_downloader_wait_reply(URL_DOWNLOADER_MSG_CANCEL_ALL_REQUEST, ticket))
            UD_DEBUG("Cancelled all the requests");
    }
    // A callback of the service that began before the sweep may still be
    // running on the main loop's thread; the caller may free what it uses
    // once this returns.
    _url_downloader_wait_for_deliveries(service);
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}
