// Live progress of running downloads, read from their destination files.
#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace udcli {

namespace {

// Seconds of samples behind a rate: long enough to smooth the redraws.
constexpr double kRateWindow = 2.0;
// Running files listed per update; the rest are counted.
constexpr size_t kMaxListed = 10;

bool SameTime(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

size_t TerminalWidth(std::FILE* out)
{
    struct winsize ws = {};
    if (ioctl(fileno(out), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0)
        return ws.ws_col;
    return 80;
}

} // namespace

FileState FileState::Of(const std::string& path)
{
    FileState state;
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return state;
    state.exists = true;
    state.dev = st.st_dev;
    state.ino = st.st_ino;
    state.size = st.st_size;
    state.mtime = st.st_mtim;
    state.ctime = st.st_ctim;
    return state;
}

bool FileState::SameAs(const FileState& other) const
{
    if (exists != other.exists)
        return false;
    if (!exists)
        return true;
    return dev == other.dev && ino == other.ino && size == other.size && SameTime(mtime, other.mtime) &&
           SameTime(ctime, other.ctime);
}

void RateMeter::Add(double seconds, int64_t bytes)
{
    samples_.emplace_back(seconds, bytes);
    while (samples_.size() > 2 && seconds - samples_[1].first >= kRateWindow)
        samples_.pop_front();
}

double RateMeter::Rate() const
{
    if (samples_.size() < 2)
        return 0.0;
    const double span = samples_.back().first - samples_.front().first;
    const int64_t gained = samples_.back().second - samples_.front().second;
    // A truncated, rewritten file goes back in size; that is no negative rate.
    if (span <= 0.0 || gained <= 0)
        return 0.0;
    return static_cast<double>(gained) / span;
}

int64_t BytesWritten(const std::string& path, const FileState& before)
{
    const FileState now = FileState::Of(path);
    if (!now.exists || now.SameAs(before))
        return 0;
    return static_cast<int64_t>(now.size);
}

std::string FormatRate(double bytes_per_second)
{
    static const char* const kUnits[] = {"B/s", "KiB/s", "MiB/s", "GiB/s"};
    size_t unit = 0;
    while (bytes_per_second >= 1024.0 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
        bytes_per_second /= 1024.0;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", bytes_per_second, kUnits[unit]);
    return text;
}

ProgressView::ProgressView(std::FILE* out, bool terminal) : out_(out), terminal_(terminal) {}

void ProgressView::Update(std::vector<TrackedFile>& files, double elapsed)
{
    total_ = 0;
    for (TrackedFile& file : files) {
        file.bytes = BytesWritten(file.path, file.before);
        file.rate.Add(elapsed, file.bytes);
        total_ += file.bytes;
    }
    total_rate_.Add(elapsed, total_);

    std::vector<std::string> lines = Lines(files, elapsed);
    if (!terminal_) {
        for (const std::string& line : lines)
            std::fprintf(out_, "progress %s\n", line.c_str());
        std::fflush(out_);
        return;
    }
    // Back to the top of the block drawn last time, then overwrite it; cut
    // lines to the width so that none wraps and shifts the block.
    const size_t width = TerminalWidth(out_);
    if (drawn_ > 0)
        std::fprintf(out_, "\033[%zuA", drawn_);
    for (std::string& line : lines) {
        if (line.size() >= width)
            line.resize(width - 1);
        std::fprintf(out_, "\r\033[2K%s\n", line.c_str());
    }
    // A shorter block leaves old lines below: clear to the end of the screen.
    std::fputs("\033[J", out_);
    drawn_ = lines.size();
    std::fflush(out_);
}

void ProgressView::Clear()
{
    if (!terminal_ || drawn_ == 0)
        return;
    std::fprintf(out_, "\033[%zuA\r\033[J", drawn_);
    std::fflush(out_);
    drawn_ = 0;
}

std::vector<std::string> ProgressView::Lines(const std::vector<TrackedFile>& files, double elapsed) const
{
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "[%3.0fs]", elapsed);
    std::vector<std::string> lines;
    size_t done = 0;
    size_t unlisted = 0;
    for (const TrackedFile& file : files) {
        if (file.done) {
            ++done;
            continue;
        }
        if (lines.size() == kMaxListed) {
            ++unlisted;
            continue;
        }
        lines.push_back(std::string(stamp) + " " + file.label + ": " + std::to_string(file.bytes) + " bytes, " +
                        FormatRate(file.rate.Rate()));
    }
    if (unlisted > 0)
        lines.push_back(std::string(stamp) + " ... and " + std::to_string(unlisted) + " more running");
    lines.push_back(std::string(stamp) + " total: " + std::to_string(total_) + " bytes, " +
                    FormatRate(total_rate_.Rate()) + ", " + std::to_string(done) + " of " +
                    std::to_string(files.size()) + " done");
    return lines;
}

} // namespace udcli
