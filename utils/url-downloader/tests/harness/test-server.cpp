#include "test-server.h"

#include <cstdio>
#include <fstream>
#include <glib.h>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>

namespace ud_test {

// The server is a Python child (test-server.py) that keeps all the state;
// each call is one exchange of length-prefixed fields over its stdin and stdout.
struct TestServer::State {
    std::mutex mutex; // one exchange at a time
    FILE* in = nullptr;
    FILE* out = nullptr;
    GPid pid = 0;
    std::string base;

    ~State()
    {
        if (in != nullptr)
            fclose(in); // the child's stdin ends: it exits at once, held connections and all
        if (out != nullptr)
            fclose(out);
        if (pid != 0)
            waitpid(pid, nullptr, 0);
    }
    size_t Size()
    {
        size_t n = 0;
        if (fscanf(out, "%zu", &n) != 1 || fgetc(out) != '\n')
            throw std::runtime_error("the test server is gone");
        return n;
    }
    std::vector<std::string> Call(const std::vector<std::string>& fields)
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const std::string& f : fields)
            fprintf(in, "%zu\n", f.size()), fwrite(f.data(), 1, f.size(), in);
        fflush(in);
        std::vector<std::string> reply(Size());
        for (std::string& f : reply)
            if (f.resize(Size()), fread(&f[0], 1, f.size(), out) != f.size())
                throw std::runtime_error("the test server is gone");
        return reply;
    }
};

TestServer::TestServer(bool https) : state_(new State)
{
    const char* argv[] = {"/usr/bin/python3", UD_TEST_SERVER_SCRIPT, https ? UD_TEST_CERT : "", UD_TEST_KEY, nullptr};
    int in = -1, out = -1;
    if (!g_spawn_async_with_pipes(nullptr, (char**)argv, nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr,
                                  &state_->pid, &in, &out, nullptr, nullptr))
        throw std::runtime_error("cannot start the test server");
    state_->in = fdopen(in, "w");
    state_->out = fdopen(out, "r");
    state_->base = (https ? "https://127.0.0.1:" : "http://127.0.0.1:") + state_->Call({}).at(0);
}

TestServer::~TestServer() = default;

std::string TestServer::Url(const std::string& path) const { return state_->base + path; }

void TestServer::Route(const std::string& path, Response r)
{
    std::vector<std::string> fields = {"route",          path,   std::to_string(r.status), r.chunked ? "1" : "0",
                                       std::to_string(r.stall_after), std::to_string(r.drop_after), r.file, r.body,
                                       std::to_string(r.headers.size())};
    for (const auto& h : r.headers)
        fields.insert(fields.end(), {h.first, h.second});
    state_->Call(fields);
}

void TestServer::Redirect(const std::string& from, const std::string& to, int status)
{
    Route(from, {status, {{"Location", to}}, ""});
}

void TestServer::Release(const std::string& path) { state_->Call({"release", path}); }

std::vector<TestServer::Request> TestServer::Requests() const
{
    const std::vector<std::string> f = state_->Call({"requests"});
    std::vector<Request> all;
    for (size_t i = 0; i + 2 < f.size(); i += 3)
        all.push_back({f[i], f[i + 1], f[i + 2] == "1"});
    return all;
}

size_t TestServer::RequestCount(const std::string& path) const
{
    return std::stoul(state_->Call({"wait", path, "0", "0"}).at(0));
}

bool TestServer::WaitForRequests(const std::string& path, size_t n, std::chrono::milliseconds timeout) const
{
    return std::stoul(state_->Call({"wait", path, std::to_string(n), std::to_string(timeout.count())}).at(0)) >= n;
}

std::string Pattern(size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string out(size, '\0');
    for (char& c : out)
        c = (char)(random() >> 24);
    return out;
}

std::string ReadFile(const std::string& path)
{
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

bool FileExists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

} // namespace ud_test
