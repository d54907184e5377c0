"""A stand-in for the vendor's web service: a real HTTPS server, with faults on demand.

    with Service(contexts) as vendor:
        vendor.versions["KR_CAP"] = b'"2.6.0.0"'
        vendor.payload = b"..."
        vendor.faults["download"] = cut(1000)
"""
import collections
import http.server
import socket
import socketserver
import struct
import threading
import time

PATH = "/korvane/korvane/projectMenu/self/shared/"
VERSION_PATH = PATH + "GetVersion_SrvAsync"
MOVED_PATH = "/moved"
DOWNLOAD_PATH = PATH + "FileDownloader_SrvAsync?p=download+Setup&u=BLANK&f="

Request = collections.namedtuple("Request", "time what method path body headers")


class Service:
    """Answers on port 443 until it is left. Everything may be changed while it runs.

    versions: the raw answer for each application code. payload: the bytes of the download. faults: what happens in
    place of a good answer, for "connect" (before TLS), "version" and "download"; see the functions below.
    certificate: the name of the certificate that is shown. requests: all that came in, in order. waits: for how many
    seconds each client that was left alone has waited before it went.
    """

    def __init__(self, contexts):
        self.contexts = contexts
        self.certificate = "good"
        self.versions = {}
        self.payload = b""
        self.faults = {}
        self.requests = []
        self.waits = []
        self.changed = threading.Condition()
        self.ending = threading.Event()
        self.moved = b""
        self.server = None

    def __enter__(self):
        self.listen(True)
        return self

    def __exit__(self, *_):
        self.ending.set()
        self.listen(False)

    def listen(self, on):
        """Accepts connections from now on, or refuses them; those that are open go on."""
        if on and not self.server:
            self.server = _Server(self)
            threading.Thread(target=self.server.serve_forever, kwargs={"poll_interval": 0.05}, daemon=True).start()
        elif not on and self.server:
            self.server.shutdown()
            self.server.server_close()
            self.server = None

    def note(self, request):
        with self.changed:
            self.requests.append(request)
            self.changed.notify_all()

    def wait_for(self, what, count=1, timeout=100):
        """Waits until this many requests of the kind ("KR_CAP", "Korvane_CAP", "download") have come; returns them."""

        def found():
            return [request for request in self.requests if request.what == what]

        with self.changed:
            if not self.changed.wait_for(lambda: len(found()) >= count, timeout):
                raise TimeoutError(f"no request {count} for {what} in {timeout} s; so far {self.order()}")
            return found()

    def order(self):
        return [request.what for request in self.requests]


class _Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, service):
        super().__init__(("127.0.0.1", 443), _Handler)
        self.service = service

    def handle_error(self, request, client_address):
        """A client that goes away, or refuses the certificate, is part of the game."""


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        self.service = self.server.service
        fault = self.service.faults.get("connect")
        if fault:
            fault(self, None)
        self.request = self.service.contexts[self.service.certificate].wrap_socket(self.request, server_side=True)
        super().setup()

    def log_message(self, *_):
        pass

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"])).decode()
        code = body.removeprefix("app=")
        self.answer("version", code, body, self.service.versions.get(code, b""))

    def do_GET(self):
        self.answer("download", "download", "", self.service.payload)

    def answer(self, kind, what, body, content):
        self.service.note(Request(time.monotonic(), what, self.command, self.path, body, dict(self.headers)))
        fault = self.service.faults.get(kind)
        if self.path == MOVED_PATH:
            self.send(200, self.service.moved)
        elif fault:
            self.close_connection = True
            fault(self, content)
        elif self.path in (VERSION_PATH, DOWNLOAD_PATH + "KR"):
            self.send(200, content)
        else:
            self.send(404, b"no such address")

    def send(self, status, content, **headers):
        self.head(status, len(content), **headers)
        self.wfile.write(content)

    def head(self, status, length, **headers):
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name, value)
        if length is not None:
            self.send_header("Content-Length", str(length))
        self.end_headers()


# Faults: each returns a function that takes the handler and the content that a good answer would have.


def status(number, **headers):
    """Another status, with the same content as its body."""
    return lambda handler, content: handler.send(number, content, **headers)


def body(text):
    """A good answer with another body."""
    return lambda handler, content: handler.send(200, text)


def and_then(fault, **changes):
    """This fault, and a service that is otherwise from then on."""

    def change(handler, content):
        vars(handler.service).update(changes)
        fault(handler, content)

    return change


def redirect(handler, content):
    """A redirect to an address where the good answer is."""
    handler.service.moved = content
    handler.send(302, b"", Location=MOVED_PATH)


def cut(offset):
    """The promised length, but the connection is closed in good order after so many bytes."""

    def fault(handler, content):
        handler.head(200, len(content))
        handler.wfile.write(content[:offset])
        handler.wfile.flush()
        handler.request.unwrap()

    return fault


def chunked_cut(offset):
    """Chunks, of which the last ones never come."""

    def fault(handler, content):
        handler.head(200, None, **{"Transfer-Encoding": "chunked"})
        handler.wfile.write(b"%x\r\n" % len(content) + content[:offset])

    return fault


def no_length(handler, content):
    """A good answer that ends where the connection does."""
    handler.head(200, None)
    handler.wfile.write(content)
    handler.request.unwrap()


def reset(offset):
    """A TCP reset after so many bytes."""

    def fault(handler, content):
        handler.head(200, len(content))
        handler.wfile.write(content[:offset])
        handler.request.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        handler.request.close()

    return fault


def stall(offset):
    """Silence after so many bytes, until the service ends or the client goes."""

    def fault(handler, content):
        handler.head(200, len(content))
        handler.wfile.write(content[:offset])
        handler.wfile.flush()
        _until_gone(handler)

    return fault


def pause(seconds, offset=0):
    """A good answer with a pause after so many bytes."""

    def fault(handler, content):
        handler.head(200, len(content))
        handler.wfile.write(content[:offset])
        handler.service.ending.wait(seconds)
        handler.wfile.write(content[offset:])

    return fault


def trickle(bytes_per_second):
    """A good answer that comes slowly."""

    def fault(handler, content):
        handler.head(200, len(content))
        step = bytes_per_second // 2
        for begin in range(0, len(content), step):
            handler.wfile.write(content[begin : begin + step])
            if handler.service.ending.wait(0.5):
                return

    return fault


def endless(handler, _):
    """An answer without end."""
    handler.head(200, None)
    while not handler.service.ending.wait(0.001):  # fast, yet not so fast that it fills the sandbox at once
        handler.wfile.write(b"9" * 16384)


def slow_handshake(seconds):
    """A connection that is accepted and answered late."""
    return lambda handler, _: handler.service.ending.wait(seconds)


def silent_handshake(handler, _):
    """A connection that is accepted and then left alone."""
    _until_gone(handler)
    raise ConnectionError


def _until_gone(handler):
    handler.request.settimeout(1)
    seconds = 0
    while not handler.service.ending.is_set():
        try:
            if not handler.request.recv(4096):
                break
        except TimeoutError:
            seconds += 1
        except OSError:
            break
    handler.service.waits.append(seconds)
