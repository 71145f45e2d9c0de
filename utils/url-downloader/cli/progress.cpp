// The progress line on a terminal: one file's, or one for all of them.
#include "progress.h"

#include <glib.h>
#include <sys/ioctl.h>

#include <cmath>

namespace udcli {

namespace {

// Seconds of samples behind a rate: long enough to smooth the redraws.
constexpr double kRateWindow = 3.0;

size_t TerminalWidth(std::FILE* out)
{
    struct winsize ws = {};
    if (ioctl(fileno(out), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0)
        return ws.ws_col;
    return 80;
}

std::string Size(int64_t bytes)
{
    gchar* text = g_format_size_full(static_cast<guint64>(bytes), G_FORMAT_SIZE_IEC_UNITS);
    std::string result = text;
    g_free(text);
    // GLib puts a UTF-8 no-break space before the unit; a serial console in
    // the C locale shows it as two odd characters.
    for (size_t at; (at = result.find("\xc2\xa0")) != std::string::npos;)
        result.replace(at, 2, " ");
    return result;
}

} // namespace

void RateMeter::Add(double seconds, int64_t bytes)
{
    samples_.emplace_back(seconds, bytes);
    while (samples_.size() > 2 && seconds - samples_[1].first >= kRateWindow)
        samples_.pop_front();
}

double RateMeter::Rate() const
{
    const double span = samples_.back().first - samples_.front().first;
    const int64_t gained = samples_.back().second - samples_.front().second;
    if (span <= 0.0 || gained <= 0)
        return 0.0;
    return static_cast<double>(gained) / span;
}

std::string FormatDuration(double seconds)
{
    const auto total = static_cast<int64_t>(std::ceil(seconds));
    char text[32];
    if (total >= 3600)
        std::snprintf(text, sizeof text, "%lld:%02d:%02d", static_cast<long long>(total / 3600),
                      static_cast<int>(total / 60 % 60), static_cast<int>(total % 60));
    else
        std::snprintf(text, sizeof text, "%d:%02d", static_cast<int>(total / 60), static_cast<int>(total % 60));
    return text;
}

void ProgressLine::Draw(const std::vector<Progress>& all, double elapsed)
{
    int64_t received = 0;
    int64_t known = 0;      // announced sizes, or final ones
    size_t known_count = 0; // downloads with such a size
    size_t unknown = 0;     // running or waiting, size not known yet
    size_t done = 0;
    size_t failed = 0;
    for (const Progress& p : all) {
        received += p.received;
        done += p.done ? 1 : 0;
        failed += p.failed ? 1 : 0;
        // A finished download's size is what it received, whatever was announced.
        const int64_t size = p.done ? p.received : p.expected;
        if (size > 0 || (size == 0 && !p.done)) {
            known += size;
            ++known_count;
        } else if (size < 0) {
            ++unknown;
        }
    }
    rate_.Add(elapsed, received);
    const double rate = rate_.Rate();

    std::string line = all.size() == 1 ? label_ : std::to_string(done) + " of " + std::to_string(all.size()) + " files";
    if (failed > 0)
        line += " (" + std::to_string(failed) + " failed)";
    // Files still waiting for their first answer are taken at the mean size
    // of those announced: right for a batch of alike files, and the best guess
    // otherwise. Without any announced size there is no percentage.
    if (known_count > 0) {
        const double total = static_cast<double>(known) + static_cast<double>(unknown) * static_cast<double>(known) /
                                                              static_cast<double>(known_count);
        const double share = total > 0 ? std::fmin(1.0, static_cast<double>(received) / total) : 1.0;
        char percent[16];
        std::snprintf(percent, sizeof percent, "  %3d%%", static_cast<int>(share * 100));
        line += percent;
        line += "  " + Size(received) + " of " + (unknown > 0 ? "~" : "") + Size(static_cast<int64_t>(total));
        line += "  " + Size(static_cast<int64_t>(rate)) + "/s";
        if (rate > 0 && total > static_cast<double>(received))
            line += "  ETA " + FormatDuration((total - static_cast<double>(received)) / rate);
    } else {
        line += "  " + Size(received) + "  " + Size(static_cast<int64_t>(rate)) + "/s";
    }
    // Cut to the width, so that the line never wraps and the redraw stays on it.
    const size_t width = TerminalWidth(out_);
    if (line.size() >= width)
        line.resize(width - 1);
    std::fprintf(out_, "\r\033[K%s", line.c_str());
    std::fflush(out_);
    drawn_ = true;
}

void ProgressLine::Clear()
{
    if (!drawn_)
        return;
    std::fputs("\r\033[K", out_);
    std::fflush(out_);
    drawn_ = false;
}

} // namespace udcli
