// Feeds arbitrary bytes to the header callback as one header line, in a
// buffer of exactly that size, as libcurl hands it over (no terminator).
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "url-downloader-curl.h"
#include "url-downloader-internal.h"

// The platform log: format the line (so bad arguments still show) and drop it.
extern "C" int __dlog_print(int, const char*, const char* format, ...)
{
    char line[1024];
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    return n;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<char> line(data, data + size);
    url_downloader_curl_pvt_data record{};
    record.expiryTime = 12345;
    size_t result = url_downloader_header_parser(line.data(), 1, line.size(), &record);
    if (result != size)
        __builtin_trap();
    return 0;
}
