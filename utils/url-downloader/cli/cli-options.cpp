// Parsing the url-downloader client's command line.
#include "cli-options.h"

#include <getopt.h>
#include <glib.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <set>

namespace udcli {

namespace {

const char kUsage[] =
    "Usage: url-downloader get [-v] [--cache] [--app NAME] [--proxy URL] [-o DIR] [-i FILE]...\n"
    "                          [URL[=PATH]...]\n"
    "       url-downloader clean [-v] --app NAME\n"
    "       url-downloader cache list [-v] [--app NAME]\n"
    "       url-downloader cache clean [-v] --app NAME\n"
    "       url-downloader --help\n"
    "\n"
    "get    Downloads every URL at once in the background and waits for all of them.\n"
    "       While transfers run, it shows per file and in total the bytes written so far\n"
    "       and the rate; on a terminal these lines are redrawn in place, otherwise plain\n"
    "       lines are printed at most once per second. Then it prints one line per URL:\n"
    "         result<TAB>URL<TAB>PATH<TAB>SIZE<TAB>ERROR<TAB>SOURCE\n"
    "       PATH is where the file was delivered ('-' on failure), SIZE its size in bytes,\n"
    "       ERROR the library's error name (URL_DOWNLOADER_ERROR_NONE on success) and\n"
    "       SOURCE 'cache', 'network' or '-' (failed).\n"
    "       Exit status: 0 when every download succeeded, 1 otherwise.\n"
    "\n"
    "       --cache       answer from the shared URL cache when it holds a valid entry\n"
    "       --app NAME    application name that labels the cache rows\n"
    "                     (default: url-downloader)\n"
    "       --proxy URL   send every transfer through this proxy\n"
    "       -o, --output-dir DIR\n"
    "                     folder for the downloads (default: the current folder)\n"
    "       -i, --input FILE\n"
    "                     more URL[=PATH] arguments, one per line of FILE ('-': standard\n"
    "                     input); spaces around a line are ignored, blank lines and\n"
    "                     lines starting with '#' are skipped. They come after the\n"
    "                     command line's URLs; a bad line is a bad argument (FILE:LINE).\n"
    "       URL=PATH      download URL into PATH; a relative PATH is taken inside DIR.\n"
    "                     The last '=' separates URL and PATH, so a URL that itself\n"
    "                     contains '=' must be followed by =PATH. Without PATH the file\n"
    "                     is DIR/<last segment of the URL's path>, or DIR/index.html.\n"
    "       At least one URL is needed. Missing folders are created. Two URLs may not\n"
    "       share a destination. A file that a failed or interrupted (SIGINT, SIGTERM)\n"
    "       request created is removed.\n"
    "\n"
    "       From the cache: a request counts as answered from the cache when --cache was\n"
    "       given, it succeeded, and the file at its requested path was not written\n"
    "       during the run: that file is still absent (the cached file lies elsewhere\n"
    "       and its path is reported), or it keeps the inode, size, modification and\n"
    "       change times it had before the request was submitted. Any transfer creates\n"
    "       or truncates and writes the requested file, which changes those.\n"
    "\n"
    "clean, cache clean\n"
    "       Deletes the cache rows of the application NAME (the files stay on disk).\n"
    "       Exit status: 0 on success, 1 otherwise.\n"
    "\n"
    "cache list\n"
    "       Prints a header line, then one line per cache row (only NAME's with --app):\n"
    "         APP<TAB>URL<TAB>PATH<TAB>SIZE<TAB>EXPIRES<TAB>FILE\n"
    "       SIZE is the recorded size in bytes, EXPIRES the expiry in local time\n"
    "       (YYYY-MM-DD HH:MM:SS) and FILE 'present' (a regular file of that size),\n"
    "       'missing', or 'changed' (anything else; the library takes it for a miss).\n"
    "       Exit status: 0, or 1 when the database cannot be read.\n"
    "\n"
    "-v, --verbose\n"
    "       Every command: also shows the library's log and the transfers' trace on\n"
    "       standard error. Without it standard error carries only the client's own\n"
    "       messages.\n"
    "\n"
    "Bad arguments: exit status 2. The cache database is the device's shared one,\n"
    "/opt/dbspace/.urlcache.db.\n";

// Destination given after the last '=', if any.
struct Split {
    std::string url;
    std::optional<std::string> path;
};

Split SplitArgument(const std::string& arg)
{
    const size_t eq = arg.rfind('=');
    if (eq == std::string::npos)
        return {arg, std::nullopt};
    return {arg.substr(0, eq), arg.substr(eq + 1)};
}

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

// Adds one URL[=PATH] argument; returns what is wrong with it, if anything.
std::string AddDownload(const std::string& arg, std::set<std::string>* destinations, Options* out)
{
    Split split = SplitArgument(arg);
    if (split.url.empty())
        return "missing URL in '" + arg + "'";
    if (split.path && split.path->empty())
        return "empty destination in '" + arg + "'";
    if (split.path && split.path->back() == '/')
        return "destination in '" + arg + "' names a folder, not a file";
    std::string problem = CheckUrl(split.url);
    if (!problem.empty())
        return problem;
    DownloadArg download;
    download.url = split.url;
    download.path = Absolute(split.path.value_or(DefaultFileName(split.url)), out->out_dir);
    if (!destinations->insert(download.path).second)
        return "two downloads would write the same file '" + download.path + "'";
    out->downloads.push_back(std::move(download));
    return "";
}

// Adds the URL[=PATH] lines of the file name ("-": standard input).
std::string AddInputFile(const std::string& name, std::set<std::string>* destinations, Options* out)
{
    std::ifstream file;
    std::istream* in = &std::cin;
    if (name != "-") {
        file.open(name);
        if (!file)
            return "cannot read '" + name + "': " + g_strerror(errno);
        in = &file;
    }
    const char* blanks = " \t\r\v\f";
    size_t number = 0;
    for (std::string line; std::getline(*in, line);) {
        ++number;
        const size_t first = line.find_first_not_of(blanks);
        if (first == std::string::npos || line[first] == '#')
            continue;
        const size_t last = line.find_last_not_of(blanks);
        const std::string problem = AddDownload(line.substr(first, last - first + 1), destinations, out);
        if (!problem.empty())
            return name + ":" + std::to_string(number) + ": " + problem; // NOLINT(performance-*): once, on an error
    }
    if (in->bad())
        return "cannot read '" + name + "'";
    return "";
}

} // namespace

const char* UsageText() { return kUsage; }

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
        {"cache", no_argument, nullptr, 'c'},       {"app", required_argument, nullptr, 'a'},
        {"proxy", required_argument, nullptr, 'p'}, {"output-dir", required_argument, nullptr, 'o'},
        {"input", required_argument, nullptr, 'i'}, {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0},
    };
    static const struct option kCacheOptions[] = {
        {"app", required_argument, nullptr, 'a'},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };

    // getopt sees the command's last word as its program name.
    int sub_argc = argc - shift;
    char** sub_argv = argv + shift;
    optind = 0; // full reset of GNU getopt's state
    opterr = 0;
    std::optional<std::string> out_dir;
    std::vector<std::string> inputs;
    for (;;) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): parsed once, before any thread starts
        const int opt = getopt_long(sub_argc, sub_argv, get ? ":o:i:vh" : ":vh", get ? kGetOptions : kCacheOptions,
                                    nullptr);
        if (opt == -1)
            break;
        switch (opt) {
        case 'h':
            out->command = Command::Help;
            return "";
        case 'c':
            out->use_cache = true;
            break;
        case 'v':
            out->verbose = true;
            break;
        case 'a':
            if (optarg[0] == '\0')
                return "the application name must not be empty";
            out->app = optarg;
            out->app_given = true;
            break;
        case 'p':
            if (optarg[0] == '\0')
                return "the proxy must not be empty";
            out->proxy = optarg;
            break;
        case 'o':
            if (optarg[0] == '\0')
                return "the output folder must not be empty";
            out_dir = optarg;
            break;
        case 'i':
            inputs.emplace_back(optarg);
            break;
        case ':':
            return "option '" + OptionName(sub_argv, optind - 1, optopt) + "' needs a value";
        default:
            return "unknown option '" + OptionName(sub_argv, optind - 1, optopt) + "' for " + command;
        }
    }

    if (!get) {
        if (optind < sub_argc)
            return command + " takes no argument '" + sub_argv[optind] + "'";
        if (out->command == Command::Clean && !out->app_given)
            return command + " needs --app NAME";
        return "";
    }

    out->out_dir = Absolute(out_dir.value_or("."), "");
    std::set<std::string> destinations;
    for (int i = optind; i < sub_argc; ++i) {
        std::string problem = AddDownload(sub_argv[i], &destinations, out);
        if (!problem.empty())
            return problem;
    }
    for (const std::string& input : inputs) {
        std::string problem = AddInputFile(input, &destinations, out);
        if (!problem.empty())
            return problem;
    }
    if (out->downloads.empty())
        return "get needs at least one URL";
    return "";
}

} // namespace udcli
