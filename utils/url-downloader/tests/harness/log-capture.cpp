#include "log-capture.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace ud_test {

namespace {
struct Line {
    int priority;
    std::string func, text, raw;
};
// One store for all captures; emptied when the last one goes.
std::mutex g_mutex;
std::vector<Line> g_lines;
size_t g_captures = 0;
std::atomic<bool> g_active{false};
} // namespace

LogCapture::LogCapture()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    start_ = g_lines.size();
    g_active = ++g_captures > 0;
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (--g_captures == 0) {
        g_active = false;
        g_lines.clear();
    }
}

size_t LogCapture::Count(int priority, const std::string& func, const std::string& text) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    size_t n = 0;
    for (size_t i = start_; i < g_lines.size(); ++i)
        n += g_lines[i].priority == priority && g_lines[i].func == func && g_lines[i].text == text;
    return n;
}

bool LogCapture::ContainsText(const std::string& substring) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    for (size_t i = start_; i < g_lines.size(); ++i)
        if (g_lines[i].raw.find(substring) != std::string::npos)
            return true;
    return false;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    start_ = g_lines.size();
}

} // namespace ud_test

// "[UD_DEBUG]: [func () Line 12]: text" or "[UD_ERROR]: [func () Line 12] : text".
// Always formatted, so that a bad argument shows under the sanitizers.
extern "C" __attribute__((visibility("default"))) int __dlog_print(int priority, const char* tag, const char* format, ...)
{
    if (format == nullptr)
        return -1;
    va_list ap;
    va_start(ap, format);
    char* formatted = nullptr;
    int n = vasprintf(&formatted, format, ap);
    va_end(ap);
    if (n < 0)
        return n;
    std::string raw(formatted, (size_t)n);
    free(formatted);
    static const bool print = [] {
        const char* v = std::getenv("VELMORA_LOG_STDERR");
        return v != nullptr && v[0] != '\0' && std::strcmp(v, "0") != 0;
    }();
    if (print)
        std::fprintf(stderr, "%d/%s: %s%s", priority, tag ? tag : "", raw.c_str(), n > 0 && raw.back() == '\n' ? "" : "\n");
    if (!ud_test::g_active)
        return n;
    ud_test::Line line{priority, "", raw, raw};
    const size_t open = raw.find("]: ["), mark = raw.find(" () Line ", open), close = raw.find(':', mark);
    if (raw.compare(0, 4, "[UD_") == 0 && open != std::string::npos && mark != std::string::npos &&
        close != std::string::npos) {
        line.func = raw.substr(open + 4, mark - open - 4);
        line.text = raw.substr(close + 2);
    }
    std::lock_guard<std::mutex> lock(ud_test::g_mutex);
    if (ud_test::g_captures > 0)
        ud_test::g_lines.push_back(std::move(line));
    return n;
}
