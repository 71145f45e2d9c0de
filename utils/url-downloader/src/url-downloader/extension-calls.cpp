/* The extension's public calls: transport security, limits, trace, reasons and progress. */
#include <dirent.h>
#include <fcntl.h>
#include <stdint.h>
#include <unistd.h>

#include <curl/curl.h>

#include "library-lifecycle.h"
#include "regular-file.h"
#include "request-ledger.h"
#include "url-downloader-curl.h"
#include "url-downloader-extension.h"

namespace {

bool readable_file(const char* path)
{
    // Never a FIFO or a device: libcurl would block on it in the transfer thread.
    const int fd = ud_open_regular_file(path, O_RDONLY, 0, NULL);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

bool readable_folder(const char* path)
{
    DIR* folder = opendir(path);
    if (folder == NULL)
        return false;
    closedir(folder);
    return true;
}

bool valid_time(int32_t seconds) { return seconds >= 0 && seconds <= URL_DOWNLOADER_LIMIT_MAX_SECONDS; }

// Stores the settings for a registered service (the ledger checks that in
// the same locked section); the refusals' log lines are the caller's, so
// that they name the public call.
url_downloader_error store(url_downloader_h service, const url_downloader_transport_t* transport,
                           const url_downloader_limits_t* limits, const char** refusal)
{
    UdPublicCall call;
    url_downloader_error error = call.CheckLibrary();
    if (error == URL_DOWNLOADER_ERROR_NONE && !_url_downloader_store_settings(service, transport, limits))
        error = URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    if (error != URL_DOWNLOADER_ERROR_NONE)
        *refusal = UdPublicCall::Refusal(error);
    return error;
}

} // namespace

url_downloader_error url_downloader_set_transport(url_downloader_h service, const url_downloader_transport_t* transport)
{
    UD_BEGIN();
    if (service == NULL) {
        UD_ERROR("NULL service");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    if (transport == NULL) {
        UD_ERROR("NULL transport settings");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    if ((transport->caFile != NULL || transport->caFolder != NULL) && !transport->verifyPeer) {
        UD_ERROR("A CA file or folder needs certificate verification on");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    if (transport->caFile != NULL && !readable_file(transport->caFile)) {
        UD_ERROR("CA file %s is not a readable file", transport->caFile);
        return URL_DOWNLOADER_ERROR_INVALID_FILE_PATH;
    }
    if (transport->caFolder != NULL && !readable_folder(transport->caFolder)) {
        UD_ERROR("CA folder %s is not a readable folder", transport->caFolder);
        return URL_DOWNLOADER_ERROR_INVALID_FILE_PATH;
    }
    const char* refusal = NULL;
    url_downloader_error error = store(service, transport, NULL, &refusal);
    if (error != URL_DOWNLOADER_ERROR_NONE) {
        UD_ERROR("%s", refusal);
        return error;
    }
    UD_DEBUG("Transport of service %ld: verify=%d, CA file=%s, CA folder=%s, http only=%d", (long)(intptr_t)service,
             (int)transport->verifyPeer, ud_printable(transport->caFile), ud_printable(transport->caFolder),
             (int)transport->httpOnly);
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error url_downloader_set_limits(url_downloader_h service, const url_downloader_limits_t* limits)
{
    UD_BEGIN();
    if (service == NULL) {
        UD_ERROR("NULL service");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    if (limits == NULL) {
        UD_ERROR("NULL limits");
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    if (!valid_time(limits->connectTimeout) || !valid_time(limits->stallTimeout) || limits->maxRedirects < -1 ||
        limits->maxBodySize < 0) {
        UD_ERROR("Invalid limits: connect=%d s, stall=%d s, redirects=%d, body=%lld bytes", (int)limits->connectTimeout,
                 (int)limits->stallTimeout, (int)limits->maxRedirects, (long long)limits->maxBodySize);
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    const char* refusal = NULL;
    url_downloader_error error = store(service, NULL, limits, &refusal);
    if (error != URL_DOWNLOADER_ERROR_NONE) {
        UD_ERROR("%s", refusal);
        return error;
    }
    UD_DEBUG("Limits of service %ld: connect=%d s, stall=%d s, redirects=%d, body=%lld bytes", (long)(intptr_t)service,
             (int)limits->connectTimeout, (int)limits->stallTimeout, (int)limits->maxRedirects,
             (long long)limits->maxBodySize);
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error url_downloader_set_trace(url_downloader_trace_t mode)
{
    UD_BEGIN();
    if (mode != URL_DOWNLOADER_TRACE_STDERR && mode != URL_DOWNLOADER_TRACE_OFF && mode != URL_DOWNLOADER_TRACE_LOG) {
        UD_ERROR("Invalid trace mode %d", (int)mode);
        return URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    }
    _url_downloader_set_trace_mode((int)mode);
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

namespace {
// The checks of the two calls that read a request: the arguments, the
// library up, then the ledger's read, which checks the service and the
// request. On a refusal *refusal is the line for the caller to log.
template <typename Out>
url_downloader_error read_request(url_downloader_h service, url_downloader_api_h request, Out* out,
                                  url_downloader_error (*read)(url_downloader_h, url_downloader_api_h, Out*),
                                  const char* null_out, const char* bad_request, const char** refusal)
{
    url_downloader_error error = URL_DOWNLOADER_ERROR_INVALID_PARAMETER;
    if (service == NULL || out == NULL) {
        *refusal = service == NULL ? "NULL service" : null_out;
        return error;
    }
    UdPublicCall call;
    error = call.CheckLibrary();
    if (error == URL_DOWNLOADER_ERROR_NONE)
        error = read(service, request, out);
    if (error != URL_DOWNLOADER_ERROR_NONE)
        *refusal = error == URL_DOWNLOADER_ERROR_INVALID_API_HANDLE ? bad_request : UdPublicCall::Refusal(error);
    return error;
}
} // namespace

url_downloader_error url_downloader_get_reason(url_downloader_h service, url_downloader_api_h request,
                                               url_downloader_reason_t* reason)
{
    UD_BEGIN();
    const char* refusal = NULL;
    const url_downloader_error error = read_request(service, request, reason, _url_downloader_read_reason,
                                                    "NULL reason", "Api-handle not in its callback", &refusal);
    if (error != URL_DOWNLOADER_ERROR_NONE) {
        UD_ERROR("%s", refusal);
        return error;
    }
    reason->curlText = curl_easy_strerror((CURLcode)reason->curlCode);
    UD_END();
    return URL_DOWNLOADER_ERROR_NONE;
}

url_downloader_error url_downloader_get_progress(url_downloader_h service, url_downloader_api_h request,
                                                 url_downloader_progress_t* progress)
{
    // No Begin/End lines: clients poll this many times a second.
    const char* refusal = NULL;
    const url_downloader_error error = read_request(service, request, progress, _url_downloader_read_progress,
                                                    "NULL progress", "Invalid api handle", &refusal);
    if (error != URL_DOWNLOADER_ERROR_NONE)
        UD_ERROR("%s", refusal);
    return error;
}
