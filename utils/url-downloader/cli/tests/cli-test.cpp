// The url-downloader client and the minimal example, run as programs against
// the loopback test server, with their cache database kept in the test's folder.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "main-loop.h"
#include "test-db.h"
#include "test-env.h"
#include "test-server.h"

namespace {

using namespace std::chrono_literals;
using ud_test::TestServer;
using Lines = std::vector<std::string>;
constexpr size_t npos = std::string::npos;
const std::string kOk = "URL_DOWNLOADER_ERROR_NONE", kFailed = "URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED";

Lines Split(const std::string& text, char separator)
{
    Lines parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

// Fields of the result lines: URL, path, size, error, source.
std::vector<Lines> Results(const std::string& out)
{
    std::vector<Lines> results;
    for (const std::string& line : Split(out, '\n'))
        if (line.rfind("result\t", 0) == 0)
            results.push_back(Split(line.substr(7), '\t'));
    return results;
}

// A client program with its standard output and error in files and its
// standard input from the file input, if given; killed when it goes.
struct Client {
    explicit Client(const Lines& args, const char* program = UD_CLI_PROGRAM, const std::string& input = "")
        : out_(ud_test::TempPath("out-" + std::to_string(++count_))), err_(out_ + ".err")
    {
        // Without it the client would open the device's real database.
        g_assert_true(ud_test::FileExists(UD_CLI_DB_REDIRECT));
        GSubprocessLauncher* launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE);
        auto set = [launcher](const char* name, const std::string& value, bool append = false) {
            const char* old = append ? g_getenv(name) : nullptr;
            g_subprocess_launcher_setenv(launcher, name, ((old ? old : "") + value).c_str(), TRUE);
        };
        set("LD_PRELOAD", UD_CLI_DB_REDIRECT);
        set("UD_TEST_DB_DIR", ud_test::TempDir());
        // The preloaded library comes before the sanitizer runtime: allow it. GLib goes unchecked by TSan.
        set("ASAN_OPTIONS", ":verify_asan_link_order=0", true);
        set("TSAN_OPTIONS", ":suppressions=" UD_CLI_TSAN_SUPPRESSIONS, true);
        g_subprocess_launcher_set_stdout_file_path(launcher, out_.c_str());
        g_subprocess_launcher_set_stderr_file_path(launcher, err_.c_str());
        if (!input.empty())
            g_subprocess_launcher_set_stdin_file_path(launcher, input.c_str());
        // A cross-built client runs through the emulator (no binfmt here).
        g_autoptr(GStrvBuilder) words = g_strv_builder_new();
        for (const Lines& part : {Split(UD_CLI_EMULATOR, ' '), Lines{program}, args})
            for (const std::string& word : part)
                g_strv_builder_add(words, word.c_str());
        g_auto(GStrv) argv = g_strv_builder_end(words);
        GError* error = nullptr;
        process_ = g_subprocess_launcher_spawnv(launcher, argv, &error);
        g_object_unref(launcher);
        g_assert_no_error(error);
    }
    ~Client()
    {
        g_subprocess_force_exit(process_);
        g_object_unref(process_);
    }

    // Exit status once the program has ended; -1 when it did not in time.
    int Wait()
    {
        if (!ud_test::RunMainLoopUntil([this] { return !g_subprocess_get_identifier(process_); }, 60s))
            return -1;
        g_subprocess_wait(process_, nullptr, nullptr); // ended already: this orders the status read
        return g_subprocess_get_if_exited(process_) ? g_subprocess_get_exit_status(process_)
                                                    : 128 + g_subprocess_get_term_sig(process_);
    }
    std::string Out() const { return ud_test::ReadFile(out_); }
    std::string Err() const { return ud_test::ReadFile(err_); }

    static inline int count_ = 0;
    std::string out_, err_;
    GSubprocess* process_ = nullptr;
};

TEST(CliArguments, BadArgumentsExitTwoWithAnErrorAndAHintAndTouchNothing)
{
    TestServer server;
    ud_test::FreshCacheDb();
    const std::string dir = ud_test::TempPath("bad"), url = server.Url("/a"), list = ud_test::TempPath("bad-list");
    std::ofstream(list) << "# comment\n\n" << url << "=x\nftp://127.0.0.1/c\n";
    // Arguments, and what the message must name where it matters; standard input is the list.
    const std::vector<std::pair<Lines, std::string>> cases = {
        {{}, ""},
        {{"fetch", url}, ""},
        {{"get"}, ""},
        {{"get", "--bogus", url}, ""},
        {{"get", url, "--app"}, ""},
        {{"get", "=" + dir + "/a"}, ""},
        {{"get", url + "="}, ""},
        {{"get", url + "=" + dir + "/"}, ""},
        {{"get", "ftp://127.0.0.1/a"}, ""},
        {{"get", "http:///a"}, ""},
        {{"get", "-i", dir + "/absent"}, ""},
        {{"get", "-o", dir, url, server.Url("/b/a")}, ""},
        {{"clean"}, ""},
        {{"clean", "--app", "x", url}, ""},
        {{"clean", "--cache", "--app", "x"}, ""},
        {{"cache"}, ""},
        {{"cache", "list", url}, ""},
        {{"cache", "clean"}, ""},
        {{"get", "-i", "-"}, "-:4: unsupported URL"},
        {{"get", "-o", dir, url + "=x", "-i", list}, list + ":3: two downloads would write the same file"},
    };
    for (const auto& [args, named] : cases) {
        Client client(args, UD_CLI_PROGRAM, list);
        EXPECT_EQ(client.Wait(), 2) << ::testing::PrintToString(args);
        const Lines err = Split(client.Err(), '\n');
        EXPECT_TRUE(client.Out().empty() && err.size() == 2 && err[0].rfind("url-downloader: " + named, 0) == 0 &&
                    err[1] == "Try 'url-downloader --help' for usage.")
            << ::testing::PrintToString(args) << client.Err();
    }
    EXPECT_EQ(server.Requests().size(), 0u);
    EXPECT_FALSE(ud_test::FileExists(dir));
    EXPECT_FALSE(ud_test::FileExists(ud_test::CacheDbPath()));
}

TEST(CliGet, ResultsAndExitStatusThroughTheProxyAndTheLogOnlyWhenVerbose)
{
    TestServer proxy;
    proxy.Route("/files/ok.bin", {200, {}, "fine"});
    proxy.Route("/gone", {404, {}, "<html>not here</html>"});
    // The host is never resolved: only the proxy on 127.0.0.1 is contacted.
    const std::string ok = "http://host.invalid/files/ok.bin", gone = "http://host.invalid/gone";
    const std::string dir = ud_test::TempPath("out"), list = ud_test::TempPath("list");
    // Comments, blank lines and blanks around a line are skipped; the list comes after the command line.
    std::ofstream(list) << "# " << ok << "\n\n \t" << gone << "=sub/gone.html \r\n";
    for (const bool verbose : {false, true}) { // the list from its file, then on standard input
        Client client({"get", "--proxy", proxy.Url(""), verbose ? "-vo" : "-o", dir, ok, "-i", verbose ? "-" : list},
                      UD_CLI_PROGRAM, list);
        EXPECT_EQ(client.Wait(), 1);
        EXPECT_EQ(Results(client.Out()),
                  (std::vector<Lines>{{ok, dir + "/ok.bin", "4", kOk, "network"}, {gone, "-", "-", kFailed, "-"}}));
        EXPECT_EQ(ud_test::ReadFile(dir + "/ok.bin"), "fine");
        EXPECT_FALSE(ud_test::FileExists(dir + "/sub/gone.html"));               // the error page is no download
        EXPECT_EQ(client.Err().find("> GET ") != npos, verbose) << client.Err(); // libcurl's trace
        EXPECT_EQ(client.Err().find("/URL-Downloader: ") != npos, verbose);      // the library's log
    }
    Client own({"get", ok + "=" + list + "/q"}); // a file where a folder is needed: its message stays in a quiet run
    EXPECT_EQ(own.Wait(), 1);
    EXPECT_EQ(own.Err().rfind("url-downloader: cannot create folder '" + list + "'", 0), 0u) << own.Err();
}

TEST(CliProgress, PlainLinesWithoutControlCodesWhileATransferRuns)
{
    TestServer server;
    // Stalls after half of a body small enough to be written as it arrives (larger ones are buffered).
    server.Route("/slow.bin", {200, {}, ud_test::Pattern(60000, 3), false, 30000});
    server.Route("/quick.bin", {200, {}, "quick"});
    Client client({"get", "-o", ud_test::TempPath("progress"), server.Url("/slow.bin"), server.Url("/quick.bin")});
    // Written bytes show up while the transfer waits, next to the finished one.
    const std::regex shown(R"(slow\.bin: [1-9]\d* bytes, .*\n.* 1 of 2 done)");
    const bool seen = ud_test::RunMainLoopUntil([&] { return std::regex_search(client.Out(), shown); }, 30s);
    server.Release("/slow.bin");
    EXPECT_TRUE(seen) << client.Out();
    EXPECT_EQ(client.Wait(), 0) << client.Err();
    EXPECT_EQ(client.Out().find_first_of("\r\033"), npos);
}

TEST(CliCache, HitsAreMarkedMakeNoTransferAndTheListShowsRowsByApplication)
{
    TestServer server;
    ud_test::FreshCacheDb();
    // Expiry is shown in local time: a zone away from UTC makes a mix-up visible.
    setenv("TZ", "IST-5:30", 1);
    for (const std::string name : {"one", "two"})
        server.Route("/" + name + ".bin", {200, {{"Expires", "Fri, 01 Nov 2030 13:05:00 GMT"}}, name + "!"});
    const std::string url1 = server.Url("/one.bin"), url2 = server.Url("/two.bin");
    const std::string one = ud_test::TempPath("one.bin"), two = ud_test::TempPath("two.bin"), other = one + ".x";
    auto run = [](const Lines& args) { // the one result line of a run, or else its output's lines
        Client client(args);
        EXPECT_EQ(client.Wait(), 0) << client.Err();
        return Results(client.Out()).size() == 1 ? Results(client.Out())[0] : Split(client.Out(), '\n');
    };
    const std::string header = "APP\tURL\tPATH\tSIZE\tEXPIRES\tFILE";
    const std::string row1 = "a1\t" + url1 + "\t" + one + "\t4\t2030-11-01 13:05:00\t";
    const std::string row2 = "a2\t" + url2 + "\t" + two + "\t4\t2030-11-01 13:05:00\t";

    EXPECT_EQ(run({"cache", "list"}), Lines{header}); // no table yet
    EXPECT_EQ(run({"get", "--cache", "--app", "a1", url1 + "=" + one}), (Lines{url1, one, "4", kOk, "network"}));
    ASSERT_TRUE(ud_test::FileExists(ud_test::CacheDbPath())) << "the database was not redirected";
    EXPECT_EQ(run({"get", "--cache", "--app", "a2", url2 + "=" + two}), (Lines{url2, two, "4", kOk, "network"}));
    // Asked for elsewhere: delivered at the cached file, nothing written there.
    EXPECT_EQ(run({"get", "--cache", "--app", "a2", url1 + "=" + other}), (Lines{url1, one, "4", kOk, "cache"}));
    EXPECT_FALSE(ud_test::FileExists(other));
    EXPECT_EQ(server.RequestCount("/one.bin"), 1u);
    EXPECT_EQ(run({"cache", "list"}), (Lines{header, row1 + "present", row2 + "present"}));
    std::remove(one.c_str());
    std::ofstream(two, std::ios::app) << "more";
    EXPECT_EQ(run({"cache", "list", "--app", "a2"}), (Lines{header, row2 + "changed"}));
    // Only the named application's rows go.
    EXPECT_EQ(run({"clean", "--app", "a2"}), Lines{"Deleted the cache rows of application 'a2'."});
    EXPECT_EQ(run({"cache", "list"}), (Lines{header, row1 + "missing"}));
}

TEST(CliExample, MinimalClientDownloadsOneFile)
{
    TestServer server;
    server.Route("/m.txt", {200, {}, "minimal"});
    for (const std::string name : {"m.txt", "none"}) // none is not served: exit status 1
        EXPECT_EQ(Client({server.Url("/" + name), ud_test::TempPath(name)}, UD_CLI_EXAMPLE).Wait(),
                  name == "none" ? 1 : 0);
    EXPECT_EQ(ud_test::ReadFile(ud_test::TempPath("m.txt")), "minimal");
}

} // namespace
