"""The bundled search server as a process of its own, which can be killed and started again on its port."""
import json
import subprocess
import sys
from pathlib import Path

DEMO = Path(__file__).resolve().parents[2] / "demo"


class SearchProcess:
    """A search server that holds the documents of a bulk file; after `kill` and `start` it has them again."""

    def __init__(self, documents):
        self.documents, self.port, self._process = documents, 0, None

    def start(self):
        """Starts the server, on the same port as before, and returns when it answers."""
        self._process = subprocess.Popen([sys.executable, "-B", __file__, str(self.port), self.documents],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.port = json.loads(self._process.stdout.readline())

    def kill(self):
        """Ends the process in the middle of whatever it does."""
        self._process.kill()
        self._process.communicate()

    def scrolls(self):
        """(contexts open now, contexts opened since the start)."""
        self._process.stdin.write("\n")
        self._process.stdin.flush()
        return tuple(json.loads(self._process.stdout.readline()))


def serve():
    """The process: prints its port, then the account of its scrolls for each line that comes in."""
    sys.path.insert(0, str(DEMO))
    from searchserver import SearchServer

    port, documents = sys.argv[1:]
    server = SearchServer(port=int(port))
    server.load(Path(documents).read_text(encoding="utf-8"), "library")

    class Nothing(list):
        def append(self, request):
            """A journal of hours would be the largest part of the process."""

    server.journal = Nothing()
    with server:
        print(server.port, flush=True)
        for _ in sys.stdin:
            print(json.dumps([server.open_scrolls(), server.opened_scrolls]), flush=True)


if __name__ == "__main__":
    serve()
