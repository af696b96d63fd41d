"""An HTTP peer that plays a script on each connection: for the answers that no search server would give."""
import json
import socket
import struct
import threading
import time

NEVER = 10  # seconds: a query that nothing interrupts is to fail its test, not to hang it


def answer(body="", status="200 OK", headers=(), length=None):
    """A script that sends one answer; `length` overrides the Content-Length that belongs to the body."""
    data = body if isinstance(body, bytes) else body.encode()
    lines = [f"HTTP/1.1 {status}", f"Content-Length: {len(data) if length is None else length}", *headers]
    payload = "\r\n".join(lines).encode() + b"\r\n\r\n" + data
    return lambda peer: peer.send(payload)


def hits(*documents, total=None, scroll_id=None):
    """The text of a search answer; a document is the text of its members, a total that is a text stands as it is."""
    if not isinstance(total, str):
        total = json.dumps({"value": len(documents) if total is None else total, "relation": "eq"})
    start = "" if scroll_id is None else f'"_scroll_id":"{scroll_id}",'
    inner = ",".join("{" + document + "}" for document in documents)
    return f'{{{start}"took":1,"hits":{{"total":{total},"max_score":1.0,"hits":[{inner}]}}}}'


def purpose(method, path):
    """What a request is for: the "first" page of a search, the "next" one of its scroll, to "delete" that."""
    if method == "DELETE":
        return "delete"
    return "next" if path.startswith("/_search/scroll") else "first"


def scroll_id_in(path, body):
    """The scroll id that the request of a next page or of a deletion gives, in its URL or its body."""
    _, in_url, scroll_id = path.partition("scroll_id=")
    return scroll_id if in_url else json.loads(body)["scroll_id"]


def silence(peer):
    """Accepts the request and does not answer."""
    peer.wait_for_close(NEVER)


def drip(peer):
    """Answers one byte a second and comes to no end."""
    peer.send(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n")
    deadline = time.monotonic() + NEVER
    while time.monotonic() < deadline and not peer.wait_for_close(1):
        peer.send(b" ")


class Peer:
    """One connection, as a script sees it: the request that came in (its raw target is `path`) and the means to
    answer."""

    def __init__(self, connection):
        self._connection = connection

    def read_request(self):
        """Reads one request; False when the connection ends before one is complete."""
        data = b""
        while b"\r\n\r\n" not in data:
            chunk = self._connection.recv(65536)
            if not chunk:
                return False
            data += chunk
        head, _, self.body = data.partition(b"\r\n\r\n")
        self.request_line, *lines = head.decode().split("\r\n")
        self.verb, self.path, _ = self.request_line.split(" ")
        self.headers = [tuple(line.split(":", 1)) for line in lines]
        length = next((int(value) for name, value in self.headers if name.lower() == "content-length"), 0)
        while len(self.body) < length:
            self.body += self._connection.recv(65536)
        return True

    @property
    def purpose(self):
        return purpose(self.verb, self.path)

    def send(self, data):
        """Sends raw bytes."""
        self._connection.sendall(data)

    def trickle(self, data):
        """Sends bytes one by one, each in a packet of its own."""
        self._connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in data:
            self.send(bytes([byte]))
            time.sleep(0.0002)

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
    """`with ScriptedServer(script) as server:` calls script(peer) for each request, one a connection.

    `requests` holds the peers whose request has been read, in order. `script` may be replaced at any time.
    With an `ssl.SSLContext` it speaks TLS.
    """

    def __init__(self, script, context=None):
        self.script, self._context = script, context
        self.requests, self._connections = [], []

    def __enter__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()
        return self

    def __exit__(self, *failure):
        self.stop_listening()
        for each in list(self._connections):
            try:
                each.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def stop_listening(self):
        """Refuses all further connections; those that are open go on."""
        try:
            self._listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._listener.close()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            if self._context:
                connection = self._context.wrap_socket(connection, server_side=True, do_handshake_on_connect=False)
            self._connections.append(connection)
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        try:
            peer = Peer(connection)
            if peer.read_request():
                self.requests.append(peer)
                self.script(peer)
        except OSError:
            pass  # The other side went away, which is what several tests are about.
        finally:
            self._connections.remove(connection)
            connection.close()
