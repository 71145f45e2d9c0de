/* libcurl's verbose trace, with credentials masked: on standard error, in the platform log, or nowhere. */
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "url-downloader-curl.h"

namespace {

int trace_mode = URL_DOWNLOADER_TRACE_STDERR;

// The request headers whose values are credentials.
const char* const kSecretHeaders[] = {"Authorization:", "Proxy-Authorization:"};

// One line of a trace block: `shown` bytes of it, then " ***" in place of a
// credential when masked, then its line end (`eol` bytes, none for a last
// line without one).
struct TraceLine {
    const char* text;
    size_t shown;
    bool masked;
    const char* eol;
    size_t eolLength;
};

// Calls emit for each line of data; with mask, the credentials of an
// authorization header are cut (its scheme stays, to show which one was used).
template <typename Emit>
void for_each_line(const char* data, size_t size, bool mask, Emit emit)
{
    const char* end = data + size;
    for (const char* line = data; line < end;) {
        const char* next = (const char*)memchr(line, '\n', (size_t)(end - line));
        next = next != NULL ? next + 1 : end;
        const size_t length = (size_t)(next - line);
        size_t eol = line[length - 1] == '\n' ? 1 : 0;
        if (eol == 1 && length > 1 && line[length - 2] == '\r')
            eol = 2;
        TraceLine out = {line, length - eol, false, next - eol, eol};
        for (const char* name : kSecretHeaders) {
            const size_t n = strlen(name);
            if (mask && length > n && strncasecmp(line, name, n) == 0) {
                // Keep "Name: Scheme", mask what follows the scheme.
                const char* value = line + n;
                while (value < next && *value == ' ')
                    ++value;
                while (value < next && *value != ' ' && *value != '\r' && *value != '\n')
                    ++value;
                out.shown = (size_t)(value - line);
                out.masked = true;
                break;
            }
        }
        emit(out);
        line = next;
    }
}

} // namespace

int url_downloader_curl_trace(CURL* easy, curl_infotype type, char* data, size_t size, void* user_data)
{
    (void)easy;
    (void)user_data;
    // Text and headers only: body and TLS bytes never go anywhere.
    if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT)
        return 0;
    const char* prefix = type == CURLINFO_TEXT ? "* " : type == CURLINFO_HEADER_IN ? "< " : "> ";
    const bool mask = type == CURLINFO_HEADER_OUT;
    const char* const func = __FUNCTION__; // the lines name this function, not the lambda
    switch (__atomic_load_n(&trace_mode, __ATOMIC_RELAXED)) {
    case URL_DOWNLOADER_TRACE_OFF:
        break;
    case URL_DOWNLOADER_TRACE_LOG:
        // A line each, at debug priority; the blank line that ends a header
        // block says nothing there.
        for_each_line(data, size, mask, [prefix, func](const TraceLine& line) {
            if (line.shown > 0)
                UD_DEBUG_AS(func, "%s%.*s%s", prefix, (int)line.shown, line.text, line.masked ? " ***" : "");
        });
        break;
    default:
        // libcurl's own verbose output, byte for byte, but for the credentials;
        // stderr is unbuffered, so a block or a line goes in one write.
        fwrite(prefix, 2, 1, stderr);
        if (!mask) {
            fwrite(data, size, 1, stderr);
            break;
        }
        for_each_line(data, size, mask, [](const TraceLine& line) {
            if (!line.masked) {
                fwrite(line.text, 1, line.shown + line.eolLength, stderr);
                return;
            }
            fwrite(line.text, 1, line.shown, stderr);
            fputs(" ***", stderr);
            fwrite(line.eol, 1, line.eolLength, stderr);
        });
        break;
    }
    return 0;
}

void _url_downloader_set_trace_mode(int mode) { __atomic_store_n(&trace_mode, mode, __ATOMIC_RELAXED); }
