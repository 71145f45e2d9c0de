#include "test-server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <microhttpd.h>
#include <mutex>
#include <netinet/in.h>
#include <set>
#include <sstream>
#include <vector>
#include <stdexcept>
#include <sys/stat.h>

namespace ud_test {

namespace {
constexpr auto kMaxStall = std::chrono::seconds(30);
constexpr size_t kBlockSize = 32 * 1024;

std::string Slurp(const char* path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}
} // namespace

struct TestServer::State {
    mutable std::mutex mutex;
    mutable std::condition_variable changed; // new request, release or stop
    std::map<std::string, std::shared_ptr<const Response>> routes;
    std::set<std::string> released;
    std::vector<Request> requests;
    bool stopping = false;

    bool https = false;
    std::string cert, key; // PEM text; must outlive the daemon
    MHD_Daemon* daemon = nullptr;
    uint16_t port = 0;
};

namespace {

using State = TestServer::State;

// Per-request data, made when the request line arrives.
struct Exchange {
    std::string target;
    bool recorded = false;
};

// A body sent through the content reader (chunked, stalled or dropped).
struct Body {
    State* state;
    std::shared_ptr<const TestServer::Response> response;
    std::string route; // the key whose Release() ends the stall
    bool released = false;
};

void* OnRequestLine(void*, const char* uri, MHD_Connection*)
{
    auto* ex = new Exchange;
    ex->target = uri != nullptr ? uri : "";
    return ex;
}

void OnCompleted(void*, MHD_Connection*, void** con_cls, MHD_RequestTerminationCode)
{
    delete static_cast<Exchange*>(*con_cls);
    *con_cls = nullptr;
}

MHD_Result CollectHeader(void* cls, MHD_ValueKind, const char* key, const char* value)
{
    std::string name = key != nullptr ? key : "";
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    (*static_cast<std::map<std::string, std::string>*>(cls))[name] = value != nullptr ? value : "";
    return MHD_YES;
}

// Splits an absolute-form target ("http://host:port/p?q") into its path.
bool ProxyPath(const std::string& target, std::string* path)
{
    const size_t scheme = target.find("://");
    if (target.empty() || target[0] == '/' || scheme == std::string::npos)
        return false;
    const size_t slash = target.find('/', scheme + 3);
    *path = slash == std::string::npos ? "/" : target.substr(slash);
    return true;
}

ssize_t ReadBody(void* cls, uint64_t pos, char* buf, size_t max)
{
    auto* b = static_cast<Body*>(cls);
    const TestServer::Response& r = *b->response;
    const uint64_t size = r.body.size();
    if (r.drop_after >= 0 && pos >= static_cast<uint64_t>(r.drop_after))
        return MHD_CONTENT_READER_END_WITH_ERROR; // closes the connection mid-body
    if (r.stall_after >= 0 && !b->released && pos >= static_cast<uint64_t>(r.stall_after)) {
        // Blocking here holds only this connection's thread.
        State* s = b->state;
        std::unique_lock<std::mutex> lock(s->mutex);
        s->changed.wait_for(lock, kMaxStall, [&] { return s->stopping || s->released.count(b->route) > 0; });
        if (s->stopping)
            return MHD_CONTENT_READER_END_WITH_ERROR;
        b->released = true;
    }
    if (pos >= size)
        return MHD_CONTENT_READER_END_OF_STREAM;
    uint64_t limit = size;
    if (r.drop_after >= 0)
        limit = std::min<uint64_t>(limit, static_cast<uint64_t>(r.drop_after));
    if (r.stall_after >= 0 && !b->released)
        limit = std::min<uint64_t>(limit, static_cast<uint64_t>(r.stall_after));
    const size_t n = static_cast<size_t>(std::min<uint64_t>(max, limit - pos));
    std::memcpy(buf, r.body.data() + pos, n);
    return static_cast<ssize_t>(n);
}

void FreeBody(void* cls) { delete static_cast<Body*>(cls); }

MHD_Result Answer(void* cls, MHD_Connection* connection, const char* url, const char* method, const char*,
                  const char*, size_t* upload_data_size, void** con_cls)
{
    auto* s = static_cast<State*>(cls);
    auto* ex = static_cast<Exchange*>(*con_cls);
    if (ex == nullptr) { // not expected: the request-line callback always runs first
        ex = new Exchange;
        ex->target = url;
        *con_cls = ex;
    }

    TestServer::Request req;
    req.method = method;
    req.target = ex->target;
    req.via_proxy = ProxyPath(ex->target, &req.path);
    if (!req.via_proxy)
        req.path = ex->target;

    if (!ex->recorded) {
        // Headers are complete on the first call; the body (if any) follows.
        ex->recorded = true;
        MHD_get_connection_values(connection, MHD_HEADER_KIND, CollectHeader, &req.headers);
        std::lock_guard<std::mutex> lock(s->mutex);
        s->requests.push_back(std::move(req));
        s->changed.notify_all();
        return MHD_YES;
    }
    if (*upload_data_size != 0) { // request bodies are read and dropped
        *upload_data_size = 0;
        return MHD_YES;
    }

    std::shared_ptr<const TestServer::Response> r;
    std::string route;
    {
        std::lock_guard<std::mutex> lock(s->mutex);
        auto it = s->routes.find(req.path);
        if (it == s->routes.end())
            it = s->routes.find(req.path.substr(0, req.path.find('?')));
        if (it != s->routes.end()) {
            r = it->second;
            route = it->first;
        }
    }
    if (r == nullptr) {
        static const char kNotFound[] = "Not Found";
        MHD_Response* nf = MHD_create_response_from_buffer(sizeof kNotFound - 1, const_cast<char*>(kNotFound),
                                                           MHD_RESPMEM_PERSISTENT);
        MHD_Result ret = MHD_queue_response(connection, MHD_HTTP_NOT_FOUND, nf);
        MHD_destroy_response(nf);
        return ret;
    }

    MHD_Response* response = nullptr;
    if (!r->file.empty()) {
        const int fd = open(r->file.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info {};
        if (fd < 0 || fstat(fd, &info) != 0) {
            if (fd >= 0)
                close(fd);
            return MHD_NO;
        }
        response = MHD_create_response_from_fd64(static_cast<uint64_t>(info.st_size), fd); // takes the descriptor
    } else if (!r->chunked && r->stall_after < 0 && r->drop_after < 0) {
        response = MHD_create_response_from_buffer(r->body.size(), const_cast<char*>(r->body.data()),
                                                   MHD_RESPMEM_MUST_COPY);
    } else {
        // A dropped body announces its full length, so the client sees a short read.
        const uint64_t size = r->chunked && r->drop_after < 0 ? MHD_SIZE_UNKNOWN : r->body.size();
        response = MHD_create_response_from_callback(size, kBlockSize, ReadBody, new Body{s, r, route},
                                                     FreeBody);
    }
    if (response == nullptr)
        return MHD_NO;
    for (const auto& h : r->headers)
        MHD_add_response_header(response, h.first.c_str(), h.second.c_str());
    MHD_Result ret = MHD_queue_response(connection, static_cast<unsigned int>(r->status), response);
    MHD_destroy_response(response);
    return ret;
}

} // namespace

TestServer::TestServer(bool https) : state_(new State)
{
    State* s = state_.get();
    s->https = https;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = 0; // any free port, read back below
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    // poll(), not select(): load tests open more than FD_SETSIZE descriptors.
    unsigned int flags =
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL | MHD_USE_ERROR_LOG;
    // A small stack per connection thread: thousands of held connections
    // must fit in a 32-bit address space.
    std::vector<MHD_OptionItem> options = {
        {MHD_OPTION_SOCK_ADDR, 0, &addr},
        {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(OnRequestLine), nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(OnCompleted), nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, 120, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, 16000, nullptr},
        {MHD_OPTION_THREAD_STACK_SIZE, 256 * 1024, nullptr},
    };
    if (https) {
        s->cert = Slurp(UD_TEST_CERT);
        s->key = Slurp(UD_TEST_KEY);
        if (s->cert.empty() || s->key.empty())
            throw std::runtime_error("cannot read the test certificate " UD_TEST_CERT " or its key");
        flags |= MHD_USE_TLS;
        options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(s->key.c_str())});
        options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(s->cert.c_str())});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    s->daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, Answer, s, MHD_OPTION_ARRAY, options.data(),
                                 MHD_OPTION_END);
    if (s->daemon == nullptr)
        throw std::runtime_error("cannot start the test server");
    const MHD_DaemonInfo* info = MHD_get_daemon_info(s->daemon, MHD_DAEMON_INFO_BIND_PORT);
    s->port = info != nullptr ? info->port : 0;
    if (s->port == 0) {
        MHD_stop_daemon(s->daemon);
        throw std::runtime_error("cannot read the test server's port");
    }
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

uint16_t TestServer::Port() const { return state_->port; }

std::string TestServer::Url(const std::string& path) const
{
    return std::string(state_->https ? "https" : "http") + "://127.0.0.1:" + std::to_string(state_->port) + path;
}

void TestServer::Route(const std::string& path, Response r)
{
    auto shared = std::make_shared<const Response>(std::move(r));
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->routes[path] = std::move(shared);
    state_->released.erase(path);
}

void TestServer::Redirect(const std::string& from, const std::string& to, int status)
{
    Response r;
    r.status = status;
    r.headers.emplace_back("Location", to);
    Route(from, std::move(r));
}

void TestServer::Release(const std::string& path)
{
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->released.insert(path);
    }
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
    return static_cast<size_t>(std::count_if(state_->requests.begin(), state_->requests.end(),
                                             [&](const Request& r) { return r.path == path; }));
}

bool TestServer::WaitForRequests(const std::string& path, size_t n, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_for(lock, timeout, [&] {
        return static_cast<size_t>(std::count_if(state_->requests.begin(), state_->requests.end(),
                                                 [&](const Request& r) { return r.path == path; })) >= n;
    });
}

std::string Pattern(size_t size, unsigned seed)
{
    // xorshift32; the seed is spread so that 0 and neighbouring seeds work.
    uint32_t x = seed * 2654435761u + 0x9e3779b9u;
    if (x == 0)
        x = 1;
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        out[i] = static_cast<char>(x >> 24);
    }
    return out;
}

std::string ReadFile(const std::string& path) { return Slurp(path.c_str()); }

bool FileExists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

} // namespace ud_test
