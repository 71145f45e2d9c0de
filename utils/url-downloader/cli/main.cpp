// url-downloader: command-line client of libvelmora-urldownloader.
#include <glib-unix.h>
#include <glib.h>
#include <fcntl.h>
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
#include "progress.h"
#include "url-downloader.h"

namespace udcli {

namespace {

const char* ErrorName(int error)
{
    switch (error) {
    case URL_DOWNLOADER_ERROR_NONE:
        return "URL_DOWNLOADER_ERROR_NONE";
    case URL_DOWNLOADER_ERROR_INVALID_PARAMETER:
        return "URL_DOWNLOADER_ERROR_INVALID_PARAMETER";
    case URL_DOWNLOADER_ERROR_INVALID_URL:
        return "URL_DOWNLOADER_ERROR_INVALID_URL";
    case URL_DOWNLOADER_ERROR_INVALID_FILE_PATH:
        return "URL_DOWNLOADER_ERROR_INVALID_FILE_PATH";
    case URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED:
        return "URL_DOWNLOADER_ERROR_CACHE_ADD_FAILED";
    case URL_DOWNLOADER_ERROR_CACHE_CLEAN_FAILED:
        return "URL_DOWNLOADER_ERROR_CACHE_CLEAN_FAILED";
    case URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED:
        return "URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED";
    case URL_DOWNLOADER_ERROR_CACHE_SIZE_FAILED:
        return "URL_DOWNLOADER_ERROR_CACHE_SIZE_FAILED";
    case URL_DOWNLOADER_ERROR_PIPE_READ_FAILED:
        return "URL_DOWNLOADER_ERROR_PIPE_READ_FAILED";
    case URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED:
        return "URL_DOWNLOADER_ERROR_PIPE_WRITE_FAILED";
    case URL_DOWNLOADER_ERROR_PIPE_CREATION_FAILED:
        return "URL_DOWNLOADER_ERROR_PIPE_CREATION_FAILED";
    case URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED:
        return "URL_DOWNLOADER_ERROR_MUTEX_INIT_FAILED";
    case URL_DOWNLOADER_ERROR_MUTEX_LOCK_FAILED:
        return "URL_DOWNLOADER_ERROR_MUTEX_LOCK_FAILED";
    case URL_DOWNLOADER_ERROR_MUTEX_UNLOCK_FAILED:
        return "URL_DOWNLOADER_ERROR_MUTEX_UNLOCK_FAILED";
    case URL_DOWNLOADER_ERROR_THREAD_CREATION_FAILED:
        return "URL_DOWNLOADER_ERROR_THREAD_CREATION_FAILED";
    case URL_DOWNLOADER_ERROR_INVALID_API_HANDLE:
        return "URL_DOWNLOADER_ERROR_INVALID_API_HANDLE";
    case URL_DOWNLOADER_ERROR_REQUEST_CANCELLED:
        return "URL_DOWNLOADER_ERROR_REQUEST_CANCELLED";
    case URL_DOWNLOADER_ERROR_SERVICE_DESTROYING:
        return "URL_DOWNLOADER_ERROR_SERVICE_DESTROYING";
    case URL_DOWNLOADER_ERROR_INVALID_NETWORK_CONFIG:
        return "URL_DOWNLOADER_ERROR_INVALID_NETWORK_CONFIG";
    default:
        return "UNKNOWN_ERROR";
    }
}

// The client's own messages: standard error, or a copy of it while standard
// error itself is silenced.
std::FILE* g_err = stderr;

// The library turns libcurl's trace on for every transfer, and its log and
// the trace both write to standard error: shown only when asked for.
void SetUpStandardError(bool verbose)
{
    if (verbose) {
        // Before the library's first line: the device's log reads it once.
        g_setenv("VELMORA_LOG_STDERR", "1", TRUE);
        // Some thirty trace writes per download: batch them into few.
        if (isatty(STDERR_FILENO) == 0)
            std::setvbuf(stderr, nullptr, _IOFBF, 1 << 16);
        return;
    }
    const int own = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::FILE* copy = own >= 0 ? fdopen(own, "w") : nullptr;
    if (copy != nullptr && null >= 0 && dup2(null, STDERR_FILENO) >= 0) {
        std::setvbuf(stderr, nullptr, _IOFBF, 0); // the unseen trace, in few writes
        std::setvbuf(copy, nullptr, _IOLBF, 0);
        g_err = copy;
    } else if (copy != nullptr) {
        std::fclose(copy);
    } else if (own >= 0) {
        close(own);
    }
    if (null >= 0)
        close(null);
}

void PrintUsageHint(const std::string& problem)
{
    std::fprintf(stderr, "url-downloader: %s\n", problem.c_str());
    std::fprintf(stderr, "Try 'url-downloader --help' for usage.\n");
}

// One request of a get run.
struct Job {
    struct Run* run = nullptr;
    size_t index = 0;
    DownloadArg arg;
    url_downloader_api_h request = nullptr;
    bool finished = false;
    int error = URL_DOWNLOADER_ERROR_NONE;
    std::string delivered; // path handed to the callback, empty when none
    bool from_cache = false;
};

struct Run {
    Options options;
    GMainLoop* loop = nullptr;
    std::vector<std::unique_ptr<Job>> jobs;
    std::vector<TrackedFile> files; // parallel to jobs
    size_t pending = 0;
    bool interrupted = false;
    gint64 start_us = 0;
    std::unique_ptr<ProgressView> view;
};

double Elapsed(const Run& run) { return static_cast<double>(g_get_monotonic_time() - run.start_us) / 1e6; }

bool OnResult(url_downloader_api_h request, void* file_path, void* user_data, int error)
{
    Job* job = static_cast<Job*>(user_data);
    Run* run = job->run;
    // The path dies when we return: keep a copy.
    job->delivered = file_path != nullptr ? static_cast<const char*>(file_path) : "";
    job->error = error;
    job->finished = true;
    job->request = nullptr;
    TrackedFile& file = run->files[job->index];
    file.done = true;
    // Nothing was transferred to the requested file: the answer came from the
    // cache (see the --help text for why this rule holds).
    job->from_cache = run->options.use_cache && error == URL_DOWNLOADER_ERROR_NONE &&
                      FileState::Of(job->arg.path).SameAs(file.before);
    // A failed transfer leaves what it wrote (an error page, a partial body);
    // a file that this run created for it is no download: remove it.
    if (error != URL_DOWNLOADER_ERROR_NONE && !file.before.exists)
        g_unlink(job->arg.path.c_str());
    if (--run->pending == 0)
        g_main_loop_quit(run->loop);
    return true;
}

gboolean OnTick(gpointer data)
{
    Run* run = static_cast<Run*>(data);
    run->view->Update(run->files, Elapsed(*run));
    return G_SOURCE_CONTINUE;
}

gboolean OnSignal(gpointer data)
{
    Run* run = static_cast<Run*>(data);
    run->interrupted = true;
    // Another signal may end the process before main returns.
    std::fflush(stderr);
    g_main_loop_quit(run->loop);
    return G_SOURCE_CONTINUE;
}

bool MakeParentFolder(const std::string& path)
{
    gchar* dir = g_path_get_dirname(path.c_str());
    const bool ok = g_mkdir_with_parents(dir, 0755) == 0;
    if (!ok)
        std::fprintf(g_err, "url-downloader: cannot create folder '%s': %s\n", dir, g_strerror(errno));
    g_free(dir);
    return ok;
}

int64_t SizeOf(const std::string& path)
{
    const FileState state = FileState::Of(path);
    return state.exists ? static_cast<int64_t>(state.size) : -1;
}

int PrintResults(const Run& run)
{
    size_t succeeded = 0;
    size_t cached = 0;
    for (const auto& job : run.jobs) {
        const bool ok = job->finished && job->error == URL_DOWNLOADER_ERROR_NONE && !job->delivered.empty();
        std::string size = "-";
        if (ok) {
            ++succeeded;
            cached += job->from_cache ? 1 : 0;
            const int64_t bytes = SizeOf(job->delivered);
            size = bytes >= 0 ? std::to_string(bytes) : "-";
        }
        std::printf("result\t%s\t%s\t%s\t%s\t%s\n", job->arg.url.c_str(), ok ? job->delivered.c_str() : "-",
                    size.c_str(), job->finished ? ErrorName(job->error) : "UNFINISHED",
                    ok ? (job->from_cache ? "cache" : "network") : "-");
    }
    std::printf("%zu of %zu downloads succeeded, %zu from the cache%s\n", succeeded, run.jobs.size(), cached,
                run.interrupted ? " (interrupted)" : "");
    std::fflush(stdout);
    return succeeded == run.jobs.size() ? 0 : 1;
}

int RunGet(const Options& options)
{
    Run run;
    run.options = options;
    for (const DownloadArg& arg : options.downloads) {
        if (!MakeParentFolder(arg.path))
            return 1;
        auto job = std::make_unique<Job>();
        job->run = &run;
        job->index = run.jobs.size();
        job->arg = arg;
        TrackedFile file;
        gchar* base = g_path_get_basename(arg.path.c_str());
        file.label = base;
        g_free(base);
        file.path = arg.path;
        run.files.push_back(std::move(file));
        run.jobs.push_back(std::move(job));
    }

    url_downloader_config_t config = {};
    std::string proxy = options.proxy.value_or("");
    config.proxy = options.proxy ? proxy.data() : nullptr;
    url_downloader_h service = nullptr;
    url_downloader_error rc = url_downloader_register(options.app.c_str(), OnResult, &config, &service);
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::fprintf(g_err, "url-downloader: registration failed: %s\n", ErrorName(rc));
        url_downloader_finalize();
        return 1;
    }

    run.loop = g_main_loop_new(nullptr, FALSE);
    run.start_us = g_get_monotonic_time();
    for (auto& job : run.jobs) {
        // Taken before submission: the reference for telling a transfer from
        // a cache answer.
        run.files[job->index].before = FileState::Of(job->arg.path);
        rc = url_downloader_download(service, job->arg.path.c_str(), job->arg.url.c_str(), options.use_cache, job.get(),
                                     &job->request);
        if (rc != URL_DOWNLOADER_ERROR_NONE) {
            // No callback will come for it.
            job->finished = true;
            job->error = rc;
            run.files[job->index].done = true;
        } else {
            ++run.pending;
        }
    }

    if (run.pending > 0) {
        const bool terminal = isatty(fileno(stdout)) != 0;
        run.view = std::make_unique<ProgressView>(stdout, terminal);
        const guint tick = g_timeout_add(terminal ? 250 : 1000, OnTick, &run);
        const guint sigint = g_unix_signal_add(SIGINT, OnSignal, &run);
        const guint sigterm = g_unix_signal_add(SIGTERM, OnSignal, &run);
        g_main_loop_run(run.loop);
        g_source_remove(tick);
        g_source_remove(sigint);
        g_source_remove(sigterm);
        run.view->Clear();
    }

    // Drops what is still running (after an interruption) without callbacks;
    // the partial files that this run created go with them.
    url_downloader_finalize();
    for (const auto& job : run.jobs)
        if (!job->finished && !run.files[job->index].before.exists)
            g_unlink(job->arg.path.c_str());
    g_main_loop_unref(run.loop);
    return PrintResults(run);
}

int RunClean(const Options& options)
{
    url_downloader_h service = nullptr;
    url_downloader_error rc = url_downloader_register(options.app.c_str(), nullptr, nullptr, &service);
    if (rc == URL_DOWNLOADER_ERROR_NONE)
        rc = url_downloader_clean(service);
    url_downloader_finalize();
    if (rc != URL_DOWNLOADER_ERROR_NONE) {
        std::fprintf(g_err, "url-downloader: cleaning the cache rows of '%s' failed: %s\n", options.app.c_str(),
                     ErrorName(rc));
        return 1;
    }
    std::printf("Deleted the cache rows of application '%s'.\n", options.app.c_str());
    return 0;
}

} // namespace

} // namespace udcli

int main(int argc, char** argv)
{
    udcli::Options options;
    const std::string problem = udcli::ParseArguments(argc, argv, &options);
    if (!problem.empty()) {
        udcli::PrintUsageHint(problem);
        return 2;
    }
    if (options.command == udcli::Command::Help) {
        std::fputs(udcli::UsageText(), stdout);
        return 0;
    }
    udcli::SetUpStandardError(options.verbose);
    int status = 2;
    switch (options.command) {
    case udcli::Command::Get:
        status = udcli::RunGet(options);
        break;
    case udcli::Command::Clean:
        status = udcli::RunClean(options);
        break;
    case udcli::Command::CacheList:
        status = udcli::ListCache(options.app_given ? std::optional<std::string>(options.app) : std::nullopt, stdout,
                                  udcli::g_err);
        break;
    case udcli::Command::Help:
        break;
    }
    std::fflush(stdout);
    std::fflush(stderr);
    return status;
}
