#include "test-server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <microhttpd.h>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace ud_test {

struct TestServer::State {
    mutable std::mutex mutex;
    mutable std::condition_variable changed; // new request, release or stop
    std::map<std::string, std::shared_ptr<const Response>> routes;
    std::set<std::string> released;
    std::vector<Request> requests;
    bool stopping = false;
    std::string scheme, cert, key; // the PEM texts must outlive the daemon
    MHD_Daemon* daemon = nullptr;
    uint16_t port = 0;

    size_t Count(const std::string& path) const
    {
        return (size_t)std::count_if(requests.begin(), requests.end(), [&](const Request& r) { return r.path == path; });
    }
};

namespace {
using State = TestServer::State;

// A body sent through the reader: chunked, stalled or dropped.
struct Body {
    State* state;
    std::shared_ptr<const TestServer::Response> r;
    std::string path;
    bool released = false;
};

ssize_t ReadBody(void* cls, uint64_t pos, char* buf, size_t max)
{
    auto* b = static_cast<Body*>(cls);
    const TestServer::Response& r = *b->r;
    if (r.drop_after >= 0 && pos >= (uint64_t)r.drop_after)
        return MHD_CONTENT_READER_END_WITH_ERROR; // closes the connection mid-body
    if (r.stall_after >= 0 && !b->released && pos >= (uint64_t)r.stall_after) {
        std::unique_lock<std::mutex> lock(b->state->mutex); // holds only this connection's thread
        b->state->changed.wait_for(lock, std::chrono::seconds(30),
                                   [&] { return b->state->stopping || b->state->released.count(b->path) > 0; });
        if (b->state->stopping)
            return MHD_CONTENT_READER_END_WITH_ERROR;
        b->released = true;
    }
    uint64_t end = r.body.size();
    for (long long limit : {r.drop_after, b->released ? -1 : r.stall_after})
        end = limit >= 0 ? std::min<uint64_t>(end, (uint64_t)limit) : end;
    if (pos >= end)
        return MHD_CONTENT_READER_END_OF_STREAM;
    const size_t n = (size_t)std::min<uint64_t>(max, end - pos);
    std::memcpy(buf, r.body.data() + pos, n);
    return (ssize_t)n;
}

MHD_Result Answer(void* cls, MHD_Connection* connection, const char* url, const char*, const char*, const char*,
                  size_t* upload_size, void** con_cls)
{
    auto* s = static_cast<State*>(cls);
    if (*con_cls == nullptr) { // headers are complete on the first call
        *con_cls = s;
        return MHD_YES;
    }
    if (*upload_size != 0) { // request bodies are dropped
        *upload_size = 0;
        return MHD_YES;
    }
    TestServer::Request req{url, "", false};
    const size_t scheme = req.path.find("://");
    if (req.path[0] != '/' && scheme != std::string::npos) { // absolute-form: a proxy request
        const size_t slash = req.path.find('/', scheme + 3);
        req.path = slash == std::string::npos ? "/" : req.path.substr(slash);
        req.via_proxy = true;
    }
    const char* agent = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_USER_AGENT);
    req.user_agent = agent != nullptr ? agent : "";
    std::shared_ptr<const TestServer::Response> r;
    {
        std::lock_guard<std::mutex> lock(s->mutex);
        auto it = s->routes.find(req.path);
        r = it != s->routes.end() ? it->second : nullptr;
        s->requests.push_back(req);
        s->changed.notify_all();
    }
    static const TestServer::Response kNotFound{404, {}, "Not Found"};
    const TestServer::Response& chosen = r ? *r : kNotFound;
    MHD_Response* response = nullptr;
    if (!chosen.file.empty()) {
        const int fd = open(chosen.file.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info {};
        if (fd < 0 || fstat(fd, &info) != 0)
            return fd >= 0 && close(fd), MHD_NO;
        response = MHD_create_response_from_fd64((uint64_t)info.st_size, fd); // takes the descriptor
    } else if (!chosen.chunked && chosen.stall_after < 0 && chosen.drop_after < 0) {
        response = MHD_create_response_from_buffer(chosen.body.size(), (void*)chosen.body.data(), MHD_RESPMEM_MUST_COPY);
    } else { // a dropped body announces its full length, so the client sees a short read
        const uint64_t size = chosen.chunked && chosen.drop_after < 0 ? MHD_SIZE_UNKNOWN : chosen.body.size();
        response = MHD_create_response_from_callback(size, 32 * 1024, ReadBody, new Body{s, r, req.path},
                                                     [](void* b) { delete static_cast<Body*>(b); });
    }
    if (response == nullptr)
        return MHD_NO;
    for (const auto& h : chosen.headers)
        MHD_add_response_header(response, h.first.c_str(), h.second.c_str());
    const MHD_Result ret = MHD_queue_response(connection, (unsigned)chosen.status, response);
    MHD_destroy_response(response);
    return ret;
}

std::string Slurp(const char* path)
{
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}
} // namespace

TestServer::TestServer(bool https) : state_(new State)
{
    State* s = state_.get();
    s->scheme = https ? "https" : "http";
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // poll(), not select(): load tests hold more than FD_SETSIZE connections,
    // each with a small stack so that thousands fit a 32-bit address space.
    unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL | MHD_USE_ERROR_LOG;
    std::vector<MHD_OptionItem> options = {
        {MHD_OPTION_SOCK_ADDR, 0, &addr},
        // Without a completion callback the sockets of finished connections stayed open.
        {MHD_OPTION_NOTIFY_COMPLETED, (intptr_t)+[](void*, MHD_Connection*, void**, MHD_RequestTerminationCode) {}, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, 120, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, 16000, nullptr},
        {MHD_OPTION_THREAD_STACK_SIZE, 256 * 1024, nullptr},
    };
    if (https) {
        s->cert = Slurp(UD_TEST_CERT);
        s->key = Slurp(UD_TEST_KEY);
        flags |= MHD_USE_TLS;
        options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, s->key.data()});
        options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, s->cert.data()});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    s->daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, Answer, s, MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    const MHD_DaemonInfo* info = s->daemon ? MHD_get_daemon_info(s->daemon, MHD_DAEMON_INFO_BIND_PORT) : nullptr;
    if (info == nullptr || (s->port = info->port) == 0)
        throw std::runtime_error("cannot start the test server");
}

TestServer::~TestServer()
{
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->stopping = true;
    }
    state_->changed.notify_all();
    MHD_stop_daemon(state_->daemon);
}

std::string TestServer::Url(const std::string& path) const
{
    return state_->scheme + "://127.0.0.1:" + std::to_string(state_->port) + path;
}

void TestServer::Route(const std::string& path, Response r)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->routes[path] = std::make_shared<const Response>(std::move(r));
    state_->released.erase(path);
}

void TestServer::Redirect(const std::string& from, const std::string& to, int status)
{
    Route(from, {status, {{"Location", to}}, ""});
}

void TestServer::Release(const std::string& path)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->released.insert(path);
    state_->changed.notify_all();
}

std::vector<TestServer::Request> TestServer::Requests() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->requests;
}

size_t TestServer::RequestCount(const std::string& path) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->Count(path);
}

bool TestServer::WaitForRequests(const std::string& path, size_t n, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_for(lock, timeout, [&] { return state_->Count(path) >= n; });
}

std::string Pattern(size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string out(size, '\0');
    for (char& c : out)
        c = (char)(random() >> 24);
    return out;
}

std::string ReadFile(const std::string& path) { return Slurp(path.c_str()); }

bool FileExists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

} // namespace ud_test
