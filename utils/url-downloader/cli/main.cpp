// url-downloader: command-line client of libvelmora-urldownloader.
#include <dlfcn.h>
#include <glib-unix.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cache-list.h"
#include "cli-options.h"
#include "outcome.h"
#include "progress.h"
#include "url-downloader-extension.h"

namespace udcli {

namespace {

void PrintUsageHint(const std::string& problem)
{
    std::fprintf(stderr, "url-downloader: %s\n", problem.c_str());
    std::fprintf(stderr, "Try 'url-downloader --help' for usage.\n");
}

// The version of the library this process runs with, read from the name of
// the file it was loaded from (libvelmora-urldownloader.so.X.Y.Z).
std::string LibraryVersion()
{
    Dl_info info = {};
    if (dladdr(reinterpret_cast<void*>(&url_downloader_register), &info) == 0 || info.dli_fname == nullptr)
        return "unknown";
    char* real = realpath(info.dli_fname, nullptr);
    const std::string file = real != nullptr ? real : info.dli_fname;
    free(real); // NOLINT(cppcoreguidelines-no-malloc): realpath's buffer
    const std::string marker = ".so.";
    const size_t at = file.rfind(marker);
    return at == std::string::npos ? "unknown (" + file + ")" : file.substr(at + marker.size()) + " (" + file + ")";
}

int PrintVersion()
{
    std::printf("url-downloader %s\nlibvelmora-urldownloader %s\n", UD_CLI_VERSION, LibraryVersion().c_str());
    return kExitOk;
}

// The library's log reaches standard error only when asked for; its trace
// is turned off unless asked for.
void ChooseDiagnostics(bool verbose)
{
    // Read at the library's first line, so before any call.
    if (verbose)
        g_setenv("VELMORA_LOG_STDERR", "1", TRUE);
    else
        g_unsetenv("VELMORA_LOG_STDERR");
    url_downloader_set_trace(verbose ? URL_DOWNLOADER_TRACE_STDERR : URL_DOWNLOADER_TRACE_OFF);
}

// One request of a get run.
struct Job {
    struct Run* run = nullptr;
    size_t index = 0;
    DownloadArg arg;
    url_downloader_api_h request = nullptr;
    std::string delivered; // path handed to the callback
    Outcome outcome;
};

struct Run {
    Options options;
    url_downloader_h service = nullptr;
    GMainLoop* loop = nullptr;
    std::vector<std::unique_ptr<Job>> jobs;
    std::vector<Progress> progress; // parallel to jobs
    size_t pending = 0;
    int signal = 0; // the one that interrupted the run
    gint64 start_us = 0;
    std::unique_ptr<ProgressLine> line;
};

std::string SizeOf(const std::string& path)
{
    GStatBuf st;
    if (path.empty() || g_stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return "-";
    return std::to_string(static_cast<long long>(st.st_size));
}

// The result line of a request, on standard output. A failure's path is the
// file as it stands: what a broken-off transfer wrote, or nothing.
void PrintResult(const Run& run, const Job& job, bool interrupted)
{
    const Outcome& outcome = job.outcome;
    if (run.options.quiet && outcome.ok)
        return;
    const std::string& path = outcome.ok ? job.delivered : job.arg.path;
    // Off the terminal's line first; the next tick draws it again.
    if (run.line != nullptr)
        run.line->Clear();
    std::printf("%s\t%s\t%s\t%s\t%s\n",
                interrupted  ? "interrupted"
                : outcome.ok ? "ok"
                             : "failed",
                job.arg.url.c_str(), path.c_str(), SizeOf(path).c_str(),
                interrupted ? "interrupted" : outcome.reason.c_str());
    std::fflush(stdout);
}

bool OnResult(url_downloader_api_h request, void* file_path, void* user_data, int error)
{
    Job* job = static_cast<Job*>(user_data);
    Run* run = job->run;
    // The path dies when we return: keep a copy.
    job->delivered = file_path != nullptr ? static_cast<const char*>(file_path) : "";
    url_downloader_reason_t reason = {};
    if (url_downloader_get_reason(run->service, request, &reason) != URL_DOWNLOADER_ERROR_NONE)
        reason.curlText = "";
    job->outcome = Judge(error, reason);
    job->request = nullptr;
    Progress& progress = run->progress[job->index];
    progress.received = reason.bytesWritten;
    progress.done = true;
    progress.failed = !job->outcome.ok;
    // A server's error page in place of the file is no download; a transfer
    // that broke off keeps what it wrote, as curl and wget do.
    if (job->outcome.errorPage)
        g_unlink(job->arg.path.c_str());
    // As each ends, so that a pipe reading the lines need not wait for all.
    PrintResult(*run, *job, false);
    if (--run->pending == 0)
        g_main_loop_quit(run->loop);
    return true;
}

gboolean OnTick(gpointer data)
{
    Run* run = static_cast<Run*>(data);
    for (const auto& job : run->jobs) {
        url_downloader_progress_t now = {};
        Progress& progress = run->progress[job->index];
        if (job->request != nullptr &&
            url_downloader_get_progress(run->service, job->request, &now) == URL_DOWNLOADER_ERROR_NONE) {
            progress.received = now.received;
            progress.expected = now.expected;
        }
    }
    const double elapsed = static_cast<double>(g_get_monotonic_time() - run->start_us) / 1e6;
    run->line->Draw(run->progress, elapsed);
    return G_SOURCE_CONTINUE;
}

template <int Signal>
gboolean OnSignal(gpointer data)
{
    Run* run = static_cast<Run*>(data);
    if (run->signal == 0)
        run->signal = Signal;
    g_main_loop_quit(run->loop);
    return G_SOURCE_CONTINUE;
}

bool MakeParentFolder(const std::string& path)
{
    gchar* dir = g_path_get_dirname(path.c_str());
    const bool ok = g_mkdir_with_parents(dir, 0755) == 0;
    if (!ok)
        std::fprintf(stderr, "url-downloader: cannot create folder '%s': %s\n", dir, g_strerror(errno));
    g_free(dir);
    return ok;
}

// The lines of the requests a signal cut short, and the summary; returns the
// exit status.
int Finish(const Run& run)
{
    int status = kExitOk;
    size_t ok = 0;
    for (const auto& job : run.jobs) {
        if (job->request != nullptr) {
            PrintResult(run, *job, true);
            continue;
        }
        status = WorseStatus(status, job->outcome.status);
        ok += job->outcome.ok ? 1 : 0;
    }
    if (run.line != nullptr) {
        const double seconds = static_cast<double>(g_get_monotonic_time() - run.start_us) / 1e6;
        char took[32];
        std::snprintf(took, sizeof took, "%.1f s", seconds);
        std::fprintf(stderr, "%zu of %zu downloaded in %s%s\n", ok, run.jobs.size(),
                     seconds < 60 ? took : FormatDuration(seconds).c_str(), run.signal != 0 ? ", interrupted" : "");
    }
    return run.signal != 0 ? 128 + run.signal : status;
}

// The security and time settings of the command line, on the service.
int ApplySettings(const Run& run)
{
    const Options& options = run.options;
    url_downloader_transport_t transport = {};
    transport.verifyPeer = !options.insecure;
    // -k wins over the CA options, as it does in curl.
    transport.caFile = !options.insecure && options.ca_file ? options.ca_file->c_str() : nullptr;
    transport.caFolder = !options.insecure && options.ca_folder ? options.ca_folder->c_str() : nullptr;
    transport.httpOnly = true;
    url_downloader_error rc = url_downloader_set_transport(run.service, &transport);
    if (rc == URL_DOWNLOADER_ERROR_INVALID_FILE_PATH) {
        // The library does not say which of the two it could not read.
        std::fprintf(stderr, "url-downloader: cannot read the CA file or folder given (--cacert %s, --capath %s)\n",
                     options.ca_file.value_or("-").c_str(), options.ca_folder.value_or("-").c_str());
        return kExitFileIo;
    }
    url_downloader_limits_t limits = {};
    limits.connectTimeout = options.connect_timeout;
    limits.stallTimeout = options.stall_timeout;
    if (rc == URL_DOWNLOADER_ERROR_NONE)
        rc = url_downloader_set_limits(run.service, &limits);
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::fprintf(stderr, "url-downloader: the library refused the settings: %s\n", ErrorName(rc));
        return kExitGeneric;
    }
    return kExitOk;
}

// Submits every download and runs the main loop until all have ended or a
// signal came.
void Download(Run& run)
{
    run.loop = g_main_loop_new(nullptr, FALSE);
    run.start_us = g_get_monotonic_time();
    for (auto& job : run.jobs) {
        const url_downloader_error rc = url_downloader_download(run.service, job->arg.path.c_str(),
                                                                job->arg.url.c_str(), run.options.use_cache, job.get(),
                                                                &job->request);
        if (rc != URL_DOWNLOADER_ERROR_NONE) {
            // No callback will come for it.
            job->request = nullptr;
            job->outcome = Refused(rc);
            run.progress[job->index].done = run.progress[job->index].failed = true;
            PrintResult(run, *job, false);
        } else {
            ++run.pending;
        }
    }
    if (run.pending == 0)
        return;
    // Progress is for a person watching: never into a file or a pipe.
    guint tick = 0;
    if (!run.options.quiet && isatty(STDERR_FILENO) != 0) {
        gchar* label = g_path_get_basename(run.jobs.front()->arg.path.c_str());
        run.line = std::make_unique<ProgressLine>(stderr, label);
        g_free(label);
        tick = g_timeout_add(250, OnTick, &run);
    }
    const guint sigint = g_unix_signal_add(SIGINT, OnSignal<SIGINT>, &run);
    const guint sigterm = g_unix_signal_add(SIGTERM, OnSignal<SIGTERM>, &run);
    g_main_loop_run(run.loop);
    // The last source of a signal gone, its default action is back: another
    // Ctrl-C ends the process even if the shutdown below hangs.
    g_source_remove(sigint);
    g_source_remove(sigterm);
    if (tick != 0)
        g_source_remove(tick);
    if (run.line != nullptr)
        run.line->Clear();
}

int RunGet(const Options& options)
{
    Run run;
    run.options = options;
    for (const DownloadArg& arg : options.downloads) {
        if (!MakeParentFolder(arg.path))
            return kExitFileIo;
        auto job = std::make_unique<Job>();
        job->run = &run;
        job->index = run.jobs.size();
        job->arg = arg;
        run.jobs.push_back(std::move(job));
    }
    run.progress.resize(run.jobs.size());

    url_downloader_config_t config = {};
    std::string proxy = options.proxy.value_or("");
    config.proxy = options.proxy ? proxy.data() : nullptr;
    const url_downloader_error rc = url_downloader_register(options.app.c_str(), OnResult, &config, &run.service);
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::fprintf(stderr, "url-downloader: registration failed: %s\n", ErrorName(rc));
        url_downloader_finalize();
        return kExitGeneric;
    }
    const int settings = ApplySettings(run);
    if (settings == kExitOk)
        Download(run);
    // Ends what is still running (after a signal) without callbacks; what
    // those transfers wrote stays on disk.
    url_downloader_finalize();
    if (run.loop != nullptr)
        g_main_loop_unref(run.loop);
    return settings == kExitOk ? Finish(run) : settings;
}

int RunClean(const Options& options)
{
    url_downloader_h service = nullptr;
    url_downloader_error rc = url_downloader_register(options.app.c_str(), nullptr, nullptr, &service);
    if (rc == URL_DOWNLOADER_ERROR_NONE)
        rc = url_downloader_clean(service);
    url_downloader_finalize();
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::fprintf(stderr, "url-downloader: cleaning the cache rows of '%s' failed: %s\n", options.app.c_str(),
                     ErrorName(rc));
        return kExitGeneric;
    }
    std::printf("Deleted the cache rows of application '%s'.\n", options.app.c_str());
    return kExitOk;
}

} // namespace

} // namespace udcli

int main(int argc, char** argv)
{
    udcli::Options options;
    const std::string problem = udcli::ParseArguments(argc, argv, &options);
    if (!problem.empty()) {
        udcli::PrintUsageHint(problem);
        return udcli::kExitUsage;
    }
    int status = udcli::kExitUsage;
    switch (options.command) {
    case udcli::Command::Help:
        std::fputs(udcli::UsageText(), stdout);
        status = udcli::kExitOk;
        break;
    case udcli::Command::Version:
        status = udcli::PrintVersion();
        break;
    case udcli::Command::Get:
        udcli::ChooseDiagnostics(options.verbose);
        status = udcli::RunGet(options);
        break;
    case udcli::Command::Clean:
        udcli::ChooseDiagnostics(options.verbose);
        status = udcli::RunClean(options);
        break;
    case udcli::Command::CacheList:
        udcli::ChooseDiagnostics(options.verbose);
        status = udcli::ListCache(options.app_given ? std::optional<std::string>(options.app) : std::nullopt, stdout,
                                  stderr);
        break;
    }
    std::fflush(stdout);
    std::fflush(stderr);
    // Dies of the signal that interrupted it, so that a shell running it in a
    // loop or a script stops too, as it would for any other program.
    if (status == 128 + SIGINT || status == 128 + SIGTERM) {
        signal(status - 128, SIG_DFL);
        raise(status - 128);
    }
    return status;
}
