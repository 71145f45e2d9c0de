/* The header callback: the expiry time from Expires and Cache-Control max-age. */
#include <glib.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

namespace {
// libcurl hands over one header line without a terminating NUL, so every
// search and copy is bounded by the line's end.
const char* find_in(const char* begin, const char* end, const char* needle)
{
    size_t needle_len = strlen(needle);
    return (const char*)memmem(begin, (size_t)(end - begin), needle, needle_len);
}

void copy_bounded(char* buffer, const char* from, const char* end, size_t max)
{
    size_t available = (size_t)(end - from);
    size_t n = available < max ? available : max;
    memcpy(buffer, from, n);
    buffer[n] = '\0';
}

const size_t kExpiresChars = 20; // "01 Dec 1994 16:00:00": the date without its zone
const size_t kMaxAgeFallbackChars = 20;

// Local-time reading of a broken-down date as 64-bit seconds. mktime first;
// where time_t is 32 bits it cannot hold dates from 2038 on, and GLib's
// 64-bit calendar reads those instead of letting them fall back to the
// default lifetime.
bool local_seconds(struct tm* tm, int64_t* seconds)
{
    tm->tm_isdst = -1; // mktime decides whether summer time applies
    struct tm copy = *tm;
    time_t t = mktime(&copy);
    if (t != (time_t)-1) {
        *seconds = (int64_t)t;
        return true;
    }
    GDateTime* date = g_date_time_new_local(tm->tm_year + 1900, tm->tm_mon + 1, tm->tm_mday, tm->tm_hour, tm->tm_min,
                                            (gdouble)tm->tm_sec);
    if (date == NULL)
        return false;
    *seconds = g_date_time_to_unix(date);
    g_date_time_unref(date);
    return true;
}

// Tried in this order; the value starts right after the first one found.
const char* const kCacheControlForms[] = {
    "Cache-Control: max-age=",
    "Cache-Control: public, max-age=",
    "Cache-Control: private, max-age=",
};
} // namespace

size_t url_downloader_header_parser(char* line, size_t size, size_t nmemb, void* user_data)
{
    if (user_data == NULL) {
        UD_ERROR("User_data is NULL. returning!");
        return 0;
    }
    url_downloader_curl_pvt_data* record = (url_downloader_curl_pvt_data*)user_data;
    size_t length = size * nmemb;
    if (line == NULL)
        return length;
    const char* end = line + length;
    char buffer[64];

    memset(buffer, 0, sizeof buffer);
    const char* expires = find_in(line, end, "Expires: ");
    const char* comma = expires != NULL ? find_in(expires, end, ", ") : NULL;
    if (comma != NULL) {
        copy_bounded(buffer, comma + 2, end, kExpiresChars);
        UD_DEBUG("Expirey string is : %s\n", buffer);
        struct tm tm;
        memset(&tm, 0, sizeof tm);
        if (strptime(buffer, "%d %b %Y %H:%M:%S", &tm) == NULL) {
            UD_ERROR("strptime failed");
            record->expiryTime = -1;
        } else {
            int64_t seconds = 0;
            if (!local_seconds(&tm, &seconds)) {
                UD_ERROR("mktime failed");
                record->expiryTime = -1;
            } else {
                record->expiryTime = seconds;
                UD_DEBUG("Expiry time using expiry header is : %" PRId64 "\n", record->expiryTime);
            }
        }
    }

    memset(buffer, 0, sizeof buffer);
    const char* value = NULL;
    for (const char* form : kCacheControlForms) {
        const char* found = find_in(line, end, form);
        if (found != NULL) {
            value = found + strlen(form);
            break;
        }
    }
    if (value == NULL)
        return length;

    const char* value_comma = (const char*)memchr(value, ',', (size_t)(end - value));
    size_t distance = value_comma != NULL ? (size_t)(value_comma - value) : 0;
    if (distance >= 1 && distance <= sizeof buffer - 1)
        copy_bounded(buffer, value, end, distance);
    else
        copy_bounded(buffer, value, end, kMaxAgeFallbackChars);
    UD_DEBUG("Expirey string is : %s\n", buffer);

    int64_t max_age = strtoll(buffer, NULL, 10);
    int64_t now = (int64_t)time(NULL);
    int64_t expiry;
    if (__builtin_add_overflow(now, max_age, &expiry))
        expiry = max_age > 0 ? INT64_MAX : INT64_MIN;
    record->expiryTime = expiry;
    UD_DEBUG("Expiry time using cache-control max age is: %" PRId64 "\n", record->expiryTime);
    return length;
}
