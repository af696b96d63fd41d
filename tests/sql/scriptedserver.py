"""An HTTP peer that plays a script on each request: for the responses that no search server would give."""
import contextlib
import http.client
import itertools
import json
import select
import socket
import struct
import threading

NEVER = 10  # seconds: a query that nothing interrupts is to fail its test, not to hang it


def response(body="", status="200 OK", headers=(), length=None):
    """A script that sends one response; `length` overrides the Content-Length that belongs to the body. Where it does
    not, the connection is kept for the next request."""
    data = body if isinstance(body, bytes) else body.encode()
    lines = [f"HTTP/1.1 {status}", f"Content-Length: {len(data) if length is None else length}", *headers]
    payload = "\r\n".join(lines).encode() + b"\r\n\r\n" + data

    def script(peer):
        peer.send(payload)
        peer.keeps_connection = length is None
    return script


def hits(*documents, total=None, scroll_id=None):
    """The text of a search response; a document is the text of its members, a total that is a text stands as it is."""
    if not isinstance(total, str):
        total = json.dumps({"value": len(documents) if total is None else total, "relation": "eq"})
    start = "" if scroll_id is None else f'"_scroll_id":"{scroll_id}",'
    inner = ",".join("{" + document + "}" for document in documents)
    return f'{{{start}"took":1,"hits":{{"total":{total},"max_score":1.0,"hits":[{inner}]}}}}'


def named(*names):
    """Documents of these ids, for `hits`."""
    return [f'"_id":"{name}","_score":1' for name in names]


def raw(text, value):
    """A script that responds with these bytes in the place of every @ of a text."""
    return response(text.encode().replace(b"@", value))


def purpose(method, path):
    """What a request is for: the "first" page of a search, the "next" one of its scroll, to "delete" that."""
    return "delete" if method == "DELETE" else "next" if path.startswith("/_search/scroll") else "first"


def scroll_id_in(path, body):
    """The scroll id that the request of a next page or of a deletion gives, in its URL or its body."""
    _, in_url, scroll_id = path.partition("scroll_id=")
    return scroll_id if in_url else json.loads(body)["scroll_id"]


def silence(peer):
    """Accepts the request and does not respond."""
    peer.wait_for_close(NEVER)


def endless(piece, start=b"HTTP/1.1 200 OK\r\n\r\n"):
    """A script that sends a start and then the piece again and again, as fast as the other side reads."""
    def script(peer):
        peer.send(start)
        while True:  # until the other side closes the connection
            peer.send(piece * ((1 << 20) // len(piece)))
    return script


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class Peer:
    """One request, as a script sees it, `verb` empty where none came, and how to respond; `number` is that of the
    connection, from 1."""
    keeps_connection = False  # for another request, which takes a whole response

    def __init__(self, connection, number=0):
        self._connection, self.number = connection, number
        with connection.makefile("rb") as stream:
            self.verb, self.path, *_ = [*stream.readline().decode("latin-1").split(" "), ""]
            self.headers = http.client.parse_headers(stream)
            self.body = stream.read(int(self.headers["Content-Length"] or 0))
        self.purpose = purpose(self.verb, self.path)

    def send(self, data):
        self._connection.sendall(data)

    def reset(self):
        """Breaks the connection off with a reset instead of an orderly end."""
        reset(self._connection)

    def wait_for_close(self, seconds):
        """Waits until the other side closes the connection; False when the time ran out first."""
        self._connection.settimeout(seconds)
        try:
            return self._connection.recv(1) == b""
        except socket.timeout:
            return False


class Relay:
    """A script that has the search server of a port respond, or plays the next of its `faults` that is not None; for
    a deletion, which may overtake a page that was given up, `deletion`."""

    def __init__(self, port):
        self._port, self.faults, self.deletion = port, [], None

    def __call__(self, peer):
        if peer.purpose == "delete":
            fault = self.deletion
        else:
            fault = self.faults.pop(0) if self.faults else None
        (fault or self.forward)(peer)

    def ask(self, peer):
        """(status, headers, body) of the search server's response, which nobody has got yet."""
        with contextlib.closing(http.client.HTTPConnection("127.0.0.1", self._port)) as far:
            far.request(peer.verb, peer.path, peer.body or None, dict(peer.headers))
            answer = far.getresponse()
            packed = [f"Content-Encoding: {value}" for value in [answer.headers["Content-Encoding"]] if value]
            return f"{answer.status} Told", packed, answer.read()

    def forward(self, peer):
        status, headers, body = self.ask(peer)
        response(body, status, headers)(peer)


class ScriptedServer:
    """`with ScriptedServer(script) as server:` calls script(peer) for each request; `requests` are the peers.

    `script` may be replaced at any time. `secured` makes of a connection one that speaks TLS; `connections` are the
    numbers of those that got so far. The next `unread` requests meet a reset before a byte of them is read."""

    def __init__(self, script, secured=lambda connection: connection):
        self.script, self._secured, self.requests, self.connections = script, secured, [], []
        self.port = self.unread = 0
        self._numbers, self._open = itertools.count(1), set()

    def __enter__(self):
        self._listener = socket.create_server(("127.0.0.1", self.port))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()
        return self

    listen_again = __enter__

    def stop_listening(self, *_):
        """Refuses all further connections; those that are open go on."""
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    __exit__ = stop_listening

    def hang_up(self):
        """Ends the connections that are open, in good order."""
        for connection in list(self._open):
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)

    def _accept(self, listener):
        with contextlib.suppress(OSError):  # until it listens no more
            while True:
                threading.Thread(target=self._serve, args=listener.accept()[:1], daemon=True).start()

    def _serve(self, connection):
        # The other side may go away, which is what several tests are about.
        with contextlib.suppress(OSError), self._secured(connection) as stream:
            number = next(self._numbers)
            self.connections.append(number)
            self._open.add(stream)
            try:
                while self._serve_request(stream, number):
                    pass
            finally:
                self._open.discard(stream)

    def _serve_request(self, stream, number):
        select.select([stream], [], [])
        if self.unread and stream.recv(1, socket.MSG_PEEK):
            self.unread -= 1
            reset(stream)
            return False
        peer = Peer(stream, number)
        if peer.verb:
            self.requests.append(peer)
            self.script(peer)
        return peer.keeps_connection
