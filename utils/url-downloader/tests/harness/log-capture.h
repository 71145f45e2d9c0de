// In-memory capture of the library's log lines.
//
// The harness defines the platform log function __dlog_print itself; test
// programs export it, so it takes the place of the platform library's for
// the library's static copy and its shared build alike. A line is kept only
// while at least one LogCapture exists, and is also printed to stderr when
// VELMORA_LOG_STDERR is set to a value other than "0".
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ud_test {

constexpr int kDebug = 4;
constexpr int kError = 6;

struct LogLine {
    int priority;
    std::string tag;
    std::string func; // logging function's name; empty when the line has no library prefix
    int line;         // source line from the prefix; -1 when there is none
    std::string text; // what follows the prefix (the whole line when there is none)
    std::string raw;  // the whole formatted line
};

// Collects the lines logged from its construction on (or since Clear()),
// from every thread. Several captures may live at once; each sees every line.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const;
    // Exact match of priority, function name and text after the prefix.
    bool Contains(int priority, const std::string& func, const std::string& text) const;
    size_t Count(int priority, const std::string& func, const std::string& text) const;
    // Substring of any raw line.
    bool ContainsText(const std::string& substring) const;
    void Clear();

private:
    size_t start_; // index of this capture's first line in the shared store
};

// Splits a formatted line into func/line/text (exposed for the harness's tests).
LogLine ParseLogLine(int priority, const std::string& tag, const std::string& raw);

} // namespace ud_test
