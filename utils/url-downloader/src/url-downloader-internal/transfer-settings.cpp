/* A service's extra transfer settings: copying them and setting them on a transfer. */
#include <stdlib.h>
#include <string.h>

#include "transfer-settings.h"

namespace {
const char* copy_string(const char* text)
{
    if (text == NULL)
        return NULL;
    char* copy = strdup(text);
    UD_ASSERT_ALLOC(copy);
    return copy;
}
} // namespace

void _url_downloader_copy_settings(url_downloader_transfer_settings_t* dst,
                                   const url_downloader_transfer_settings_t* src)
{
    *dst = *src;
    dst->transport.caFile = copy_string(src->transport.caFile);
    dst->transport.caFolder = copy_string(src->transport.caFolder);
}

void _url_downloader_clear_settings(url_downloader_transfer_settings_t* settings)
{
    free((void*)settings->transport.caFile);
    free((void*)settings->transport.caFolder);
    memset(settings, 0, sizeof *settings);
}

void _url_downloader_apply_settings(CURL* easy, const url_downloader_transfer_settings_t* settings,
                                    url_downloader_curl_pvt_data* record)
{
    const url_downloader_transport_t& transport = settings->transport;
    if (transport.verifyPeer) {
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
        if (transport.caFile != NULL)
            curl_easy_setopt(easy, CURLOPT_CAINFO, transport.caFile);
        if (transport.caFolder != NULL)
            curl_easy_setopt(easy, CURLOPT_CAPATH, transport.caFolder);
    }
    if (transport.httpOnly) // for every redirection as well
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");

    const url_downloader_limits_t& limits = settings->limits;
    if (limits.connectTimeout > 0)
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, (long)limits.connectTimeout);
    if (limits.stallTimeout > 0) {
        // Less than a byte a second over that long: a server that went
        // silent, before its headers as well as in the middle of a body.
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, (long)limits.stallTimeout);
    }
    if (limits.maxRedirects != 0)
        curl_easy_setopt(easy, CURLOPT_MAXREDIRS, limits.maxRedirects < 0 ? 0L : (long)limits.maxRedirects);
    if (limits.maxBodySize > 0) {
        // libcurl refuses a body announced too large before it starts; the
        // body writer stops one that grows past the limit.
        curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, (curl_off_t)limits.maxBodySize);
        record->maxBodySize = limits.maxBodySize;
    }
}
