// Parsing the url-downloader client's command line.
#include "cli-options.h"

#include <getopt.h>
#include <glib.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>

#include "url-downloader-extension.h"

namespace udcli {

namespace {

const char kUsage[] =
    "Usage: url-downloader get [OPTION]... URL...\n"
    "       url-downloader cache list [--app NAME] | cache clean --app NAME | clean --app NAME\n"
    "Queues every URL at once (6 connections per host, 32 in all), and prints a line\n"
    "on standard output as each download ends:\n"
    "  ok|failed|interrupted <TAB> URL <TAB> PATH <TAB> SIZE <TAB> HTTP status or error\n"
    "  -o, --output FILE        file of the next URL (the n-th -o or -O goes with the n-th URL)\n"
    "  -O, --remote-name        name the file after the URL's last path segment (the default)\n"
    "  -P, --output-dir DIR     folder of the files (created when missing; default: .)\n"
    "  -i, --input-file FILE    more downloads, one 'URL [FILE]' per line ('-': standard input)\n"
    "  -k, --insecure           do not verify the server's certificate and host name\n"
    "      --cacert FILE        trust the CAs of this PEM file instead of the system's\n"
    "      --capath DIR         trust the CAs of this hashed folder too\n"
    "      --connect-timeout S  give up connecting after S seconds (default: 300)\n"
    "      --stall-timeout S    give up after S seconds without data (default: 60; 0: never)\n"
    "      --cache              answer from the shared URL cache when it can; --app NAME\n"
    "                           labels the rows (default: url-downloader)\n"
    "      --proxy URL          send every transfer through this proxy\n"
    "  -q, --quiet              no progress, only the lines of failed downloads\n"
    "  -v, --verbose            the library's log and libcurl's trace on standard error\n"
    "      --version, --help\n"
    "Exit status: the worst of all: 0 success, 1 generic, 2 usage, 3 file I/O, 4 network,\n"
    "5 TLS verification, 8 HTTP error; 130 or 143 when interrupted (partial files stay).\n"
    "Examples:\n"
    "  url-downloader get -o list.json 'https://host/api?page=1&n=50'\n"
    "  url-downloader get -P downloads -i urls.txt\n"
    "  url-downloader get -k --stall-timeout 10 https://192.168.1.20/fw.bin\n";

enum LongOnly { kCacert = 1000, kCapath, kConnectTimeout, kStallTimeout, kVersion, kCache, kApp, kProxy };

// Empty when url is an http(s) URL with a host.
std::string CheckUrl(const std::string& url)
{
    GError* error = nullptr;
    GUri* uri = g_uri_parse(url.c_str(), G_URI_FLAGS_ENCODED, &error);
    if (uri == nullptr) {
        std::string msg = "invalid URL '" + url + "': " + error->message;
        g_error_free(error);
        return msg;
    }
    std::string msg;
    const char* scheme = g_uri_get_scheme(uri);
    const char* host = g_uri_get_host(uri);
    if (g_ascii_strcasecmp(scheme, "http") != 0 && g_ascii_strcasecmp(scheme, "https") != 0)
        msg = "unsupported URL '" + url + "': only http and https are downloaded";
    else if (host == nullptr || host[0] == '\0')
        msg = "invalid URL '" + url + "': no host";
    g_uri_unref(uri);
    return msg;
}

// Empty when name can be the file of a download.
std::string CheckFileName(const std::string& name)
{
    if (name.empty())
        return "an empty file name";
    if (name == "-")
        return "'-': writing to standard output is not supported, name a file";
    if (name.back() == '/')
        return "'" + name + "' names a folder, not a file";
    return "";
}

std::string Absolute(const std::string& path, const std::string& base)
{
    gchar* abs = g_canonicalize_filename(path.c_str(), base.empty() ? nullptr : base.c_str());
    std::string result = abs;
    g_free(abs);
    return result;
}

// The option as it was written: "-x" for a short one, "--name" for a long one.
std::string OptionName(char** argv, int index, int short_opt)
{
    std::string written = argv[index];
    if (written.rfind("--", 0) == 0)
        return written.substr(0, written.find('='));
    if (short_opt != 0)
        return std::string("-") + static_cast<char>(short_opt);
    return written;
}

std::string ParseSeconds(const char* text, const char* option, int32_t* out)
{
    guint64 value = 0;
    if (!g_ascii_string_to_unsigned(text, 10, 0, URL_DOWNLOADER_LIMIT_MAX_SECONDS, &value, nullptr))
        return std::string(option) + " needs whole seconds from 0 to " +
               std::to_string(URL_DOWNLOADER_LIMIT_MAX_SECONDS) + ", not '" + text + "'";
    *out = static_cast<int32_t>(value);
    return "";
}

// Default file name for a URL: its last path segment, decoded, or
// "index.html" when that is empty or not a usable file name; url must
// already be valid.
std::string DefaultFileName(const std::string& url)
{
    GUri* uri = g_uri_parse(url.c_str(), G_URI_FLAGS_ENCODED, nullptr);
    if (uri == nullptr)
        return "index.html";
    std::string path = g_uri_get_path(uri);
    g_uri_unref(uri);
    std::string segment = path.substr(path.rfind('/') + 1);
    // A decoded name may not hide a folder separator or a NUL; keep it raw then.
    gchar* decoded = g_uri_unescape_string(segment.c_str(), "/");
    if (decoded != nullptr) {
        segment = decoded;
        g_free(decoded);
    }
    if (segment.empty() || segment == "." || segment == "..")
        return "index.html";
    return segment;
}

class Downloads {
public:
    Downloads(std::string dir, Options* out) : dir_(std::move(dir)), out_(out) {}

    // Adds url, into name (or the URL's own name when there is none).
    std::string Add(const std::string& url, const std::optional<std::string>& name)
    {
        std::string problem = CheckUrl(url);
        if (problem.empty() && name)
            problem = CheckFileName(*name);
        if (!problem.empty())
            return problem;
        DownloadArg download;
        download.url = url;
        download.path = Absolute(name.value_or(DefaultFileName(url)), dir_);
        if (!destinations_.insert(download.path).second)
            return "two downloads would write the same file '" + download.path + "'";
        out_->downloads.push_back(std::move(download));
        return "";
    }

    // Adds the 'URL [FILE]' lines of the file name ("-": standard input).
    std::string AddInputFile(const std::string& name)
    {
        std::ifstream file;
        std::istream* in = &std::cin;
        if (name != "-") {
            file.open(name);
            if (!file)
                return "cannot read '" + name + "': " + g_strerror(errno);
            in = &file;
        }
        size_t number = 0;
        for (std::string line; std::getline(*in, line);) {
            ++number;
            std::istringstream words(line);
            std::vector<std::string> fields;
            for (std::string word; words >> word;)
                fields.push_back(word);
            if (fields.empty() || fields[0][0] == '#')
                continue;
            std::string problem = fields.size() > 2
                                      ? "expected 'URL [FILE]', found " + std::to_string(fields.size()) + " words"
                                      : Add(fields[0], fields.size() == 2 ? std::optional(fields[1]) : std::nullopt);
            if (!problem.empty())
                return name + ":" + std::to_string(number) + ": " + problem; // NOLINT(performance-*): once, on an error
        }
        if (in->bad())
            return "cannot read '" + name + "'";
        return "";
    }

private:
    std::string dir_;
    Options* out_;
    std::set<std::string> destinations_;
};

// What the get options gather before the URLs are known.
struct Gathered {
    std::optional<std::string> out_dir;
    std::vector<std::optional<std::string>> names; // -o FILE, or -O: nullopt
    std::vector<std::string> inputs;
};

// Takes one option that getopt recognised; returns what is wrong with it.
std::string TakeOption(int opt, Options* out, Gathered* got)
{
    switch (opt) {
    case 'h':
        out->command = Command::Help;
        break;
    case kVersion:
        out->command = Command::Version;
        break;
    case kCache:
        out->use_cache = true;
        break;
    case 'v':
        out->verbose = true;
        break;
    case 'q':
        out->quiet = true;
        break;
    case 'k':
        out->insecure = true;
        break;
    case kApp:
        if (optarg[0] == '\0')
            return "the application name must not be empty";
        out->app = optarg;
        out->app_given = true;
        break;
    case kProxy:
        if (optarg[0] == '\0')
            return "the proxy must not be empty";
        out->proxy = optarg;
        break;
    case 'P':
        if (optarg[0] == '\0')
            return "the output folder must not be empty";
        got->out_dir = optarg;
        break;
    case 'o':
        if (std::string problem = CheckFileName(optarg); !problem.empty())
            return "-o: " + problem;
        got->names.emplace_back(optarg);
        break;
    case 'O':
        got->names.emplace_back(std::nullopt);
        break;
    case 'i':
        got->inputs.emplace_back(optarg);
        break;
    case kCacert:
        out->ca_file = optarg;
        break;
    case kCapath:
        out->ca_folder = optarg;
        break;
    case kConnectTimeout:
        return ParseSeconds(optarg, "--connect-timeout", &out->connect_timeout);
    case kStallTimeout:
        return ParseSeconds(optarg, "--stall-timeout", &out->stall_timeout);
    default:
        break;
    }
    return "";
}

} // namespace

const char* UsageText() { return kUsage; }

std::string ParseArguments(int argc, char** argv, Options* out)
{
    *out = Options{};
    if (argc < 2)
        return "no command given";
    std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        out->command = Command::Help;
        return "";
    }
    if (command == "--version") {
        out->command = Command::Version;
        return "";
    }
    int shift = 1; // words before getopt's
    if (command == "get") {
        out->command = Command::Get;
    } else if (command == "clean") {
        out->command = Command::Clean;
    } else if (command == "cache") {
        const std::string what = argc > 2 ? argv[2] : "";
        if (what == "list")
            out->command = Command::CacheList;
        else if (what == "clean")
            out->command = Command::Clean;
        else
            return "cache needs 'list' or 'clean'";
        command += " " + what;
        shift = 2;
    } else {
        return "unknown command '" + command + "'";
    }

    const bool get = out->command == Command::Get;
    static const struct option kGetOptions[] = {
        {"output", required_argument, nullptr, 'o'},
        {"remote-name", no_argument, nullptr, 'O'},
        {"output-dir", required_argument, nullptr, 'P'},
        {"directory-prefix", required_argument, nullptr, 'P'},
        {"input-file", required_argument, nullptr, 'i'},
        {"insecure", no_argument, nullptr, 'k'},
        {"cacert", required_argument, nullptr, kCacert},
        {"capath", required_argument, nullptr, kCapath},
        {"connect-timeout", required_argument, nullptr, kConnectTimeout},
        {"stall-timeout", required_argument, nullptr, kStallTimeout},
        {"cache", no_argument, nullptr, kCache},
        {"app", required_argument, nullptr, kApp},
        {"proxy", required_argument, nullptr, kProxy},
        {"quiet", no_argument, nullptr, 'q'},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    };
    static const struct option kCacheOptions[] = {
        {"app", required_argument, nullptr, kApp},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };

    // getopt sees the command's last word as its program name.
    int sub_argc = argc - shift;
    char** sub_argv = argv + shift;
    optind = 0; // full reset of GNU getopt's state
    opterr = 0;
    Gathered got;
    for (;;) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): parsed once, before any thread starts
        const int opt = getopt_long(sub_argc, sub_argv, get ? ":o:OP:i:kqvh" : ":vh", get ? kGetOptions : kCacheOptions,
                                    nullptr);
        if (opt == -1)
            break;
        if (opt == ':')
            return "option '" + OptionName(sub_argv, optind - 1, optopt) + "' needs a value";
        if (opt == '?')
            return "unknown option '" + OptionName(sub_argv, optind - 1, optopt) + "' for " + command;
        std::string problem = TakeOption(opt, out, &got);
        if (!problem.empty() || out->command == Command::Help || out->command == Command::Version)
            return problem;
    }

    if (!get) {
        if (optind < sub_argc)
            return command + " takes no argument '" + sub_argv[optind] + "'";
        if (out->command == Command::Clean && !out->app_given)
            return command + " needs --app NAME";
        return "";
    }

    // The n-th -o or -O names the n-th URL of the command line, wherever each stands.
    const size_t urls = static_cast<size_t>(sub_argc - optind);
    if (got.names.size() > urls)
        return std::to_string(got.names.size()) + " -o/-O for " + std::to_string(urls) + " URL(s)";
    Downloads downloads(Absolute(got.out_dir.value_or("."), ""), out);
    for (size_t i = 0; i < urls; ++i) {
        std::string problem = downloads.Add(sub_argv[optind + static_cast<int>(i)],
                                            i < got.names.size() ? got.names[i] : std::nullopt);
        if (!problem.empty())
            return problem;
    }
    for (const std::string& input : got.inputs) {
        std::string problem = downloads.AddInputFile(input);
        if (!problem.empty())
            return problem;
    }
    if (out->downloads.empty())
        return "get needs at least one URL";
    return "";
}

} // namespace udcli
