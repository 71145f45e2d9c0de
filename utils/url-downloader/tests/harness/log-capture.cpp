#include "log-capture.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "dlog.h"

namespace ud_test {

namespace {

// One store shared by all captures: each capture remembers where its lines
// begin, and the store empties when the last capture goes.
std::mutex g_mutex;
std::vector<LogLine> g_lines;
size_t g_captures = 0;
// Read without the lock on every log call, so that logging stays cheap
// while nothing captures.
std::atomic<bool> g_active{false};

bool StderrWanted()
{
    const char* v = std::getenv("VELMORA_LOG_STDERR");
    return v != nullptr && v[0] != '\0' && std::strcmp(v, "0") != 0;
}

const char kDebugPrefix[] = "[UD_DEBUG]: [";
const char kErrorPrefix[] = "[UD_ERROR]: [";

} // namespace

LogLine ParseLogLine(int priority, const std::string& tag, const std::string& raw)
{
    LogLine l{priority, tag, "", -1, raw, raw};
    const bool debug = raw.compare(0, sizeof kDebugPrefix - 1, kDebugPrefix) == 0;
    const bool error = raw.compare(0, sizeof kErrorPrefix - 1, kErrorPrefix) == 0;
    if (!debug && !error)
        return l;
    const size_t name_at = sizeof kDebugPrefix - 1;
    const size_t mark = raw.find(" () Line ", name_at);
    if (mark == std::string::npos)
        return l;
    size_t pos = mark + std::strlen(" () Line ");
    size_t digits_end = pos;
    while (digits_end < raw.size() && raw[digits_end] >= '0' && raw[digits_end] <= '9')
        ++digits_end;
    // Debug lines close with "]: ", error lines with "] : ".
    const char* close = debug ? "]: " : "] : ";
    if (digits_end == pos || raw.compare(digits_end, std::strlen(close), close) != 0)
        return l;
    l.func = raw.substr(name_at, mark - name_at);
    l.line = std::atoi(raw.substr(pos, digits_end - pos).c_str());
    l.text = raw.substr(digits_end + std::strlen(close));
    return l;
}

LogCapture::LogCapture()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    start_ = g_lines.size();
    if (g_captures++ == 0)
        g_active.store(true);
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (--g_captures == 0) {
        g_active.store(false);
        g_lines.clear();
    }
}

std::vector<LogLine> LogCapture::Lines() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return std::vector<LogLine>(g_lines.begin() + static_cast<std::ptrdiff_t>(start_), g_lines.end());
}

size_t LogCapture::Count(int priority, const std::string& func, const std::string& text) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    size_t n = 0;
    for (size_t i = start_; i < g_lines.size(); ++i) {
        const LogLine& l = g_lines[i];
        if (l.priority == priority && l.func == func && l.text == text)
            ++n;
    }
    return n;
}

bool LogCapture::Contains(int priority, const std::string& func, const std::string& text) const
{
    return Count(priority, func, text) > 0;
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

// Takes the place of the platform's log function (see log-capture.h). The
// line is always formatted, so that a bad format argument shows up under the
// sanitizers whether or not a test captures.
extern "C" __attribute__((visibility("default"))) int __dlog_print(int priority, const char* tag,
                                                                   const char* format, ...)
{
    if (format == nullptr)
        return -1;
    char small[1024];
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(small, sizeof small, format, ap);
    va_end(ap);
    if (n < 0)
        return n;

    const bool capture = ud_test::g_active.load();
    const bool print = ud_test::StderrWanted();
    if (!capture && !print)
        return n;

    std::string raw;
    if (static_cast<size_t>(n) < sizeof small) {
        raw.assign(small, static_cast<size_t>(n));
    } else {
        raw.resize(static_cast<size_t>(n) + 1);
        va_start(ap, format);
        std::vsnprintf(raw.data(), raw.size(), format, ap);
        va_end(ap);
        raw.resize(static_cast<size_t>(n));
    }
    const std::string t = tag != nullptr ? tag : "";
    if (print) {
        const char* nl = (!raw.empty() && raw.back() == '\n') ? "" : "\n";
        std::fprintf(stderr, "%d/%s: %s%s", priority, t.c_str(), raw.c_str(), nl);
    }
    if (capture) {
        ud_test::LogLine l = ud_test::ParseLogLine(priority, t, raw);
        std::lock_guard<std::mutex> lock(ud_test::g_mutex);
        // A capture may have ended since the check above.
        if (ud_test::g_captures > 0)
            ud_test::g_lines.push_back(std::move(l));
    }
    return n;
}
