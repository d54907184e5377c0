"""A stand-in for the vendor's web service: a real HTTPS server.

    with Service() as vendor:
        vendor.versions["KR_CAP"] = b'"2.6.0.0"'
        vendor.payload = b"..."
"""

import collections
import http.server
import socketserver
import sys
import threading

import certificates

FOLDER = "/korvane/korvane/projectMenu/self/shared/"
VERSION_PATH = FOLDER + "GetVersion_SrvAsync"
DOWNLOAD_PATH = FOLDER + "FileDownloader_SrvAsync?p=download+Setup&u=BLANK&f=KR"

Request = collections.namedtuple("Request", "what headers")


class Service(socketserver.ThreadingMixIn, http.server.HTTPServer):
    """Answers on port 443 until the "with" block ends. Everything may be changed while it runs.

    versions: the raw answer for each application code. payload: the bytes of the download.
    context: the TLS context, with the certificate. faults: what happens in place of a good answer,
    for "connect" (before TLS), "version" and "download", as functions that take the handler and the
    good answer; played: the faults that came to their end. requests: all requests, in order.
    errors: why connections have ended early.
    """

    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self):
        super().__init__(("127.0.0.1", 443), _Handler)
        self.context = certificates.make_good()
        self.versions, self.payload, self.faults = {}, b"", {}
        self.requests, self.played, self.errors = [], [], []
        self.came = threading.Condition()
        self.ending = threading.Event()

    def __enter__(self):
        threading.Thread(target=self.serve_forever, args=[0.05], daemon=True).start()
        return self

    def __exit__(self, *_):
        self.ending.set()
        self.shutdown()
        self.server_close()

    def handle_error(self, *_):
        self.errors.append(str(sys.exc_info()[1]))

    def note(self, request):
        with self.came:
            self.requests.append(request)
            self.came.notify_all()

    def wait_for(self, what, count=1):
        """Waits until this many requests of the kind have come: "KR_CAP", "Korvane_CAP",
        "download"."""
        with self.came:
            if not self.came.wait_for(lambda: self.order().count(what) >= count, 100):
                raise TimeoutError(f"no request {count} for {what}; so far {self.order()}")

    def order(self):
        return [request.what for request in self.requests]


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        self.play("connect", None)
        self.request = self.server.context.wrap_socket(self.request, server_side=True)
        super().setup()

    def log_message(self, *_):
        pass

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"])).decode()
        field, _, code = body.partition("=")
        what = code if field == "app" else body
        self.answer("version", what, VERSION_PATH, self.server.versions.get(what, b""))

    def do_GET(self):
        self.answer("download", "download", DOWNLOAD_PATH, self.server.payload)

    def answer(self, kind, what, path, content):
        self.server.note(Request(what, dict(self.headers)))
        if self.path != path:
            self.send(404, b"no such address")
        elif not self.play(kind, content):
            self.send(200, content)

    def play(self, kind, content):
        """Plays the fault of this kind. Returns whether there is one."""
        fault = self.server.faults.get(kind)
        if fault:
            self.close_connection = True
            fault(self, content)
            self.server.played.append(kind)
        return fault

    def send(self, status, content):
        self.head(status, len(content))
        self.wfile.write(content)

    def head(self, status, length=None, **headers):
        """Sends an answer's head; a header's name has underscores where hyphens belong."""
        self.send_response(status)
        if length is not None:
            headers["Content-Length"] = length
        for name, value in headers.items():
            self.send_header(name.replace("_", "-"), str(value))
        self.end_headers()
