#!/usr/bin/env python3
# The tests' loopback HTTP/HTTPS server, run by TestServer (test-server.cpp)
# with the certificate and key as arguments (empty for plain HTTP). Every
# message either way is a count of fields, then each field as its length and
# its bytes, so that bodies stay binary. It says its port first, and exits
# when its stdin ends: the test process closed it or died.
import collections, http.server, os, ssl, sys, threading

cond = threading.Condition()  # guards everything below; notified on each request and release
routes, released, requests, counts = {}, set(), [], collections.Counter()
NOT_FOUND = (404, [], b"Not Found", False, -1, -1, "")


def get():
    line = sys.stdin.buffer.readline()
    if not line:
        os._exit(0)  # nothing to wait for: held connections just close
    return sys.stdin.buffer.read(int(line))


def text():
    return get().decode("latin-1")  # byte for byte, as http.server reads and writes text


def reply(*fields):
    sys.stdout.buffer.write(b"%d\n" % len(fields) + b"".join(b"%d\n%s" % (len(f), f) for f in fields))
    sys.stdout.buffer.flush()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_GET(self):
        path, proxy = self.path, not self.path.startswith("/") and "://" in self.path
        if proxy:  # absolute form: served from the same routes
            path = "/" + path.split("://", 1)[1].partition("/")[2]
        with cond:
            requests.append((path, self.headers.get("User-Agent", ""), proxy))
            counts[path] += 1
            cond.notify_all()
            status, headers, body, chunked, stall, drop, file = routes.get(path, NOT_FOUND)
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        if file:
            with open(file, "rb") as f:
                self.send_header("Content-Length", os.fstat(f.fileno()).st_size)
                self.end_headers()
                self.connection.sendfile(f)
            return
        chunked = chunked and drop < 0  # a dropped body announces its full length
        self.send_header(*(("Transfer-Encoding", "chunked") if chunked else ("Content-Length", len(body))))
        self.end_headers()
        if drop >= 0:
            body, self.close_connection = body[:drop], True

        def send(data):
            if data:
                self.wfile.write(b"%x\r\n%s\r\n" % (len(data), data) if chunked else data)

        if stall >= 0:
            send(body[:stall])
            body = body[stall:]
            with cond:
                cond.wait_for(lambda: path in released, 30)
        send(body)
        if chunked:
            self.wfile.write(b"0\r\n\r\n")


class Server(http.server.ThreadingHTTPServer):
    request_queue_size = 8192  # thousands of connections come at once

    def handle_error(self, request, client_address):
        pass  # clients that go away mid-body


threading.stack_size(512 * 1024)  # a thread per connection, thousands held
server = Server(("127.0.0.1", 0), Handler)
if sys.argv[1]:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[1], sys.argv[2])
    # The handshake then happens in the connection's thread, not in accept().
    server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
threading.Thread(target=server.serve_forever, daemon=True).start()
reply(b"%d" % server.server_address[1])
while True:
    op, out = get(), []
    with cond:
        if op == b"route":
            path, status, chunked, stall, drop, file, body = text(), int(get()), get() == b"1", int(get()), int(get()), text(), get()
            headers = [(text(), text()) for _ in range(int(get()))]
            routes[path] = (status, headers, body, chunked, stall, drop, file)
            released.discard(path)
        elif op == b"release":
            released.add(text())
            cond.notify_all()
        elif op == b"wait":  # for at least n requests of path; answers the count
            path, n, timeout = text(), int(get()), int(get()) / 1000
            cond.wait_for(lambda: counts[path] >= n, timeout)
            out = [b"%d" % counts[path]]
        elif op == b"requests":
            out = [f for path, agent, proxy in requests for f in (path.encode("latin-1"), agent.encode("latin-1"), b"%d" % proxy)]
    reply(*out)
