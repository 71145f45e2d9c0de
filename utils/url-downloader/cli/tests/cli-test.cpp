// The url-downloader client and the minimal example, run as programs against
// the loopback test server. Their cache database is redirected into the test's
// own folder by a preloaded db_util_open (db-redirect.c).
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "main-loop.h"
#include "test-db.h"
#include "test-env.h"
#include "test-server.h"

namespace {

using namespace std::chrono_literals;
using ud_test::TestServer;
using Lines = std::vector<std::string>;
constexpr size_t npos = std::string::npos;

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

// A client program with its standard output and error in files, and its
// standard input from the file input when given. Killed when it goes.
class Client {
public:
    explicit Client(const Lines& args, const char* program = UD_CLI_PROGRAM, const std::string& input = "")
        : out_(ud_test::TempPath("out-" + std::to_string(++count_))), err_(out_ + ".err")
    {
        // Without it the client would open the device's real database.
        if (!ud_test::FileExists(UD_CLI_DB_REDIRECT))
            throw std::runtime_error("the database redirection must be built");
        GSubprocessLauncher* launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE);
        auto set = [launcher](const char* name, const std::string& value, bool append = false) {
            const char* old = append ? std::getenv(name) : nullptr;
            g_subprocess_launcher_setenv(launcher, name, ((old ? old : "") + value).c_str(), TRUE);
        };
        set("LD_PRELOAD", UD_CLI_DB_REDIRECT);
        set("UD_TEST_DB_DIR", ud_test::TempDir());
        // The preloaded library comes before the sanitizer runtime: allow it.
        set("ASAN_OPTIONS", ":verify_asan_link_order=0", true);
        // GLib hands its idle sources between threads under futexes that the
        // race detector cannot see; what GLib does inside is not checked.
        const std::string glib_supp = ud_test::TempPath("tsan-glib.supp");
        std::ofstream(glib_supp) << "called_from_lib:libglib-2.0.so.0\n";
        set("TSAN_OPTIONS", ":suppressions=" + glib_supp, true);
        g_subprocess_launcher_set_stdout_file_path(launcher, out_.c_str());
        g_subprocess_launcher_set_stderr_file_path(launcher, err_.c_str());
        if (!input.empty())
            g_subprocess_launcher_set_stdin_file_path(launcher, input.c_str());
        // A cross-built client runs through the emulator (no binfmt here).
        std::istringstream emulator(UD_CLI_EMULATOR);
        Lines words{std::istream_iterator<std::string>(emulator), {}};
        words.push_back(program);
        words.insert(words.end(), args.begin(), args.end());
        std::vector<const char*> argv;
        for (const std::string& word : words)
            argv.push_back(word.c_str());
        argv.push_back(nullptr);
        GError* error = nullptr;
        process_ = g_subprocess_launcher_spawnv(launcher, argv.data(), &error);
        g_object_unref(launcher);
        if (process_ == nullptr)
            throw std::runtime_error(words[0] + ": " + error->message);
        // Marked on the object, which the wait holds: safe after we are gone.
        g_subprocess_wait_async(process_, nullptr, [](GObject* p, GAsyncResult*, gpointer) {
            g_object_set_data(p, "ended", p);
        }, nullptr);
    }
    ~Client()
    {
        g_subprocess_force_exit(process_);
        g_object_unref(process_);
    }

    // Runs the main loop until done(standard output so far) holds or the timeout passes.
    bool Until(const std::function<bool(const std::string&)>& done, std::chrono::milliseconds timeout = 60s)
    {
        return ud_test::RunMainLoopUntil([&] { return done(Out()); }, timeout);
    }
    // Exit status once the program has ended; -1 when it did not in time.
    int Wait()
    {
        if (!Until([this](const std::string&) { return g_object_get_data(G_OBJECT(process_), "ended"); }))
            return -1;
        return g_subprocess_get_if_exited(process_) ? g_subprocess_get_exit_status(process_)
                                                    : 128 + g_subprocess_get_term_sig(process_);
    }
    std::string Out() const { return ud_test::ReadFile(out_); }
    std::string Err() const { return ud_test::ReadFile(err_); }

private:
    static inline int count_ = 0;
    std::string out_, err_;
    GSubprocess* process_ = nullptr;
};

TEST(CliArguments, BadArgumentsExitTwoWithAnErrorAndAHintAndTouchNothing)
{
    TestServer server;
    ud_test::FreshCacheDb();
    const std::string dir = ud_test::TempPath("bad"), url = server.Url("/a");
    const std::vector<Lines> cases = {
        {}, {"fetch", url}, {"get"}, {"get", "--bogus", url}, {"get", url, "--app"}, {"get", "=" + dir + "/a"},
        {"get", url + "="}, {"get", url + "=" + dir + "/"}, {"get", "ftp://127.0.0.1/a"}, {"get", "http:///a"},
        {"get", "-o", dir, url, server.Url("/b/a")}, // one destination twice
        {"clean"}, {"clean", "--app", "x", url}, {"clean", "--cache", "--app", "x"},
        {"cache"}, {"cache", "list", url}, {"cache", "clean"}, {"get", "-i", dir + "/absent"},
    };
    for (const Lines& args : cases) {
        Client client(args);
        SCOPED_TRACE(::testing::PrintToString(args));
        EXPECT_EQ(client.Wait(), 2);
        EXPECT_EQ(client.Out(), "");
        const Lines err = Split(client.Err(), '\n');
        EXPECT_TRUE(err.size() == 2 && err[0].rfind("url-downloader: ", 0) == 0 && err[1].find("--help") != npos)
            << client.Err();
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
    const std::string dir = ud_test::TempPath("out"), blocker = ud_test::TempPath("blocker");
    Client quiet({"get", "--proxy", proxy.Url(""), "-o", dir, ok, gone + "=sub/gone.html"});
    EXPECT_EQ(quiet.Wait(), 1);
    EXPECT_EQ(Results(quiet.Out()), (std::vector<Lines>{{ok, dir + "/ok.bin", "4", "URL_DOWNLOADER_ERROR_NONE", "network"},
                                                        {gone, "-", "-", "URL_DOWNLOADER_ERROR_DOWNLOAD_FAILED", "-"}}));
    EXPECT_EQ(quiet.Err(), "");
    EXPECT_EQ(ud_test::ReadFile(dir + "/ok.bin"), "fine");
    EXPECT_FALSE(ud_test::FileExists(dir + "/sub/gone.html")); // the error page is no download

    Client verbose({"get", "-v", proxy.Url("/files/ok.bin") + "=" + ud_test::TempPath("v.bin")});
    EXPECT_EQ(verbose.Wait(), 0);
    EXPECT_NE(verbose.Err().find("> GET /files/ok.bin"), npos) << verbose.Err(); // libcurl's trace
    EXPECT_NE(verbose.Err().find("/URL-Downloader: "), npos);                    // the library's log

    std::ofstream(blocker) << "a file where a folder is needed";
    Client own({"get", ok + "=" + blocker + "/q"}); // the client's own message stays in a quiet run
    EXPECT_EQ(own.Wait(), 1);
    EXPECT_EQ(Split(own.Err(), '\n').size(), 1u);
    EXPECT_EQ(own.Err().rfind("url-downloader: cannot create folder '" + blocker + "'", 0), 0u) << own.Err();
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
    auto stalled = [](const std::string& out) {
        const size_t at = out.rfind("slow.bin: ");
        return at == npos ? 0LL : std::atoll(out.c_str() + at + 10);
    };
    Client client({"get", "-o", ud_test::TempPath("progress"), server.Url("/slow.bin"), server.Url("/quick.bin")});
    // Written bytes show up while the transfer waits, next to the finished one.
    const bool shown =
        client.Until([&](const std::string& out) { return stalled(out) > 0 && out.find("1 of 2 done") != npos; }, 30s);
    server.Release("/slow.bin");
    ASSERT_TRUE(shown) << client.Out();
    EXPECT_LE(stalled(client.Out()), 30000);
    EXPECT_EQ(client.Wait(), 0) << client.Err();
    EXPECT_EQ(client.Out().find_first_of("\r\033"), npos);
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
        Client client({"get", "-o", dir, a, "-i", name}, UD_CLI_PROGRAM, list);
        EXPECT_EQ(client.Wait(), bad.empty() ? 0 : 2) << client.Err();
        EXPECT_EQ(Results(client.Out()),
                  bad.empty() ? (std::vector<Lines>{{a, dir + "/a.txt", "1", "URL_DOWNLOADER_ERROR_NONE", "network"},
                                                    {b, dir + "/sub/b", "1", "URL_DOWNLOADER_ERROR_NONE", "network"}})
                              : std::vector<Lines>{});
        EXPECT_EQ(client.Err().rfind("url-downloader: " + name + bad, 0), bad.empty() ? npos : 0u) << client.Err();
    }
}

TEST(CliCache, HitsAreMarkedMakeNoTransferAndTheListShowsRowsByApplication)
{
    TestServer server;
    ud_test::FreshCacheDb();
    // The header's date is taken as local time and shown back as such; a zone
    // away from UTC makes a mix-up visible.
    setenv("TZ", "IST-5:30", 1);
    const Lines expires = {"Expires", "Fri, 01 Nov 2030 13:05:00 GMT"};
    server.Route("/one.bin", {200, {{expires[0], expires[1]}}, "first"});
    server.Route("/two.bin", {200, {{expires[0], expires[1]}}, "second"});
    const std::string url1 = server.Url("/one.bin"), url2 = server.Url("/two.bin");
    const std::string one = ud_test::TempPath("one.bin"), two = ud_test::TempPath("two.bin");
    const std::string other = ud_test::TempPath("other/one.bin");

    // The one result line of a run, or else its output's lines.
    auto run = [](const Lines& args) {
        Client client(args);
        EXPECT_EQ(client.Wait(), 0) << client.Err();
        const auto results = Results(client.Out());
        return results.size() == 1 ? results[0] : Split(client.Out(), '\n');
    };
    auto got = [](const std::string& url, const std::string& path, const char* size, const char* source) {
        return Lines{url, path, size, "URL_DOWNLOADER_ERROR_NONE", source};
    };
    const std::string header = "APP\tURL\tPATH\tSIZE\tEXPIRES\tFILE";
    const std::string row1 = "a1\t" + url1 + "\t" + one + "\t5\t2030-11-01 13:05:00\t";
    const std::string row2 = "a2\t" + url2 + "\t" + two + "\t6\t2030-11-01 13:05:00\t";

    EXPECT_EQ(run({"cache", "list"}), Lines{header}); // no table yet
    EXPECT_EQ(run({"get", "--cache", "--app", "a1", url1 + "=" + one}), got(url1, one, "5", "network"));
    EXPECT_EQ(run({"get", "--cache", "--app", "a2", url2 + "=" + two}), got(url2, two, "6", "network"));
    // Asked for elsewhere: delivered at the cached file, nothing written there.
    EXPECT_EQ(run({"get", "--cache", "--app", "a2", url1 + "=" + other}), got(url1, one, "5", "cache"));
    EXPECT_FALSE(ud_test::FileExists(other));
    EXPECT_EQ(server.RequestCount("/one.bin"), 1u);

    EXPECT_EQ(run({"cache", "list"}), (Lines{header, row1 + "present", row2 + "present"}));
    EXPECT_EQ(run({"cache", "list", "--app", "a2"}), (Lines{header, row2 + "present"}));
    std::remove(one.c_str());
    std::ofstream(two, std::ios::app) << "more";
    EXPECT_EQ(run({"cache", "list"}), (Lines{header, row1 + "missing", row2 + "changed"}));
    // Only the named application's rows go.
    EXPECT_EQ(run({"clean", "--app", "a2"}), Lines{"Deleted the cache rows of application 'a2'."});
    EXPECT_EQ(run({"cache", "list"}), (Lines{header, row1 + "missing"}));
}

TEST(CliExample, MinimalClientDownloadsOneFile)
{
    TestServer server;
    server.Route("/m.txt", {200, {}, "minimal"});
    const std::string path = ud_test::TempPath("m.txt");
    Client ok({server.Url("/m.txt"), path}, UD_CLI_EXAMPLE);
    EXPECT_EQ(ok.Wait(), 0) << ok.Err();
    EXPECT_EQ(ud_test::ReadFile(path), "minimal");
    Client missing({server.Url("/none"), ud_test::TempPath("none")}, UD_CLI_EXAMPLE);
    EXPECT_EQ(missing.Wait(), 1) << missing.Err();
}

} // namespace
