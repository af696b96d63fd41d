"""An HTTP peer that plays a script on each connection: for the responses that no search server would give."""
import contextlib
import http.client
import json
import socket
import struct
import threading
import time

NEVER = 10  # seconds: a query that nothing interrupts is to fail its test, not to hang it


def response(body="", status="200 OK", headers=(), length=None):
    """A script that sends one response; `length` overrides the Content-Length that belongs to the body."""
    data = body if isinstance(body, bytes) else body.encode()
    lines = [f"HTTP/1.1 {status}", f"Content-Length: {len(data) if length is None else length}", *headers]
    payload = "\r\n".join(lines).encode() + b"\r\n\r\n" + data
    return lambda peer: peer.send(payload)


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


class Peer:
    """One connection, as a script sees it: the request that came, `verb` empty where none did, and how to respond."""

    def __init__(self, connection):
        self._connection = connection
        with connection.makefile("rb") as stream:
            self.verb, self.path, *_ = [*stream.readline().decode("latin-1").split(" "), ""]
            self.headers = http.client.parse_headers(stream)
            self.body = stream.read(int(self.headers["Content-Length"] or 0))
        self.purpose = purpose(self.verb, self.path)

    def send(self, data):
        self._connection.sendall(data)

    def reset(self):
        """Breaks the connection off with a reset instead of an orderly end."""
        self._connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._connection.close()

    def wait_for_close(self, seconds):
        """Waits until the other side closes the connection; False when the time ran out first."""
        self._connection.settimeout(seconds)
        try:
            return self._connection.recv(1) == b""
        except socket.timeout:
            return False


class ScriptedServer:
    """`with ScriptedServer(script) as server:` calls script(peer) for each request, one a connection; `requests` are
    the peers. `script` may be replaced at any time. `secured` makes of a connection one that speaks TLS."""

    def __init__(self, script, secured=lambda connection: connection):
        self.script, self._secured, self.requests = script, secured, []

    def __enter__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()
        return self

    def stop_listening(self, *_):
        """Refuses all further connections; those that are open go on."""
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    __exit__ = stop_listening

    def _accept(self):
        with contextlib.suppress(OSError):  # until it listens no more
            while True:
                threading.Thread(target=self._serve, args=self._listener.accept()[:1], daemon=True).start()

    def _serve(self, connection):
        # The other side may go away, which is what several tests are about.
        with contextlib.suppress(OSError), self._secured(connection) as stream:
            peer = Peer(stream)
            if peer.verb:
                self.requests.append(peer)
                self.script(peer)
