"""An endurance run: several backends ask and fail for a while; the search server dies under them twice."""
import math
import re
import threading
import time
from collections import Counter, deque
from contextlib import contextmanager
from random import Random

from conftest import Database, SearchServer, memory, sockets
from workload import DOCUMENTS, EXPIRED, QUERIES, SCROLL_SECONDS, TABLES

BACKENDS = 8
GROWTH = 2048  # KiB
DOWN_SECONDS = 0.7
PATIENCE = 30  # seconds that the last query of a backend may take

# What a query may say when the search server was away while it ran: the connection is refused, broken or without a
# response, the response is cut off, also after contents, which are quoted then, or the scroll is gone. Nothing else.
OUTAGE = "HV000", rf"Curl error \((7|18|52|55|56)\)|ElasticSearch error, query was '.*', error was '\{{|{EXPIRED}"


def is_right(got, right):
    """Whether rows are the right ones, or an error has the right SQLSTATE and a message of the right pattern."""
    if isinstance(got, tuple) and isinstance(right, tuple):
        return got[0] == right[0] and bool(re.match(right[1], got[1], re.S))
    return got == right


class Backend(threading.Thread):
    """One backend at work, with the account of what it did."""

    def __init__(self, soak, number):
        super().__init__(daemon=True, name=f"backend {number}")
        self.soak, self.rng, self.counts, self.memory = soak, Random(number), Counter(), []
        self.db = Database(soak.cluster, soak.port)
        self.db.run("SET search_path = soak")
        self.problem, self.sockets = "hangs", 99

    def run(self):
        try:
            for query in QUERIES:  # each once, so that the memory of all is there
                self.ask(query)
            while time.monotonic() < self.soak.deadline and not self.soak.stop.is_set():
                if not self.memory and time.monotonic() >= self.soak.level_at:
                    self.memory, self.sockets = [memory(self.db.pid)], sockets(self.db.pid)
                self.ask(self.rng.choice(QUERIES))
            self.memory.append(memory(self.db.pid))
            self.problem = None
        except BaseException as error:  # whatever it is, the run has failed
            self.problem = f"{type(error).__name__}: {str(error)[:1000]}"
            self.soak.stop.set()

    def ask(self, query):
        """Asks, and accepts what is right or what an outage explains."""
        started = time.monotonic()
        for got, right in query(self.db, self.rng):
            outage = not is_right(got, right)
            self.counts["outage" if outage else query.__name__] += 1
            assert not outage or is_right(got, OUTAGE) and self.soak.back >= started, (query.__name__, got, right)
            time.sleep(0.05 * outage)  # refusals come fast

    def problems(self):
        """What it met, or has left behind."""
        growth = self.memory[-1] - self.memory[0] if self.memory else 0
        found = {self.problem: self.problem, f"has grown by {growth} KiB": growth > GROWTH,
                 "saw no outage": not self.counts["outage"],
                 "has a connection to the search server": sockets(self.db.pid) > self.sockets}
        return [f"{self.name} {problem}" for problem, is_so in found.items() if is_so]


class Soak:
    """One run of so many minutes on a cluster."""

    def __init__(self, cluster, minutes):
        self.cluster, self.seconds, self.port, self.backends = cluster, minutes * 60, 0, []
        self.stop = threading.Event()

    @contextmanager
    def searching(self):
        """Runs a search server with the documents, on the same port as before; it dies in the midst of its work."""
        search = SearchServer(port=self.port)
        search.journal = deque(maxlen=0)  # that of hours would be the largest part of the process
        search.put_many("library", DOCUMENTS.items())
        with search:
            self.port, self.back = search.port, time.monotonic()
            yield search
            self.back = math.inf  # the time at which it was back last

    def run(self):
        """Runs and returns the problems that there were, best none."""
        started = time.monotonic()
        self.deadline = started + self.seconds - SCROLL_SECONDS - 1
        self.level_at = started + min(60, self.seconds / 5)
        for part in (1, 2):
            with self.searching():
                if part == 1:
                    self.begin()
                self.stop.wait(started + part * self.seconds / 3 - time.monotonic())
            time.sleep(DOWN_SECONDS)
        with self.searching() as search:
            for backend in self.backends:
                backend.join(max(0, self.deadline - time.monotonic()) + PATIENCE)
            time.sleep(SCROLL_SECONDS + 0.5)
            left = search.open_scrolls()
        return [problem for backend in self.backends for problem in backend.problems()] or (
            [f"{left} scroll contexts are left over"] if left else [])

    def begin(self):
        """Makes the tables and starts the backends."""
        admin = Database(self.cluster, self.port)
        admin.run("CREATE SCHEMA soak; SET search_path = soak")
        for name, options in TABLES.items():
            admin.make_table(name, **{"indexlist": "library", "batchsize": "100", "fullerrormsg": "true", **options})
        self.backends = [Backend(self, number) for number in range(BACKENDS)]
        for backend in self.backends:
            backend.start()
