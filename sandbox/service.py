"""A stand-in for the vendor's web service, with faults on demand.

    with Service(contexts) as vendor:
        vendor.versions["KR_CAP"] = b'"2.6.0.0"'
        vendor.payload = b"..."
        vendor.faults["download"] = cut(1000)

It is a real HTTPS server.
"""

import collections
import functools
import http.server
import socket
import socketserver
import struct
import threading

FOLDER = "/korvane/korvane/projectMenu/self/shared/"
VERSION_PATH = FOLDER + "GetVersion_SrvAsync"
DOWNLOAD_PATH = FOLDER + "FileDownloader_SrvAsync?p=download+Setup&u=BLANK&f="
MOVED_PATH = "/moved"

Request = collections.namedtuple("Request", "what method path body headers")


class Service:
    """Answers on port 443 until the "with" block ends. Everything may be changed while it runs.

    versions: the raw answer for each application code. payload: the bytes of the download. faults:
    what happens in place of a good answer, for "connect" (before TLS), "version" and "download";
    see the functions below. certificate: the name of the certificate presented. requests: all
    requests, in order. waits: how many seconds each client that got no answer waited before it
    disconnected.
    """

    def __init__(self, contexts):
        self.contexts = contexts
        self.certificate = "good"
        self.versions = {}
        self.payload = b""
        self.faults = {}
        self.requests = []
        self.waits = []
        self.moved = b""
        self.came = threading.Condition()
        self.ending = threading.Event()

    def __enter__(self):
        self.server = _Server(self)
        serve = functools.partial(self.server.serve_forever, poll_interval=0.05)
        threading.Thread(target=serve, daemon=True).start()
        return self

    def __exit__(self, *_):
        self.ending.set()
        self.server.shutdown()
        self.server.server_close()

    def change(self, **changes):
        """Sets these attributes, which must exist."""
        assert changes.keys() <= vars(self).keys(), changes
        vars(self).update(changes)

    def note(self, request):
        with self.came:
            self.requests.append(request)
            self.came.notify_all()

    def wait_for(self, what, count=1):
        """Waits until this many requests of the kind ("KR_CAP", "Korvane_CAP", "download") have
        come.
        """
        with self.came:
            if not self.came.wait_for(lambda: self.order().count(what) >= count, 100):
                raise TimeoutError(f"no request {count} for {what}; so far {self.order()}")

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
        """A client that goes away, or refuses the certificate, is expected."""


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        self.service = self.server.service
        fault = self.service.faults.get("connect")
        if fault:
            fault(self, None)
        context = self.service.contexts[self.service.certificate]
        self.request = context.wrap_socket(self.request, server_side=True)
        super().setup()

    def log_message(self, *_):
        pass

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"])).decode()
        field, _, code = body.partition("=")
        assert field == "app", body
        self.answer("version", code, body, self.service.versions.get(code, b""))

    def do_GET(self):
        self.answer("download", "download", "", self.service.payload)

    def answer(self, kind, what, body, content):
        self.service.note(Request(what, self.command, self.path, body, dict(self.headers)))
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

    def begin(self, content, offset):
        """A good answer's head and its first bytes."""
        self.head(200, len(content))
        self.wfile.write(content[:offset])

    def wait_until_gone(self):
        self.request.settimeout(1)
        seconds = 0
        while not self.service.ending.is_set():
            try:
                if not self.request.recv(4096):
                    break
            except TimeoutError:
                seconds += 1
            except OSError:
                break
        self.service.waits.append(seconds)


def fault(function):
    """Makes cut(1000) return a function that plays the fault, given the handler and the good
    answer.
    """
    return lambda *details, **changes: lambda handler, content: function(
        handler, content, *details, **changes
    )


@fault
def status(handler, content, number):
    """Another status, with the same content as its body."""
    handler.send(number, content)


@fault
def body(handler, content, text):
    """A good answer with another body."""
    handler.send(200, text)


@fault
def and_then(handler, content, **changes):
    """Changes the service's attributes, then sends the good answer."""
    handler.service.change(**changes)
    handler.send(200, content)


@fault
def redirect(handler, content):
    """A redirect to an address where the good answer is."""
    handler.service.moved = content
    handler.send(302, b"", Location=MOVED_PATH)


@fault
def cut(handler, content, offset):
    """The promised length, but the connection is closed in good order after so many bytes."""
    handler.begin(content, offset)
    handler.request.unwrap()


@fault
def chunked_cut(handler, content, offset):
    """Chunks, of which the last ones never come."""
    handler.head(200, None, **{"Transfer-Encoding": "chunked"})
    handler.wfile.write(b"%x\r\n" % len(content) + content[:offset])


@fault
def chunks(handler, content, pack=bytes, transfer="chunked", coding="identity"):
    """A good answer in one chunk, packed by this function, and how its headers call the packing."""
    packed = pack(content)
    handler.head(200, None, **{"Transfer-Encoding": transfer, "Content-Encoding": coding})
    handler.wfile.write(b"%x\r\n%s\r\n0\r\n\r\n" % (len(packed), packed))


@fault
def no_length(handler, content):
    """A good answer that ends where the connection does."""
    handler.head(200, None)
    handler.wfile.write(content)
    handler.request.unwrap()


@fault
def lengths(handler, content, *lengths):
    """Half of a good answer, in good order, with lengths that may name {half} and {whole}."""
    half = len(content) // 2
    handler.send_response(200)
    for length in lengths:
        handler.send_header("Content-Length", length.format(half=half, whole=len(content)))
    handler.end_headers()
    handler.wfile.write(content[:half])
    handler.request.unwrap()


@fault
def reset(handler, content, offset):
    """A TCP reset after so many bytes."""
    handler.begin(content, offset)
    handler.request.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    handler.request.close()


@fault
def stall(handler, content, offset):
    """Silence after so many bytes, until the service ends or the client goes."""
    handler.begin(content, offset)
    handler.wait_until_gone()


@fault
def pause(handler, content, seconds, offset=0):
    """A good answer with a pause after so many bytes."""
    handler.begin(content, offset)
    handler.service.ending.wait(seconds)
    handler.wfile.write(content[offset:])


@fault
def meanwhile(handler, content, act, offset):
    """A good answer; after so many bytes of it, something else happens."""
    handler.begin(content, offset)
    act()
    handler.wfile.write(content[offset:])


@fault
def trickle(handler, content, bytes_per_second):
    """A good answer that comes slowly."""
    handler.begin(content, 0)
    step = bytes_per_second // 2
    for offset in range(0, len(content), step):
        handler.wfile.write(content[offset : offset + step])
        if handler.service.ending.wait(0.5):
            return


@fault
def endless(handler, content):
    """An answer without end."""
    handler.head(200, None)
    while not handler.service.ending.wait(
        0.001
    ):  # fast, yet not so fast that it fills the sandbox at once
        handler.wfile.write(b"9" * 16384)


@fault
def late_handshake(handler, _, seconds):
    """A connection that is accepted, and answered late."""
    handler.service.ending.wait(seconds)


@fault
def no_handshake(handler, _):
    """A connection that is accepted, and then left alone."""
    handler.wait_until_gone()
    raise ConnectionError
