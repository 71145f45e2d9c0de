// The url-downloader client and the minimal example, run as programs against
// the loopback test server, with their cache database kept in the test's folder.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <csignal>
#include <algorithm>
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

Lines Split(const std::string& text, char separator)
{
    Lines parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

// Fields of the result lines: result, URL, path, size, reason.
std::vector<Lines> Results(const std::string& out)
{
    std::vector<Lines> results;
    for (const std::string& line : Split(out, '\n'))
        if (std::regex_search(line, std::regex("^(ok|failed|interrupted)\t")))
            results.push_back(Split(line, '\t'));
    return results;
}

// A client program with its standard output and error in files (standard
// error on a terminal when tty >= 0, its side of a pseudo-terminal) and its
// standard input from the file input, if given; killed when it goes.
struct Client {
    explicit Client(const Lines& args, const char* program = UD_CLI_PROGRAM, const std::string& input = "",
                    int tty = -1)
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
        if (tty >= 0)
            g_subprocess_launcher_take_stderr_fd(launcher, tty);
        else
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
    std::ofstream(list) << "# comment\n\n" << url << " x\nftp://127.0.0.1/c\n" << url << " x y\n";
    // Arguments, and what the message must name where it matters; standard input is the list.
    const std::vector<std::pair<Lines, std::string>> cases = {
        {{}, ""},
        {{"fetch", url}, ""},
        {{"get"}, ""},
        {{"get", "--bogus", url}, "unknown option '--bogus'"},
        {{"get", url, "--app"}, "option '--app' needs a value"},
        {{"get", "ftp://127.0.0.1/a"}, "unsupported URL"},
        {{"get", "http:///a"}, ""},
        {{"get", "-o", "x", "-O", url}, "2 -o/-O for 1 URL(s)"},
        {{"get", "-o", "-", url}, "-o: '-'"},
        {{"get", "-o", dir + "/", url}, "-o: '" + dir + "/' names a folder"},
        {{"get", "--stall-timeout", "-1", url}, "--stall-timeout needs whole seconds"},
        {{"get", "--connect-timeout", "2147484", url}, "--connect-timeout needs whole seconds"},
        {{"get", "-i", dir + "/absent"}, "cannot read"},
        {{"get", "-P", dir, url, server.Url("/b/a")}, "two downloads would write the same file '" + dir + "/a'"},
        {{"clean"}, ""},
        {{"clean", "--app", "x", url}, ""},
        {{"clean", "--cache", "--app", "x"}, ""},
        {{"cache"}, ""},
        {{"cache", "list", url}, ""},
        {{"cache", "clean"}, ""},
        {{"get", "-i", "-"}, "-:4: unsupported URL"},
        {{"get", "-P", dir, "-o", "x", url, "-i", list}, list + ":3: two downloads would write the same file"},
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

// Every run at once, each into its own folder: the result lines (with the
// folder as "D"), the exit status and, for the first, the files' content.
TEST(CliGet, EachEndingHasItsLineAndTheWorstExitStatus)
{
    TestServer web, tls(true), proxy;
    web.Route("/q.json?page=2&n=50", {200, {}, "query"});
    web.Route("/a.bin", {200, {}, "aaaa"});
    web.Route("/stall.bin", {200, {}, ud_test::Pattern(20000, 1), false, 7000});
    tls.Route("/s.txt", {200, {}, "secure"});
    proxy.Route("/p.bin", {200, {}, "via"});
    const std::string q = web.Url("/q.json?page=2&n=50"), a = web.Url("/a.bin"), gone = web.Url("/gone");
    const std::string stall = web.Url("/stall.bin"), refused = "http://127.0.0.1:1/r", s = tls.Url("/s.txt");
    const std::string list = ud_test::TempPath("get-list"), viaProxy = "http://host.invalid/p.bin";
    std::ofstream(list) << "# comment\n\n \t" << a << "  \tsub/a1 \r\n" << gone << "\n";
    struct Row {
        Lines args;
        int status;
        std::vector<Lines> results;
    };
    const std::vector<Row> rows = {
        // -o and -O pair with the URLs in order; a query string is never split.
        {{"-o", "q.json", q, "-O", a, gone},
         8,
         {{"ok", q, "D/q.json", "5", "HTTP 200"},
          {"ok", a, "D/a.bin", "4", "HTTP 200"},
          {"failed", gone, "D/gone", "-", "HTTP 404"}}},
        {{refused, gone},
         4,
         {{"failed", refused, "D/r", "-", "curl 7: Couldn't connect to server"},
          {"failed", gone, "D/gone", "-", "HTTP 404"}}},
        {{s}, 5, {{"failed", s, "D/s.txt", "-", "curl 60: SSL peer certificate or SSH remote key was not OK"}}},
        {{"-k", "--cacert", "/absent", s}, 0, {{"ok", s, "D/s.txt", "6", "HTTP 200"}}},
        {{"--cacert", UD_TEST_CERT, s}, 0, {{"ok", s, "D/s.txt", "6", "HTTP 200"}}},
        {{"--cacert", "/absent", s}, 3, {}},
        // What a broken-off transfer wrote stays.
        {{"--stall-timeout", "1", stall},
         4,
         {{"failed", stall, "D/stall.bin", "7000", "curl 28: Timeout was reached"}}},
        {{"-o", ud_test::TempDir(), a},
         3,
         {{"failed", a, ud_test::TempDir(), "-", "curl 23: Failed writing received data to disk/application"}}},
        {{"-q", "-i", list, q}, 8, {{"failed", gone, "D/gone", "-", "HTTP 404"}}},
        {{"-v", "--proxy", proxy.Url(""), viaProxy}, 0, {{"ok", viaProxy, "D/p.bin", "3", "HTTP 200"}}},
    };
    std::vector<std::unique_ptr<Client>> clients;
    for (size_t i = 0; i < rows.size(); ++i) {
        Lines args = {"get", "-P", ud_test::TempPath("get" + std::to_string(i))};
        args.insert(args.end(), rows[i].args.begin(), rows[i].args.end());
        clients.push_back(std::make_unique<Client>(args));
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        const std::string dir = ud_test::TempPath("get" + std::to_string(i)),
                          row = ::testing::PrintToString(rows[i].args);
        std::vector<Lines> want = rows[i].results;
        for (Lines& fields : want)
            fields[2] = fields[2] == "D" ? dir : fields[2][0] == 'D' ? dir + fields[2].substr(1) : fields[2];
        EXPECT_EQ(clients[i]->Wait(), rows[i].status) << row << clients[i]->Err();
        std::vector<Lines> got = Results(clients[i]->Out()); // in the order they ended
        std::sort(got.begin(), got.end());
        std::sort(want.begin(), want.end());
        EXPECT_EQ(got, want) << row;
        const bool verbose = rows[i].args[0] == "-v", failed = rows[i].status != 0 && want.empty();
        // Quiet unless asked: libcurl's trace and the library's log only with -v.
        EXPECT_EQ(clients[i]->Err().find("> GET ") != npos, verbose) << row << clients[i]->Err();
        EXPECT_EQ(clients[i]->Err().find("/URL-Downloader: ") != npos, verbose) << row;
        EXPECT_EQ(clients[i]->Err().empty(), !verbose && !failed) << row << clients[i]->Err();
    }
    const std::string first = ud_test::TempPath("get0");
    EXPECT_EQ(ud_test::ReadFile(first + "/q.json") + ud_test::ReadFile(first + "/a.bin"), "queryaaaa");
    EXPECT_FALSE(ud_test::FileExists(first + "/gone")); // the error page is no download
    EXPECT_EQ(ud_test::ReadFile(ud_test::TempPath("get8/sub/a1")), "aaaa");
    EXPECT_EQ(web.RequestCount("/q.json?page=2&n=50"), 2u);
}

// SIGINT and SIGTERM end the run at once with the shell's status, listing
// what was cut short, whose bytes stay on disk.
TEST(CliSignals, AnInterruptKeepsWhatWasWrittenAndExitsByTheSignal)
{
    TestServer server;
    server.Route("/half.bin", {200, {}, ud_test::Pattern(60000, 2), false, 30000});
    const std::string half = server.Url("/half.bin");
    for (const int signal : {SIGINT, SIGTERM}) {
        const std::string dir = ud_test::TempPath("signal" + std::to_string(signal));
        Client client({"get", "-P", dir, half});
        ASSERT_TRUE(
            ud_test::RunMainLoopUntil([&] { return ud_test::ReadFile(dir + "/half.bin").size() == 30000; }, 30s));
        g_subprocess_send_signal(client.process_, signal);
        EXPECT_EQ(client.Wait(), 128 + signal);
        EXPECT_EQ(Results(client.Out()),
                  (std::vector<Lines>{{"interrupted", half, dir + "/half.bin", "30000", "interrupted"}}));
        EXPECT_TRUE(ud_test::ReadFile(dir + "/half.bin") == ud_test::Pattern(60000, 2).substr(0, 30000));
    }
}

// Progress goes to standard error when that is a terminal, with a percentage
// and the time left while bytes arrive; -q keeps it off.
TEST(CliProgress, OnATerminalWithPercentAndTimeLeftUnlessQuiet)
{
    TestServer server;
    server.Route("/slow.bin", {200, {}, ud_test::Pattern(60000, 3), false, 30000});
    for (const bool quiet : {false, true}) {
        int master = -1, slave = -1;
        ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        fcntl(master, F_SETFL, O_NONBLOCK);
        std::string screen;
        auto read = [&] {
            char chunk[4096];
            for (ssize_t n; (n = ::read(master, chunk, sizeof chunk)) > 0;)
                screen.append(chunk, static_cast<size_t>(n));
            return screen;
        };
        const std::string dir = ud_test::TempPath(quiet ? "quiet" : "tty");
        Client client({"get", "-P", dir, quiet ? "-q" : "-O", server.Url("/slow.bin")}, UD_CLI_PROGRAM, "", slave);
        const std::regex shown(R"(slow\.bin +50% +29\.3 KiB of 58\.6 KiB +[0-9.]+ (bytes|[KM]iB)/s +ETA 0:0\d)");
        const bool seen = ud_test::RunMainLoopUntil([&] { return std::regex_search(read(), shown); }, quiet ? 3s : 30s);
        server.Release("/slow.bin");
        EXPECT_EQ(seen, !quiet) << screen;
        EXPECT_EQ(client.Wait(), 0);
        read();
        EXPECT_EQ(screen.find("1 of 1 downloaded in") != npos, !quiet) << screen;
        EXPECT_EQ(client.Out().empty(), quiet);
        close(master);
        server.Route("/slow.bin", {200, {}, ud_test::Pattern(60000, 3), false, 30000});
    }
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
    EXPECT_EQ(run({"get", "--cache", "--app", "a1", "-o", one, url1}), (Lines{"ok", url1, one, "4", "HTTP 200"}));
    ASSERT_TRUE(ud_test::FileExists(ud_test::CacheDbPath())) << "the database was not redirected";
    EXPECT_EQ(run({"get", "--cache", "--app", "a2", "-o", two, url2}), (Lines{"ok", url2, two, "4", "HTTP 200"}));
    // Asked for elsewhere: delivered at the cached file, nothing written there.
    EXPECT_EQ(run({"get", "--cache", "--app", "a2", "-o", other, url1}), (Lines{"ok", url1, one, "4", "cache"}));
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
