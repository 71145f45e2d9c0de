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
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "test-db.h"
#include "test-env.h"
#include "test-server.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using ud_test::TestServer;
using Clock = std::chrono::steady_clock;

// A client program running with its output on pipes.
class Process {
public:
    explicit Process(const std::vector<std::string>& args, const std::string& program = UD_CLI_PROGRAM)
    {
        EXPECT_TRUE(ud_test::FileExists(UD_CLI_DB_REDIRECT)) << "the database redirection must be built";
        std::vector<std::string> env;
        for (char** e = environ; *e != nullptr; ++e) {
            const std::string var = *e;
            if (var.rfind("LD_PRELOAD=", 0) != 0 && var.rfind("UD_TEST_DB_DIR=", 0) != 0 &&
                var.rfind("ASAN_OPTIONS=", 0) != 0)
                env.push_back(var);
        }
        env.push_back(std::string("LD_PRELOAD=") + UD_CLI_DB_REDIRECT);
        env.push_back("UD_TEST_DB_DIR=" + ud_test::TempDir());
        // The preloaded library comes before the sanitizer runtime.
        const char* asan = std::getenv("ASAN_OPTIONS");
        env.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0");

        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (std::string& e : env)
            envp.push_back(&e[0]);
        envp.push_back(nullptr);

        int out[2], err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        EXPECT_EQ(posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), envp.data()), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        fds_[0] = out[0];
        fds_[1] = err[0];
    }

    ~Process()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        for (int fd : fds_)
            if (fd >= 0)
                close(fd);
    }

    // Reads output until done(stdout so far) holds, the output ends or the
    // timeout passes; returns done's last answer.
    bool ReadUntil(const std::function<bool(const std::string&)>& done, std::chrono::milliseconds timeout)
    {
        const auto deadline = Clock::now() + timeout;
        while (!done(out_) && (fds_[0] >= 0 || fds_[1] >= 0) && Clock::now() < deadline) {
            pollfd p[2] = {{fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}};
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (poll(p, 2, static_cast<int>(std::max<long long>(left.count(), 1))) <= 0)
                continue;
            for (int i = 0; i < 2; ++i) {
                if (p[i].revents == 0)
                    continue;
                char buf[4096];
                const ssize_t n = read(fds_[i], buf, sizeof buf);
                if (n > 0) {
                    (i == 0 ? out_ : err_).append(buf, static_cast<size_t>(n));
                } else {
                    close(fds_[i]);
                    fds_[i] = -1;
                }
            }
        }
        return done(out_);
    }

    // Exit status once the program has ended, -1 when it did not in time
    // (it is killed then).
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
    const std::string& Err() const { return err_; }

private:
    pid_t pid_ = -1;
    int fds_[2] = {-1, -1};
    std::string out_, err_;
};

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The tab-separated fields of the result lines: URL, path, size, error, source.
std::vector<std::vector<std::string>> Results(const std::string& out)
{
    std::vector<std::vector<std::string>> results;
    for (const std::string& line : Lines(out)) {
        if (line.rfind("result\t", 0) != 0)
            continue;
        std::vector<std::string> fields;
        std::istringstream in(line.substr(7));
        for (std::string f; std::getline(in, f, '\t');)
            fields.push_back(f);
        results.push_back(fields);
    }
    return results;
}

std::vector<std::string> Result(const std::string& url, const std::string& path, const std::string& size,
                                const std::string& error, const std::string& source)
{
    return {url, path, size, error, source};
}

TEST(CliArguments, BadArgumentsExitTwoWithAnErrorAndAHintAndTouchNothing)
{
    TestServer server;
    server.Route("/a", {200, {}, "body"});
    const std::string dir = ud_test::TempPath("out");
    const std::string url = server.Url("/a");
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"fetch", url},
        {"get"},
        {"get", "-o", dir},
        {"get", "--bogus", url},
        {"get", "-x", url},
        {"get", url, "--app"},
        {"get", "=" + dir + "/a"},
        {"get", url + "="},
        {"get", url + "=" + dir + "/"},
        {"get", "ftp://127.0.0.1/a"},
        {"get", "no-scheme/a"},
        {"get", "http:///a"},
        {"get", "-o", dir, url, server.Url("/b/a")},
        {"clean"},
        {"clean", "--app", "x", url},
        {"clean", "--cache", "--app", "x"},
    };
    for (const auto& args : cases) {
        std::string shown;
        for (const auto& a : args)
            shown += " " + a;
        SCOPED_TRACE("arguments:" + shown);
        Process client(args);
        EXPECT_EQ(client.Wait(), 2);
        EXPECT_EQ(client.Out(), "");
        const auto err = Lines(client.Err());
        ASSERT_EQ(err.size(), 2u) << client.Err();
        EXPECT_EQ(err[0].rfind("url-downloader: ", 0), 0u);
        EXPECT_NE(err[1].find("--help"), std::string::npos);
    }
    EXPECT_EQ(server.RequestCount("/a"), 0u);
    EXPECT_FALSE(ud_test::FileExists(dir));
    EXPECT_FALSE(ud_test::FileExists(ud_test::CacheDbPath()));

    Process help({"get", "--help"});
    EXPECT_EQ(help.Wait(), 0);
    EXPECT_NE(help.Out().find("Usage: url-downloader get"), std::string::npos);
}

TEST(CliGet, AFailedRequestIsReportedAndMakesTheExitStatusOne)
{
    TestServer server;
    const std::string body = ud_test::Pattern(5000, 1);
    server.Route("/files/ok.bin", {200, {}, body});
    server.Route("/gone", {404, {}, "<html>not here</html>"});
    const std::string dir = ud_test::TempPath("out");

    Process client({"get", "-o", dir, server.Url("/files/ok.bin"), server.Url("/gone") + "=sub/gone.html"});
    ASSERT_EQ(client.Wait(), 1) << client.Err();
    const auto results = Results(client.Out());
    ASSERT_EQ(results.size(), 2u) << client.Out();
    EXPECT_EQ(results[0], Result(server.Url("/files/ok.bin"), dir + "/ok.bin", "5000", "URL_DOWNLOADER_ERROR_NONE",
                                 "network"));
    EXPECT_EQ(results[1], Result(server.Url("/gone"), "-", "-", "URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED", "-"));
    EXPECT_EQ(ud_test::ReadFile(dir + "/ok.bin"), body);
    // The error page is no download.
    EXPECT_FALSE(ud_test::FileExists(dir + "/sub/gone.html"));
    EXPECT_EQ(server.RequestCount("/gone"), 1u);
}

TEST(CliGet, CacheHitsAreMarkedAndMakeNoTransfer)
{
    TestServer server;
    const std::string body = ud_test::Pattern(3000, 2);
    server.Route("/c.bin", {200, {}, body});
    const std::string url = server.Url("/c.bin");
    const std::string first = ud_test::TempPath("first");
    const std::string other = ud_test::TempPath("other");

    auto run = [&](std::vector<std::string> args) {
        Process client(args);
        EXPECT_EQ(client.Wait(), 0) << client.Err();
        const auto results = Results(client.Out());
        EXPECT_EQ(results.size(), 1u) << client.Out();
        return results.empty() ? std::vector<std::string>{} : results[0];
    };
    // A miss with --cache is a transfer.
    EXPECT_EQ(run({"get", "--cache", "-o", first, url}),
              Result(url, first + "/c.bin", "3000", "URL_DOWNLOADER_ERROR_NONE", "network"));
    EXPECT_EQ(server.RequestCount("/c.bin"), 1u);
    ASSERT_TRUE(ud_test::FileExists(ud_test::CacheDbPath())) << "the database was not redirected";

    // The same request again: answered in place, no transfer.
    EXPECT_EQ(run({"get", "--cache", "-o", first, url}),
              Result(url, first + "/c.bin", "3000", "URL_DOWNLOADER_ERROR_NONE", "cache"));
    // Asked for elsewhere: delivered at the cached file, nothing written there.
    EXPECT_EQ(run({"get", "--cache", "-o", other, url}),
              Result(url, first + "/c.bin", "3000", "URL_DOWNLOADER_ERROR_NONE", "cache"));
    EXPECT_FALSE(ud_test::FileExists(other + "/c.bin"));
    EXPECT_EQ(server.RequestCount("/c.bin"), 1u);

    // Without --cache the file is fetched again and rewritten in place.
    EXPECT_EQ(run({"get", "-o", first, url}),
              Result(url, first + "/c.bin", "3000", "URL_DOWNLOADER_ERROR_NONE", "network"));
    EXPECT_EQ(server.RequestCount("/c.bin"), 2u);
    EXPECT_EQ(ud_test::ReadFile(first + "/c.bin"), body);
}

TEST(CliClean, RemovesOnlyTheNamedApplicationsEntries)
{
    TestServer server;
    server.Route("/k", {200, {}, "kept"});
    const std::string url = server.Url("/k");
    const std::string dir = ud_test::TempPath("out");
    auto source = [&](const std::string& app) {
        Process client({"get", "--cache", "--app", app, "-o", dir, url});
        EXPECT_EQ(client.Wait(), 0) << client.Err();
        const auto results = Results(client.Out());
        return results.size() == 1 ? results[0][4] : "?";
    };
    auto clean = [&](const std::string& app) {
        Process client({"clean", "--app", app});
        EXPECT_EQ(client.Wait(), 0) << client.Err();
    };

    EXPECT_EQ(source("app-a"), "network");
    clean("app-b");
    EXPECT_EQ(ud_test::CountCacheRows("appname = 'app-a'"), 1);
    EXPECT_EQ(source("app-b"), "cache"); // entries serve every application
    clean("app-a");
    EXPECT_EQ(ud_test::CountCacheRows("appname = 'app-a'"), 0);
    EXPECT_EQ(source("app-b"), "network");
    EXPECT_EQ(server.RequestCount("/k"), 2u);
}

TEST(CliProgress, PlainLinesWithoutControlCodesWhileATransferRuns)
{
    TestServer server;
    TestServer::Response slow{200, {}, ud_test::Pattern(100000, 3)};
    slow.stall_after = 50000;
    server.Route("/slow.bin", slow);
    server.Route("/quick.bin", {200, {}, "quick"});
    const std::string dir = ud_test::TempPath("out");

    // Bytes shown for the stalled file in the last progress line about it.
    auto stalled_bytes = [](const std::string& out) {
        const size_t at = out.rfind("slow.bin: ");
        return at == std::string::npos ? 0LL : std::atoll(out.c_str() + at + 10);
    };
    Process client({"get", "-o", dir, server.Url("/slow.bin"), server.Url("/quick.bin")});
    // Written bytes show up while the transfer waits, next to the finished one.
    const bool shown = client.ReadUntil(
        [&](const std::string& out) {
            return stalled_bytes(out) > 0 && out.find("1 of 2 done") != std::string::npos;
        },
        30s);
    server.Release("/slow.bin");
    ASSERT_TRUE(shown) << client.Out();
    EXPECT_LE(stalled_bytes(client.Out()), 50000);
    ASSERT_EQ(client.Wait(), 0) << client.Err();

    EXPECT_EQ(client.Out().find_first_of("\r\033"), std::string::npos);
    for (const std::string& line : Lines(client.Out())) {
        if (line.rfind("result\t", 0) != 0 && line.find("downloads succeeded") == std::string::npos) {
            EXPECT_EQ(line.rfind("progress [", 0), 0u) << line;
        }
    }
    EXPECT_EQ(Results(client.Out()).size(), 2u);
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
