// The progress line on a terminal: one file's, or one for all of them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <utility>
#include <vector>

namespace udcli {

// Bytes per second over a sliding window of samples.
class RateMeter {
public:
    // Nothing is received at the start.
    RateMeter() { samples_.emplace_back(0.0, 0); }
    void Add(double seconds, int64_t bytes);
    double Rate() const;

private:
    std::deque<std::pair<double, int64_t>> samples_;
};

// Where one download stands.
struct Progress {
    int64_t received = 0;
    int64_t expected = -1; // -1: not known (yet)
    bool done = false;
    bool failed = false;
};

class ProgressLine {
public:
    // label names the file when there is only one.
    ProgressLine(std::FILE* out, std::string label) : out_(out), label_(std::move(label)) {}

    // Redraws the line.
    void Draw(const std::vector<Progress>& all, double elapsed);
    // Removes the line before anything else is written.
    void Clear();

private:
    std::FILE* out_;
    std::string label_;
    RateMeter rate_;
    bool drawn_ = false;
};

// "m:ss" or "h:mm:ss".
std::string FormatDuration(double seconds);

} // namespace udcli
