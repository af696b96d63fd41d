"""The HTTP side: connections, the journal of requests, start and stop."""

import json
import socket
import threading
from collections import namedtuple
from contextlib import contextmanager
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

from . import jsontext
from .dialect import DIALECTS
from .errors import typed
from .index import Cluster
from .partial import Partial
from .routes import bulk_actions, respond

# What came over the wire: `path` is the raw request target, `headers` (name, value) pairs, `body` bytes.
Request = namedtuple("Request", "method path headers body")

MAX_LINE = 4096  # bytes of the request line that real servers take by default
TOO_LONG = typed(400, "too_long_frame_exception", f"An HTTP line is larger than {MAX_LINE} bytes.")


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    wbufsize = -1  # head and body leave together

    def answer(self):
        target = self.requestline.split(" ")[1]  # self.path has leading slashes merged
        body = self.rfile.read(int(self.headers.get("content-length") or 0))
        if target == "/_journal":
            self.send(200, [], self.server.owner.journal_text(self.command))
            return
        request = Request(self.command, target, self.headers.items(), body)
        self.server.owner.journal.append(request)
        if len(self.requestline) > MAX_LINE:
            self.send(TOO_LONG.status, [], jsontext.write(TOO_LONG.body))
        else:
            self.send(*respond(self.server.owner.cluster, self.server.owner.dialect, request))

    do_GET = do_HEAD = do_POST = do_PUT = do_DELETE = answer

    def send(self, status, headers, text):
        data = text.encode("utf-8")
        self.send_response_only(status)
        for name, value in [*headers, ("content-type", "application/json; charset=UTF-8"),
                            ("content-length", str(len(data)))]:
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(data)

    def send_error(self, code, message=None, explain=None):
        """Called by the base class for requests that are no HTTP it understands."""
        self.close_connection = True
        body = {"error": message or "", "status": int(code)}
        self.send(code, [("connection", "close")], jsontext.write(body))

    def log_message(self, *args):
        """The journal says it all."""


class Listener(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, port, owner):
        self.owner = owner
        self.connections = set()
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


class SearchServer:
    """A search server on 127.0.0.1, run in a background thread while the object is used in `with`.

    `version` is the major version whose dialect it speaks, one of DIALECTS.
    Port 0 takes a free one; `port` holds the one in use from the start of `with`.
    """

    def __init__(self, version=7, port=0):
        self.version = version
        self.dialect = DIALECTS[version]
        self.port = port
        self.journal = []
        self.cluster = Cluster()

    def __enter__(self):
        self.listener = Listener(self.port, self)
        self.port = self.listener.server_address[1]
        self.thread = threading.Thread(target=self.listener.serve_forever, args=(0.02,), daemon=True)
        self.thread.start()
        return self

    def __exit__(self, *exception):
        self.listener.shutdown()
        self.listener.server_close()
        self.listener.hang_up()
        self.thread.join()

    def create_index(self, name, shards=1):
        """Makes an empty index. Documents go to its shards in turn; the more shards, the longer a scroll id."""
        with self.cluster.lock:
            self.cluster.create(name, shards)

    def put(self, index, doc_id, source):
        """Stores one document: a dict, or JSON text that comes back byte for byte."""
        self.put_many(index, [(doc_id, source)])

    def put_many(self, index, documents):
        """Stores (id, source) pairs in an index, which is made when it is new."""
        with self.cluster.lock:
            target = self.cluster.create(index)
            for doc_id, source in documents:
                target.put(doc_id, source)

    def load(self, text, index):
        """Stores the documents of a bulk file's text, those without an index of their own in `index`."""
        with self.cluster.lock:
            for _, name, doc_id, source in bulk_actions(text, index):
                self.cluster.create(name).put(doc_id, source)

    @property
    def opened_scrolls(self):
        """How many scroll contexts were ever opened."""
        return self.cluster.scrolls.opened

    def open_scrolls(self):
        """How many scroll contexts are open."""
        with self.cluster.lock:
            self.cluster.scrolls.drop_expired()
            return len(self.cluster.scrolls.contexts)

    def expire_scrolls(self):
        """Drops all scroll contexts, as if their time had run out."""
        with self.cluster.lock:
            self.cluster.scrolls.contexts.clear()

    @contextmanager
    def partial_answers(self, page=1, failed=0, unassigned=0, timed_out=False):
        """While in `with`, the answers of a search's `page` are partial as Partial tells; some shard must be left."""
        self.cluster.partial = Partial(page, failed, unassigned, timed_out)
        try:
            yield
        finally:
            self.cluster.partial = None

    def take_journal(self):
        """The requests that came since the last call."""
        taken, self.journal = self.journal, []
        return taken

    def journal_text(self, method):
        """The journal as JSON; DELETE empties it."""
        requests = self.take_journal() if method == "DELETE" else self.journal
        return json.dumps([{**request._asdict(), "body": request.body.decode("utf-8", "replace")}
                           for request in requests], ensure_ascii=False)
