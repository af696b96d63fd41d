"""The HTTP side: connections and what goes over them."""

import gzip
import itertools
import socket
import time
from collections import namedtuple
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

from . import jsontext
from .errors import typed
from .routes import respond

MAX_LINE = 4096  # bytes of the request line that real servers take by default
TOO_LONG = typed(400, "too_long_frame_exception", f"An HTTP line is larger than {MAX_LINE} bytes.")


class Request(namedtuple("Request", "method path headers body")):
    """What came over the wire: `path` is the raw request target, `headers` (name, value) pairs, `body` bytes.

    `connection` is the number of the connection, from 1. It does not count when requests are compared.
    """

    connection = 0


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    wbufsize = -1  # head and body leave together

    def setup(self):
        super().setup()
        self.connection_number = next(self.server.numbers)

    def respond(self):
        owner = self.server.owner
        target = self.requestline.split(" ")[1]  # self.path has leading slashes merged
        body = self.rfile.read(int(self.headers.get("content-length") or 0))
        if target == "/_journal":
            self.send(200, [], owner.journal_text(self.command))
            return
        request = Request(self.command, target, self.headers.items(), body)
        request.connection = self.connection_number
        owner.journal.append(request)
        if len(self.requestline) > MAX_LINE:
            self.send(TOO_LONG.status, [], jsontext.write(TOO_LONG.body))
            return
        status, headers, text, documents = respond(owner.cluster, request)
        time.sleep(documents * owner.seconds_per_document)
        if owner.dialect.product:
            headers.append(("x-elastic-product", owner.dialect.product))
        if "x-opaque-id" in self.headers:
            headers.append(("x-opaque-id", self.headers["x-opaque-id"]))
        self.send(status, headers, text)

    do_GET = do_HEAD = do_POST = do_PUT = do_DELETE = respond

    def send(self, status, headers, text):
        data, owner = text.encode("utf-8"), self.server.owner
        headers = [*headers, ("content-type", owner.dialect.content_type)]
        if owner.compresses and "gzip" in self.headers.get("accept-encoding", ""):
            data = gzip.compress(data, 3)
            headers.append(("content-encoding", "gzip"))
        self.send_response_only(status)
        for name, value in [*headers, ("content-length", str(len(data)))]:
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(data)

    def send_error(self, code, message=None, explain=None):
        """Called by the base class for requests that are no HTTP it understands."""
        self.close_connection = True
        if not hasattr(self, "headers"):
            self.headers = {}
        self.send(code, [("connection", "close")], jsontext.write({"error": message or "", "status": int(code)}))

    def log_message(self, *args):
        """The journal says it all."""


class Listener(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, port, owner):
        self.owner = owner
        self.connections = set()
        self.numbers = itertools.count(1)
        super().__init__(("127.0.0.1", port), Handler)

    def process_request(self, connection, address):
        self.connections.add(connection)
        super().process_request(connection, address)

    def shutdown_request(self, connection):
        self.connections.discard(connection)
        super().shutdown_request(connection)

    def handle_error(self, connection, address):
        """Nothing to say: a client that hangs up in the middle is part of what is tested here."""

    def hang_up(self):
        """Ends the kept-alive connections, so that their threads end too."""
        for connection in list(self.connections):
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # the client was faster
