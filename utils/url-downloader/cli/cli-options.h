// Command line of the url-downloader client.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace udcli {

enum class Command { Help, Version, Get, Clean, CacheList };

// One download asked for on the command line.
struct DownloadArg {
    std::string url;
    std::string path; // absolute destination
};

// Seconds without a byte after which a transfer is given up, unless the
// command line says otherwise: long enough for a slow link, short enough
// that a dead server does not hold the client for good.
constexpr int32_t kDefaultStallTimeout = 60;

struct Options {
    Command command = Command::Help;
    bool use_cache = false;
    bool verbose = false;
    bool quiet = false;
    std::string app = "url-downloader";
    bool app_given = false;
    std::optional<std::string> proxy;
    bool insecure = false;
    std::optional<std::string> ca_file;
    std::optional<std::string> ca_folder;
    int32_t connect_timeout = 0; // 0: libcurl's own
    int32_t stall_timeout = kDefaultStallTimeout;
    std::vector<DownloadArg> downloads;
};

// Fills *out from the arguments. Returns an empty string on success, or a
// one-line description of what is wrong with them.
std::string ParseArguments(int argc, char** argv, Options* out);

// The --help text.
const char* UsageText();

} // namespace udcli
