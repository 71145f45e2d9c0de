#!/usr/bin/env python3
# The tests' loopback HTTP/HTTPS server, run by TestServer (test-server.cpp)
# with the certificate and key as arguments (empty ones for plain HTTP). A
# message either way is a count of fields, then each field as its length and
# its bytes, so that bodies stay binary. It sends its port first, then answers
# each message, and exits when its stdin ends: the test process closed it or died.
import collections, http.server, os, ssl, sys, threading

cond = threading.Condition()  # guards the state below; notified on each request and release
routes, released, requests, counts = {}, set(), [], collections.Counter()
connections = {"open": 0, "peak": 0}  # simultaneous connections, and the most seen


def size():
    line = sys.stdin.buffer.readline()
    return int(line) if line else os._exit(0)  # no client is waited on: held connections just close


def send(*fields):
    sys.stdout.buffer.write(b"%d\n" % len(fields) + b"".join(b"%d\n%s" % (len(f), f) for f in fields))
    sys.stdout.buffer.flush()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True  # headers and body go in two writes: no delayed-ACK wait between
    log_message = lambda *args: None

    def setup(self):
        with cond:
            connections["open"] += 1
            connections["peak"] = max(connections["peak"], connections["open"])
        super().setup()

    def finish(self):
        with cond:
            connections["open"] -= 1
        super().finish()

    def do_GET(self):
        path, proxy = self.path.encode("latin-1"), "://" in self.path and not self.path.startswith("/")
        if proxy:  # absolute form: served from the same routes
            path = b"/" + path.split(b"://", 1)[1].partition(b"/")[2]
        with cond:
            requests.extend((path, self.headers.get("User-Agent", "").encode("latin-1"), b"%d" % proxy))
            counts[path] += 1
            cond.notify_all()
            status, chunked, stall, drop, file, body, headers = routes.get(path, (404, 0, -1, -1, 0, b"Not Found", []))
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        if file:
            with open(file, "rb") as f:
                self.send_header("Content-Length", os.fstat(f.fileno()).st_size)
                self.end_headers()
                return self.connection.sendfile(f)
        chunked = chunked and drop < 0  # a dropped body announces its full length
        self.send_header(*(("Transfer-Encoding", "chunked") if chunked else ("Content-Length", len(body))))
        self.end_headers()
        if drop >= 0:
            body, self.close_connection = body[:drop], True

        def write(data):
            if data:
                self.wfile.write(b"%x\r\n%s\r\n" % (len(data), data) if chunked else data)

        if stall >= 0:
            write(body[:stall])
            body = body[stall:]
            with cond:
                cond.wait_for(lambda: path in released, 30)
        write(body)
        if chunked:
            self.wfile.write(b"0\r\n\r\n")


class Server(http.server.ThreadingHTTPServer):
    request_queue_size = 8192  # thousands of connections come at once
    handle_error = lambda *args: None  # clients that go away mid-body


threading.stack_size(512 * 1024)  # a thread per connection, thousands held
server = Server(("127.0.0.1", 0), Handler)
if sys.argv[1]:  # the handshake then happens in the connection's thread, not in accept()
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[1], sys.argv[2])
    server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
threading.Thread(target=server.serve_forever, daemon=True).start()
send(b"%d" % server.server_address[1])
while True:
    op, *args = [sys.stdin.buffer.read(size()) for _ in range(size())]
    out = []
    with cond:
        if op == b"route":  # also re-arms the path's stall
            path, status, chunked, stall, drop, file, body, *h = args
            h = [(name.decode("latin-1"), value.decode("latin-1")) for name, value in zip(h[::2], h[1::2])]
            routes[path] = (int(status), chunked == b"1", int(stall), int(drop), file, body, h)
            released.discard(path)
        elif op == b"release":
            released.add(args[0])
            cond.notify_all()
        elif op == b"wait":  # for n requests of the path at most that long; answers their count
            cond.wait_for(lambda: counts[args[0]] >= int(args[1]), int(args[2]) / 1000)
            out = [b"%d" % counts[args[0]]]
        elif op == b"requests":
            out = list(requests)
        elif op == b"peak":
            out = [b"%d" % connections["peak"]]
    send(*out)
