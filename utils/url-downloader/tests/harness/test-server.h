// A loopback HTTP/HTTPS server for the tests, on libmicrohttpd.
//
// Serves scripted responses by path: any status and headers, bodies of any
// size sent with a Content-Length or chunked, redirects, bodies that stall
// until the test releases them and connections dropped mid-body. It records
// every request, and also acts as a plain-HTTP proxy: a request whose target
// is absolute-form ("GET http://example.invalid/x HTTP/1.1") is served from
// the same routes by its path and recorded with via_proxy set.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ud_test {

class TestServer {
public:
    struct Response {
        int status = 200;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        bool chunked = false;       // chunked transfer coding instead of a Content-Length
        long long stall_after = -1; // >= 0: send that many body bytes, then wait for Release()
        long long drop_after = -1;  // >= 0: send that many body bytes, then close the connection
        std::string file{};         // non-empty: the body is this file's content instead (any size)
    };

    struct Request {
        std::string method;
        std::string target; // as on the request line
        std::string path;   // origin-form target (query included) that was served
        std::map<std::string, std::string> headers; // names in lower case
        bool via_proxy = false;
    };

    // Starts serving on 127.0.0.1 at a free port; https uses the build's
    // self-signed certificate. Throws std::runtime_error when it cannot start.
    explicit TestServer(bool https = false);
    // Releases every stalled response, then stops; never waits on a client.
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    uint16_t Port() const;
    // "http(s)://127.0.0.1:<port>" + path (path starts with '/').
    std::string Url(const std::string& path) const;

    // Serves r for path from now on. A path with a query string is matched
    // first as a whole, then without its query. Unknown paths get 404.
    // Routing a path again also re-arms its stall.
    void Route(const std::string& path, Response r);
    // Answers from with status and "Location: to" (a path or a whole URL).
    void Redirect(const std::string& from, const std::string& to, int status = 302);
    // Lets the stalled responses of path run to the end, the current ones
    // and every later one, until the path is routed again. A stall that is
    // never released gives up after 30 s and sends the rest anyway.
    void Release(const std::string& path);

    std::vector<Request> Requests() const;
    // Requests recorded for path (compared with Request::path).
    size_t RequestCount(const std::string& path) const;
    bool WaitForRequests(const std::string& path, size_t n, std::chrono::milliseconds timeout) const;

    struct State; // shared with the server's callbacks

private:
    std::unique_ptr<State> state_;
};

// size deterministic bytes (all byte values occur); different seeds differ.
std::string Pattern(size_t size, unsigned seed);
// Whole content of the file; empty when it cannot be read.
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

} // namespace ud_test
