/* libcurl's verbose trace on standard error, with credentials masked. */
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "url-downloader-curl.h"

namespace {

// The request headers whose values are credentials.
const char* const kSecretHeaders[] = {"Authorization:", "Proxy-Authorization:"};

// Writes one block of request headers, the credentials of an authorization
// header replaced by "***" (its scheme stays, to show which one was used).
void write_masked_headers(const char* data, size_t size, FILE* out)
{
    const char* end = data + size;
    for (const char* line = data; line < end;) {
        const char* next = (const char*)memchr(line, '\n', (size_t)(end - line));
        next = next != NULL ? next + 1 : end;
        size_t length = (size_t)(next - line);
        size_t shown = length;
        for (const char* name : kSecretHeaders) {
            const size_t n = strlen(name);
            if (length > n && strncasecmp(line, name, n) == 0) {
                // Keep "Name: Scheme", mask what follows the scheme.
                const char* value = line + n;
                while (value < next && *value == ' ')
                    ++value;
                while (value < next && *value != ' ' && *value != '\r' && *value != '\n')
                    ++value;
                shown = (size_t)(value - line);
                break;
            }
        }
        fwrite(line, 1, shown, out);
        if (shown != length) {
            size_t eol = line[length - 1] == '\n' ? 1 : 0;
            if (eol == 1 && length > 1 && line[length - 2] == '\r')
                eol = 2;
            fputs(" ***", out);
            fwrite(line + length - eol, 1, eol, out);
        }
        line = next;
    }
}

} // namespace

int url_downloader_curl_trace(CURL* easy, curl_infotype type, char* data, size_t size, void* user_data)
{
    (void)easy;
    (void)user_data;
    // libcurl's own verbose output, byte for byte, but for the credentials
    // it would print in the request's authorization headers.
    // Body and TLS bytes: libcurl prints none either.
    if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT)
        return 0;
    fwrite(type == CURLINFO_TEXT ? "* " : type == CURLINFO_HEADER_IN ? "< " : "> ", 2, 1, stderr);
    if (type == CURLINFO_HEADER_OUT)
        write_masked_headers(data, size, stderr);
    else
        fwrite(data, size, 1, stderr);
    return 0;
}
