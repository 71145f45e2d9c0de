// Live progress of running downloads, read from their destination files.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <vector>

namespace udcli {

// What a file looked like before its request was submitted, so that a
// rewrite can be told from an untouched file.
struct FileState {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtime = {};
    struct timespec ctime = {};

    static FileState Of(const std::string& path);
    bool SameAs(const FileState& other) const;
};

// Bytes per second over a sliding window of samples.
class RateMeter {
public:
    // Nothing is written at the start.
    RateMeter() { samples_.emplace_back(0.0, 0); }
    void Add(double seconds, int64_t bytes);
    double Rate() const;

private:
    std::deque<std::pair<double, int64_t>> samples_;
};

// One file being downloaded.
struct TrackedFile {
    std::string label;
    std::string path;
    FileState before;
    bool done = false;
    int64_t bytes = 0;
    RateMeter rate;
};

// Bytes written to path since before was taken: 0 while the file is absent or
// untouched, its size once it has been (re)created or written.
int64_t BytesWritten(const std::string& path, const FileState& before);

// "12.5 KiB/s" style rate.
std::string FormatRate(double bytes_per_second);

class ProgressView {
public:
    // terminal: redraw in place with control codes; otherwise plain lines.
    ProgressView(std::FILE* out, bool terminal);

    // Samples every file and draws. elapsed: seconds since the start.
    void Update(std::vector<TrackedFile>& files, double elapsed);
    // Removes the redrawn block from a terminal before the results.
    void Clear();

private:
    std::vector<std::string> Lines(const std::vector<TrackedFile>& files, double elapsed) const;

    std::FILE* out_;
    bool terminal_;
    size_t drawn_ = 0;
    RateMeter total_rate_;
    int64_t total_ = 0;
};

} // namespace udcli
