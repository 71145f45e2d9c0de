// In-memory capture of the library's log lines. The harness defines the
// platform log function __dlog_print itself; test programs export it, so it
// takes the place of the platform's for the static and the shared build.
// Lines also go to stderr when VELMORA_LOG_STDERR is set to other than "0".
#pragma once

#include <cstddef>
#include <string>

namespace ud_test {

constexpr int kDebug = 4;
constexpr int kError = 6;

// Collects the lines logged from every thread since its construction (or
// Clear()); several captures may live at once.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Lines of that priority logged by func (any function when empty) whose text after the prefix is text.
    size_t Count(int priority, const std::string& func, const std::string& text) const;
    bool Contains(int priority, const std::string& func, const std::string& text) const
    {
        return Count(priority, func, text) > 0;
    }
    bool ContainsText(const std::string& substring) const; // anywhere in a whole line
    void Clear();

private:
    size_t start_;
};

} // namespace ud_test
