#include "test-server.h"

#include <cstdio>
#include <fstream>
#include <glib.h>
#include <iterator>
#include <mutex>
#include <random>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace ud_test {

// The server is a Python child (test-server.py) that keeps all the state;
// each call is one exchange of length-prefixed fields over its stdin and stdout.
struct TestServer::State {
    std::mutex mutex; // one exchange at a time
    FILE *in = nullptr, *out = nullptr;
    GPid pid = 0;
    std::string base;

    ~State()
    {
        for (FILE* f : {in, out}) // at the end of its stdin the child exits at once
            if (f != nullptr)
                fclose(f);
        if (pid != 0)
            waitpid(pid, nullptr, 0);
    }
    std::vector<std::string> Call(const std::vector<std::string>& fields)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!fields.empty()) // none: only the port is read
            fprintf(in, "%zu\n", fields.size());
        for (const std::string& f : fields)
            fprintf(in, "%zu\n", f.size()), fwrite(f.data(), 1, f.size(), in);
        fflush(in);
        auto size = [this] {
            size_t n = 0;
            if (fscanf(out, "%zu%*c", &n) != 1)
                throw std::runtime_error("the test server is gone");
            return n;
        };
        std::vector<std::string> reply(size());
        for (std::string& f : reply)
            if (f.resize(size()), fread(&f[0], 1, f.size(), out) != f.size())
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
    std::vector<std::string> fields = {"route",
                                       path,
                                       std::to_string(r.status),
                                       std::to_string(r.chunked),
                                       std::to_string(r.stall_after),
                                       std::to_string(r.drop_after),
                                       r.file,
                                       r.body};
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

size_t TestServer::PeakConnections() const { return std::stoul(state_->Call({"peak"}).at(0)); }

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
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool FileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

} // namespace ud_test
