#include "log-capture.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace ud_test {

namespace {
// Lines with their priority, kept while some capture lives.
std::mutex g_mutex;
std::vector<std::pair<int, std::string>> g_lines;
size_t g_captures = 0;

// "[UD_DEBUG]: [func () Line 12]: text" or "[UD_ERROR]: [func () Line 12] : text";
// an empty func matches any function.
bool Matches(const std::string& line, const std::string& func, const std::string& text)
{
    const size_t at = func.empty() ? line.find(" () Line ") : line.find("]: [" + func + " () Line "),
                 end = line.find(']', at + 4);
    return at != std::string::npos && end != std::string::npos &&
           (line.compare(end, std::string::npos, "]: " + text) == 0 ||
            line.compare(end, std::string::npos, "] : " + text) == 0);
}
} // namespace

LogCapture::LogCapture()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    start_ = g_lines.size();
    ++g_captures;
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (--g_captures == 0)
        g_lines.clear();
}

size_t LogCapture::Count(int priority, const std::string& func, const std::string& text) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    size_t n = 0;
    for (size_t i = start_; i < g_lines.size(); ++i)
        n += g_lines[i].first == priority && Matches(g_lines[i].second, func, text);
    return n;
}

bool LogCapture::ContainsText(const std::string& substring) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    for (size_t i = start_; i < g_lines.size(); ++i)
        if (g_lines[i].second.find(substring) != std::string::npos)
            return true;
    return false;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    start_ = g_lines.size();
}

} // namespace ud_test

// Always formatted, so that a bad argument shows under the sanitizers.
extern "C" __attribute__((visibility("default"))) int __dlog_print(int priority, const char* tag, const char* format,
                                                                   ...)
{
    if (format == nullptr)
        return -1;
    va_list ap;
    va_start(ap, format);
    char* line = nullptr;
    const int n = vasprintf(&line, format, ap);
    va_end(ap);
    if (n < 0)
        return n;
    static const bool print = [] {
        const char* v = std::getenv("VELMORA_LOG_STDERR");
        return v != nullptr && v[0] != '\0' && std::string(v) != "0";
    }();
    if (print)
        std::fprintf(stderr, "%d/%s: %s%s", priority, tag ? tag : "", line, n > 0 && line[n - 1] == '\n' ? "" : "\n");
    {
        std::lock_guard<std::mutex> lock(ud_test::g_mutex);
        if (ud_test::g_captures > 0)
            ud_test::g_lines.emplace_back(priority, line);
    }
    free(line);
    return n;
}
