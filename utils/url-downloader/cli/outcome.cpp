// What a request's ending means to the person who ran the client.
#include "outcome.h"

#include <curl/curl.h>

namespace udcli {

namespace {

// libcurl's codes that mean the server's certificate or host name was not
// trusted, or the trust itself could not be set up.
bool IsTlsVerification(int code)
{
    switch (code) {
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
        return true;
    default:
        return false;
    }
}

bool IsNetwork(int code)
{
    switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_PROXY:
        return true;
    default:
        return false;
    }
}

int StatusOfCurlCode(int code)
{
    if (IsTlsVerification(code))
        return kExitTls;
    if (IsNetwork(code))
        return kExitNetwork;
    if (code == CURLE_WRITE_ERROR)
        return kExitFileIo;
    // Redirected too often: the server's answer is the fault.
    if (code == CURLE_TOO_MANY_REDIRECTS)
        return kExitServer;
    return kExitGeneric;
}

int Rank(int status)
{
    // 0, then 1, then the others from the highest number to the lowest.
    return status <= kExitGeneric ? status : 100 - status;
}

} // namespace

int WorseStatus(int a, int b) { return Rank(b) > Rank(a) ? b : a; }

Outcome Judge(int error, const url_downloader_reason_t& reason)
{
    Outcome outcome;
    if (error == URL_DOWNLOADER_ERROR_NONE) {
        outcome.ok = true;
        outcome.reason = reason.fromCache ? "cache" : "HTTP " + std::to_string(reason.httpStatus);
        return outcome;
    }
    if (error == URL_DOWNLOADER_ERROR_REQUEST_CANCELLED) {
        outcome.status = kExitGeneric;
        outcome.reason = "cancelled";
        return outcome;
    }
    if (reason.curlCode != 0) {
        outcome.status = StatusOfCurlCode(reason.curlCode);
        outcome.reason = "curl " + std::to_string(reason.curlCode) + ": " + reason.curlText;
        return outcome;
    }
    if (reason.httpStatus != 0) {
        // Only a 200 with a body is a download; anything else the server sent
        // (a 404 page, a 204) is its answer, not the file.
        outcome.status = kExitServer;
        outcome.reason = "HTTP " + std::to_string(reason.httpStatus);
        if (reason.httpStatus == 200)
            outcome.reason += ", empty body";
        outcome.errorPage = reason.bytesWritten > 0;
        return outcome;
    }
    outcome.status = kExitGeneric;
    outcome.reason = ErrorName(error);
    return outcome;
}

Outcome Refused(int error)
{
    Outcome outcome;
    outcome.status = error == URL_DOWNLOADER_ERROR_INVALID_FILE_PATH ? kExitFileIo : kExitGeneric;
    outcome.reason = std::string("refused: ") + ErrorName(error);
    return outcome;
}

const char* ErrorName(int error)
{
    switch (error) {
    case URL_DOWNLOADER_ERROR_NONE:
        return "URL_DOWNLOADER_ERROR_NONE";
    case URL_DOWNLOADER_ERROR_INVALID_PARAMETER:
        return "URL_DOWNLOADER_ERROR_INVALID_PARAMETER";
    case URL_DOWNLOADER_ERROR_INVALID_URL:
        return "URL_DOWNLOADER_ERROR_INVALID_URL";
    case URL_DOWNLOADER_ERROR_INVALID_FILE_PATH:
        return "URL_DOWNLOADER_ERROR_INVALID_FILE_PATH";
    case URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED:
        return "URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED";
    case URL_DOWNLOADER_ERROR_CACHE_CLEAN_FAILED:
        return "URL_DOWNLOADER_ERROR_CACHE_CLEAN_FAILED";
    case URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED:
        return "URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED";
    case URL_DOWNLOADER_ERROR_CACHE_SIZE_FAILED:
        return "URL_DOWNLOADER_ERROR_CACHE_SIZE_FAILED";
    case URL_DOWNLOADER_ERROR_PIPE_READ_FAILED:
        return "URL_DOWNLOADER_ERROR_PIPE_READ_FAILED";
    case URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED:
        return "URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED";
    case URL_DOWNLOADER_ERROR_PIPE_CREATION_FAILED:
        return "URL_DOWNLOADER_ERROR_PIPE_CREATION_FAILED";
    case URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED:
        return "URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED";
    case URL_DOWNLOADER_ERROR_MUTEX_LOCK_FAILED:
        return "URL_DOWNLOADER_ERROR_MUTEX_LOCK_FAILED";
    case URL_DOWNLOADER_ERROR_MUTEX_UNLOCK_FAILED:
        return "URL_DOWNLOADER_ERROR_MUTEX_UNLOCK_FAILED";
    case URL_DOWNLOADER_ERROR_THREAD_CREATION_FAILED:
        return "URL_DOWNLOADER_ERROR_THREAD_CREATION_FAILED";
    case URL_DOWNLOADER_ERROR_INVALID_API_HANDLE:
        return "URL_DOWNLOADER_ERROR_INVALID_API_HANDLE";
    case URL_DOWNLOADER_ERROR_REQUEST_CANCELLED:
        return "URL_DOWNLOADER_ERROR_REQUEST_CANCELLED";
    case URL_DOWNLOADER_ERROR_SERVICE_DESTROYING:
        return "URL_DOWNLOADER_ERROR_SERVICE_DESTROYING";
    case URL_DOWNLOADER_ERROR_INVALID_NETWORK_CONFIG:
        return "URL_DOWNLOADER_ERROR_INVALID_NETWORK_CONFIG";
    default:
        return "UNKNOWN_ERROR";
    }
}

} // namespace udcli
