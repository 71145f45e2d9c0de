// A loopback HTTP/HTTPS server for the tests (test-server.py, run by python3): scripted
// responses by path (any status, headers and body, chunked, a file's content,
// bodies that stall until released or drop the connection), every request
// recorded, and a plain-HTTP proxy: an absolute-form target is served from
// the same routes by its path and recorded with via_proxy set.
#pragma once

#include <chrono>
#include <cstddef>
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
        long long stall_after = -1; // >= 0: send that many body bytes, then wait for Release() (30 s at most)
        long long drop_after = -1;  // >= 0: send that many body bytes, then close the connection
        std::string file{};         // non-empty: the body is this file's content instead (any size)
    };
    struct Request {
        std::string path; // unknown paths get 404
        std::string user_agent;
        bool via_proxy = false;
    };

    // On 127.0.0.1 at a free port; https with the build's self-signed certificate.
    explicit TestServer(bool https = false);
    ~TestServer(); // releases every stall, never waits on a client
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    std::string Url(const std::string& path) const;  // "http(s)://127.0.0.1:<port>" + path
    void Route(const std::string& path, Response r); // also re-arms the path's stall
    void Redirect(const std::string& from, const std::string& to, int status = 302);
    // Lets the current and later stalls of path run to the end, until it is routed again.
    void Release(const std::string& path);

    std::vector<Request> Requests() const;
    size_t RequestCount(const std::string& path) const;
    bool WaitForRequests(const std::string& path, size_t n, std::chrono::milliseconds timeout) const;
    size_t PeakConnections() const; // the most connections that were open at once

    struct State;

private:
    std::unique_ptr<State> state_;
};

// size deterministic bytes (all byte values occur); different seeds differ.
std::string Pattern(size_t size, unsigned seed);
std::string ReadFile(const std::string& path); // empty when it cannot be read
bool FileExists(const std::string& path);

} // namespace ud_test
