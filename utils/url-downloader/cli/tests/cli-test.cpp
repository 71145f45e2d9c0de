// The url-downloader client and the minimal example, run as programs against
// the loopback test server. Their cache database is redirected into the test's
// own folder by a preloaded db_util_open (db-redirect.c).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "test-db.h"
#include "test-env.h"
#include "test-server.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using ud_test::TestServer;
using Clock = std::chrono::steady_clock;
using Fields = std::vector<std::string>;

// A client program with its standard output on a pipe, its standard error in
// a file and its standard input from the file input, if given.
class Process {
public:
    explicit Process(const std::vector<std::string>& args, const std::string& program = UD_CLI_PROGRAM,
                     const std::string& input = "")
        : err_path_(ud_test::TempPath("stderr-" + std::to_string(++count_)))
    {
        EXPECT_TRUE(ud_test::FileExists(UD_CLI_DB_REDIRECT)) << "the database redirection must be built";
        // The preloaded library comes before the sanitizer runtime: allow it.
        // GLib hands its idle sources between threads under futexes that the
        // race detector cannot see; what GLib does inside is not checked.
        const std::string glib_supp = ud_test::TempPath("tsan-glib.supp");
        std::ofstream(glib_supp) << "called_from_lib:libglib-2.0.so.0\n";
        auto inherited = [](const char* name) {
            const char* value = std::getenv(name);
            return std::string(name) + "=" + (value ? value : "");
        };
        std::vector<std::string> env{std::string("LD_PRELOAD=") + UD_CLI_DB_REDIRECT,
                                     "UD_TEST_DB_DIR=" + ud_test::TempDir(),
                                     inherited("ASAN_OPTIONS") + ":verify_asan_link_order=0",
                                     inherited("TSAN_OPTIONS") + ":suppressions=" + glib_supp};
        for (char** e = environ; *e != nullptr; ++e)
            if (std::strncmp(*e, "LD_PRELOAD=", 11) && std::strncmp(*e, "ASAN_OPTIONS=", 13) &&
                std::strncmp(*e, "TSAN_OPTIONS=", 13))
                env.push_back(*e);
        // A cross-built client runs through the emulator (no binfmt here).
        std::vector<std::string> emulated;
        std::istringstream emulator(UD_CLI_EMULATOR);
        for (std::string word; emulator >> word;)
            emulated.push_back(word);
        std::vector<char*> argv, envp;
        for (std::string& word : emulated)
            argv.push_back(&word[0]);
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        for (std::string& e : env)
            envp.push_back(&e[0]);
        argv.push_back(nullptr);
        envp.push_back(nullptr);

        int out[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (!input.empty())
            posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
        EXPECT_EQ(posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        fd_ = out[0];
    }

    ~Process()
    {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0)
            waitpid(pid_, nullptr, 0);
        close(fd_);
    }

    // Reads standard output until done(output so far) holds, it ends or the
    // timeout passes; returns done's last answer.
    bool ReadUntil(const std::function<bool(const std::string&)>& done, std::chrono::milliseconds timeout)
    {
        const auto deadline = Clock::now() + timeout;
        char buf[4096];
        while (!done(out_) && !eof_ && Clock::now() < deadline) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0)
                continue;
            const ssize_t n = read(fd_, buf, sizeof buf);
            eof_ = n <= 0;
            out_.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
        }
        return done(out_);
    }

    // Exit status once the program has ended; -1 when it did not in time.
    int Wait(std::chrono::milliseconds timeout = 60s)
    {
        const auto deadline = Clock::now() + timeout;
        ReadUntil([](const std::string&) { return false; }, timeout);
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (Clock::now() >= deadline)
                return -1;
            usleep(10000);
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    const std::string& Out() const { return out_; }
    std::string Err() const { return ud_test::ReadFile(err_path_); }

private:
    static inline int count_ = 0;
    std::string err_path_;
    pid_t pid_ = -1;
    int fd_ = -1;
    bool eof_ = false;
    std::string out_;
};

std::vector<std::string> Split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

// Fields of the result lines: URL, path, size, error, source.
std::vector<Fields> Results(const std::string& out)
{
    std::vector<Fields> results;
    for (const std::string& line : Split(out, '\n'))
        if (line.rfind("result\t", 0) == 0)
            results.push_back(Split(line.substr(7), '\t'));
    return results;
}

TEST(CliArguments, BadArgumentsExitTwoWithAnErrorAndAHintAndTouchNothing)
{
    TestServer server;
    const std::string dir = ud_test::TempPath("out");
    const std::string url = server.Url("/a");
    const std::vector<std::vector<std::string>> cases = {
        {}, {"fetch", url}, {"get"}, {"get", "--bogus", url}, {"get", url, "--app"}, {"get", "=" + dir + "/a"},
        {"get", url + "="}, {"get", url + "=" + dir + "/"}, {"get", "ftp://127.0.0.1/a"}, {"get", "http:///a"},
        {"get", "-o", dir, url, server.Url("/b/a")}, // one destination twice
        {"clean"}, {"clean", "--app", "x", url}, {"clean", "--cache", "--app", "x"},
        {"cache"}, {"cache", "list", url}, {"cache", "clean"}, {"get", "-i", dir + "/absent"},
    };
    for (const auto& args : cases) {
        Process client(args);
        SCOPED_TRACE(::testing::PrintToString(args));
        EXPECT_EQ(client.Wait(), 2);
        EXPECT_EQ(client.Out(), "");
        const auto err = Split(client.Err(), '\n');
        EXPECT_TRUE(err.size() == 2 && err[0].rfind("url-downloader: ", 0) == 0 &&
                    err[1].find("--help") != std::string::npos)
            << client.Err();
    }
    EXPECT_EQ(server.Requests().size(), 0u);
    EXPECT_FALSE(ud_test::FileExists(dir));
    EXPECT_FALSE(ud_test::FileExists(ud_test::CacheDbPath()));
}

TEST(CliGet, AFailedRequestIsReportedAndMakesTheExitStatusOne)
{
    TestServer server;
    server.Route("/files/ok.bin", {200, {}, "fine"});
    server.Route("/gone", {404, {}, "<html>not here</html>"});
    const std::string dir = ud_test::TempPath("out");

    Process client({"get", "-o", dir, server.Url("/files/ok.bin"), server.Url("/gone") + "=sub/gone.html"});
    ASSERT_EQ(client.Wait(), 1) << client.Err();
    const auto results = Results(client.Out());
    ASSERT_EQ(results.size(), 2u) << client.Out();
    EXPECT_EQ(results[0], (Fields{server.Url("/files/ok.bin"), dir + "/ok.bin", "4", "URL_DOWNLOADER_ERROR_NONE",
                                  "network"}));
    EXPECT_EQ(results[1], (Fields{server.Url("/gone"), "-", "-", "URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED", "-"}));
    EXPECT_EQ(ud_test::ReadFile(dir + "/ok.bin"), "fine");
    EXPECT_FALSE(ud_test::FileExists(dir + "/sub/gone.html")); // the error page is no download
}

TEST(CliGet, TheProxyCarriesTheTransfers)
{
    TestServer proxy;
    proxy.Route("/p.txt", {200, {}, "proxied"});
    const std::string path = ud_test::TempPath("p.txt");
    // The host is never resolved: only the proxy on 127.0.0.1 is contacted.
    Process client({"get", "--proxy", proxy.Url(""), "http://host.invalid/p.txt=" + path});
    ASSERT_EQ(client.Wait(), 0) << client.Err();
    ASSERT_EQ(proxy.Requests().size(), 1u);
    EXPECT_TRUE(proxy.Requests()[0].via_proxy);
    EXPECT_EQ(ud_test::ReadFile(path), "proxied");
}

TEST(CliGet, CacheHitsAreMarkedMakeNoTransferAndCleanEndsThem)
{
    TestServer server;
    server.Route("/c.bin", {200, {}, "cached"});
    const std::string url = server.Url("/c.bin");
    const std::string first = ud_test::TempPath("first") + "/c.bin";
    const std::string other = ud_test::TempPath("other") + "/c.bin";

    // The one result line of a run, or its whole output when there is not exactly one.
    auto run = [&](const std::vector<std::string>& args) {
        Process client(args);
        EXPECT_EQ(client.Wait(), 0) << client.Err();
        const auto results = Results(client.Out());
        return results.size() == 1 ? results[0] : Fields{client.Out()};
    };
    auto from = [&](const char* source) { return Fields{url, first, "6", "URL_DOWNLOADER_ERROR_NONE", source}; };

    EXPECT_EQ(run({"get", "--cache", "--app", "a", url + "=" + first}), from("network"));
    ASSERT_TRUE(ud_test::FileExists(ud_test::CacheDbPath())) << "the database was not redirected";
    EXPECT_EQ(run({"get", "--cache", "--app", "b", url + "=" + first}), from("cache"));
    // Asked for elsewhere: delivered at the cached file, nothing written there.
    EXPECT_EQ(run({"get", "--cache", url + "=" + other}), from("cache"));
    EXPECT_FALSE(ud_test::FileExists(other));
    EXPECT_EQ(server.RequestCount("/c.bin"), 1u);

    // Only the named application's entry goes.
    run({"clean", "--app", "b"});
    EXPECT_EQ(run({"get", "--cache", url + "=" + first}), from("cache"));
    run({"clean", "--app", "a"});
    EXPECT_EQ(run({"get", "--cache", url + "=" + first}), from("network"));
    EXPECT_EQ(server.RequestCount("/c.bin"), 2u);
}

TEST(CliProgress, PlainLinesWithoutControlCodesWhileATransferRuns)
{
    TestServer server;
    // Small enough to be written as it arrives (larger bodies are buffered).
    TestServer::Response slow{200, {}, ud_test::Pattern(60000, 3)};
    slow.stall_after = 30000;
    server.Route("/slow.bin", slow);
    server.Route("/quick.bin", {200, {}, "quick"});

    // Bytes shown for the stalled file in the last progress line about it.
    auto stalled_bytes = [](const std::string& out) {
        const size_t at = out.rfind("slow.bin: ");
        return at == std::string::npos ? 0LL : std::atoll(out.c_str() + at + 10);
    };
    Process client({"get", "-o", ud_test::TempPath("out"), server.Url("/slow.bin"), server.Url("/quick.bin")});
    // Written bytes show up while the transfer waits, next to the finished one.
    const bool shown = client.ReadUntil(
        [&](const std::string& out) { return stalled_bytes(out) > 0 && out.find("1 of 2 done") != std::string::npos; },
        30s);
    server.Release("/slow.bin");
    ASSERT_TRUE(shown) << client.Out();
    EXPECT_LE(stalled_bytes(client.Out()), 30000);
    ASSERT_EQ(client.Wait(), 0) << client.Err();
    EXPECT_EQ(client.Out().find_first_of("\r\033"), std::string::npos);
    EXPECT_EQ(Results(client.Out()).size(), 2u);
}

TEST(CliGet, StandardErrorShowsTheLogAndTraceOnlyWhenVerbose)
{
    TestServer server;
    server.Route("/q.txt", {200, {}, "quiet"});
    const std::string url = server.Url("/q.txt"), blocker = ud_test::TempPath("blocker");
    std::ofstream(blocker) << "a file where a folder is needed";
    // Arguments, exit status, verbose, and the client's own message in a quiet run.
    const std::vector<std::tuple<std::vector<std::string>, int, bool, std::string>> cases = {
        {{"get", url + "=" + ud_test::TempPath("q1")}, 0, false, ""},
        {{"get", "-v", url + "=" + ud_test::TempPath("q2")}, 0, true, ""},
        {{"get", url + "=" + blocker + "/q"}, 1, false, "url-downloader: cannot create folder '" + blocker + "'"},
    };
    for (const auto& [args, status, verbose, own] : cases) {
        Process client(args);
        EXPECT_EQ(client.Wait(), status);
        const std::string err = client.Err();
        EXPECT_EQ(err.find("> GET /q.txt") != std::string::npos, verbose) << err;        // libcurl's trace
        EXPECT_EQ(err.find("/URL-Downloader: ") != std::string::npos, verbose) << err; // the library's log
        EXPECT_TRUE(verbose || (err.rfind(own, 0) == 0 && Split(err, '\n').size() == (own.empty() ? 0u : 1u))) << err;
    }
}

TEST(CliGet, InputListsAddTheirLinesAndABadLineIsNamed)
{
    TestServer server;
    server.Route("/a.txt", {200, {}, "A"});
    server.Route("/b.txt", {200, {}, "B"});
    const std::string dir = ud_test::TempPath("listed"), list = ud_test::TempPath("list");
    const std::string a = server.Url("/a.txt"), b = server.Url("/b.txt");
    const std::string good = "# " + a + "\n\n \t" + b + "=sub/b \r\n";
    std::string many;
    for (int i = 0; i < 10000; ++i)
        many += server.Url("/n" + std::to_string(i)) + "\n";
    // Lines, given on standard input, and what the error names after the list (none: success).
    const std::vector<std::tuple<std::string, bool, std::string>> cases = {
        {good, false, ""},
        {good, true, ""},
        {good + "ftp://127.0.0.1/c\n", false, ":4: unsupported URL"},
        {"\n" + a + "\n", true, ":2: two downloads would write the same file"}, // a is on the command line too
        {many + "=x\n", false, ":10001: missing URL"},
    };
    for (const auto& [lines, on_stdin, bad] : cases) {
        std::ofstream(list) << lines;
        const std::string name = on_stdin ? "-" : list;
        Process client({"get", "-o", dir, a, "-i", name}, UD_CLI_PROGRAM, list);
        EXPECT_EQ(client.Wait(), bad.empty() ? 0 : 2) << client.Err();
        EXPECT_EQ(Results(client.Out()),
                  bad.empty() ? (std::vector<Fields>{{a, dir + "/a.txt", "1", "URL_DOWNLOADER_ERROR_NONE", "network"},
                                                     {b, dir + "/sub/b", "1", "URL_DOWNLOADER_ERROR_NONE", "network"}})
                              : std::vector<Fields>{});
        EXPECT_TRUE(bad.empty() || client.Err().rfind("url-downloader: " + name + bad, 0) == 0) << client.Err();
    }
}

TEST(CliCache, ListShowsTheRowsAndTheirFilesByApplication)
{
    TestServer server;
    // The header's date is taken as local time and shown back as such; a zone
    // away from UTC makes a mix-up visible.
    setenv("TZ", "IST-5:30", 1);
    const std::vector<std::pair<std::string, std::string>> expires = {{"Expires", "Fri, 01 Nov 2030 13:05:00 GMT"}};
    server.Route("/one.bin", {200, expires, "first"});
    server.Route("/two.bin", {200, expires, "second"});
    const std::string one = ud_test::TempPath("one.bin"), two = ud_test::TempPath("two.bin");
    for (const char* suffix : {"", "-wal", "-shm"})
        std::remove((ud_test::CacheDbPath() + suffix).c_str());

    auto list = [](std::vector<std::string> args) {
        args.insert(args.begin(), {"cache", "list"});
        Process client(args);
        EXPECT_EQ(client.Wait(), 0) << client.Err();
        return Split(client.Out(), '\n');
    };
    const std::string header = "APP\tURL\tPATH\tSIZE\tEXPIRES\tFILE";
    EXPECT_EQ(list({}), Fields{header}); // no table yet
    EXPECT_EQ(Process({"get", "--cache", "--app", "a1", server.Url("/one.bin") + "=" + one}).Wait(), 0);
    EXPECT_EQ(Process({"get", "--cache", "--app", "a2", server.Url("/two.bin") + "=" + two}).Wait(), 0);
    const std::string row1 = "a1\t" + server.Url("/one.bin") + "\t" + one + "\t5\t2030-11-01 13:05:00\t";
    const std::string row2 = "a2\t" + server.Url("/two.bin") + "\t" + two + "\t6\t2030-11-01 13:05:00\t";
    EXPECT_EQ(list({}), (Fields{header, row1 + "present", row2 + "present"}));
    EXPECT_EQ(list({"--app", "a2"}), (Fields{header, row2 + "present"}));
    std::remove(one.c_str());
    std::ofstream(two, std::ios::app) << "more";
    EXPECT_EQ(list({"--app", "a1"}), (Fields{header, row1 + "missing"}));
    EXPECT_EQ(list({"--app", "a2"}), (Fields{header, row2 + "changed"}));
}

TEST(CliExample, MinimalClientDownloadsOneFile)
{
    TestServer server;
    server.Route("/m.txt", {200, {}, "minimal"});
    const std::string path = ud_test::TempPath("m.txt");
    Process ok({server.Url("/m.txt"), path}, UD_CLI_EXAMPLE);
    EXPECT_EQ(ok.Wait(), 0) << ok.Err();
    EXPECT_EQ(ud_test::ReadFile(path), "minimal");
    Process missing({server.Url("/none"), ud_test::TempPath("none")}, UD_CLI_EXAMPLE);
    EXPECT_EQ(missing.Wait(), 1) << missing.Err();
}

} // namespace
