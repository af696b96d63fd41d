"""An endurance run: several backends ask and fail for a while; the search server dies under them twice."""
import re
import threading
import time
from collections import Counter, deque
from contextlib import contextmanager
from random import Random

from conftest import Database, SearchServer, connections_to, memory
from workload import ANSWERED, EXPIRED, FAILING, NUMBERS, PAGE, SCROLL_SECONDS, TABLES, document, name_of

BACKENDS = 8
GROWTH = 2048  # KiB
DOWN_SECONDS = 0.7
PATIENCE = 30  # seconds that the last query of a backend may take

# What a query may say, with HV000, when the search server was away while it ran; nothing else.
OUTAGE = {
    r"Curl error \(7\)": "connection refused",
    r"Curl error \(5[56]\)": "connection broken",
    r"Curl error \(52\)": "no answer",
    r"Curl error \(18\)": "answer cut off",
    r"ElasticSearch error, query was '.*', error was '\{": "answer cut off after contents",  # which it quotes
    EXPIRED: "scroll gone",
}


def is_right(got, right):
    """Whether rows are the right ones, or an error has the right SQLSTATE and a message of the right pattern."""
    if isinstance(right, list) or isinstance(got, list):
        return got == right
    return got[0] == right[0] and bool(re.match(right[1], got[1], re.S))


class Backend(threading.Thread):
    """One backend at work, with the account of what it did."""

    def __init__(self, soak, number):
        super().__init__(daemon=True, name=f"backend {number}")
        self.soak, self.rng, self.counts, self.memory = soak, Random(number), Counter(), []
        self.db = Database(soak.cluster, soak.port)
        self.db.run("SET search_path = soak")
        self.doing, self.problem = "", None

    def run(self):
        try:
            for query in [*ANSWERED, *FAILING]:  # each once, so that the memory of all is there
                self.ask(query)
            while time.monotonic() < self.soak.deadline and not self.soak.stop.is_set():
                if not self.memory and time.monotonic() >= self.soak.level_at:
                    self.memory = [memory(self.db.pid)]
                self.ask(self.rng.choice(FAILING if self.rng.random() < 0.1 else ANSWERED))
            self.memory.append(memory(self.db.pid))
        except BaseException as error:  # whatever it is, the run has failed
            self.problem = f"{self.name}, {self.doing}: {type(error).__name__}: {str(error)[:1000]}"
            self.soak.stop.set()

    def ask(self, query):
        """Asks, and accepts what is right or what an outage explains."""
        self.doing, started = query.__name__, time.monotonic()
        for got, right in query(self.db, self.rng):
            kind = query.__name__
            if not is_right(got, right):
                kind = next((kind for pattern, kind in OUTAGE.items() if is_right(got, ("HV000", pattern))), None)
                assert kind and self.soak.was_away(started), f"{str(got)[:300]}, right is {str(right)[:300]}"
                time.sleep(0.05)  # refusals come fast
            self.counts[kind] += 1


class Soak:
    """One run of so many minutes on a cluster."""

    def __init__(self, cluster, minutes):
        self.cluster, self.seconds = cluster, minutes * 60
        self.port, self.scrolls_opened = 0, 0
        self.stop = threading.Event()
        self.backends, self.outages = [], []  # an outage: [killed, back or None]

    def was_away(self, since):
        """Whether the search server was away at some time since then."""
        return any(back is None or back >= since for _, back in self.outages)

    @contextmanager
    def searching(self):
        """Runs a search server with the documents, on the same port as before; it dies in the midst of its work."""
        with SearchServer(port=self.port) as search:
            search.journal = deque(maxlen=0)  # that of hours would be the largest part of the process
            search.put_many("library", ((name_of(number), document(number)) for number in NUMBERS))
            self.port = search.port
            for outage in self.outages[-1:]:
                outage[1] = time.monotonic()
            yield search
            self.scrolls_opened += search.opened_scrolls
            self.outages.append([time.monotonic(), None])

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
            problems = [problem for backend in self.backends for problem in self.problems_of(backend)]
            if search.open_scrolls() and not problems:
                problems.append(f"{search.open_scrolls()} scroll contexts are left over")
        if not problems:
            self.admin.run("DROP SCHEMA soak CASCADE")
        return problems

    def begin(self):
        """Makes the tables and starts the backends."""
        self.admin = Database(self.cluster, self.port)
        self.admin.run("CREATE SCHEMA soak; SET search_path = soak")
        for name, options in TABLES.items():
            self.admin.make_table(name, **{"indexlist": "library", "batchsize": PAGE, "fullerrormsg": "true", **options})
        self.backends = [Backend(self, number) for number in range(BACKENDS)]
        for backend in self.backends:
            backend.start()

    def problems_of(self, backend):
        """What a backend met, or has left behind."""
        if backend.is_alive() or backend.problem:
            yield backend.problem or f"{backend.name} hangs: {backend.doing}"
            return
        if connections_to(backend.db.pid, self.port):
            yield f"{backend.name} has a connection to the search server"
        if backend.memory[-1] - backend.memory[0] > GROWTH:
            yield f"{backend.name} has grown from {backend.memory[0]} to {backend.memory[-1]} KiB"
        if not set(backend.counts) & set(OUTAGE.values()):
            yield f"{backend.name} saw no outage"

    def summary(self):
        """The figures of the run, as text."""
        counts = sum((backend.counts for backend in self.backends), Counter())
        return (f"answers, each of them right, and what {len(self.outages) - 1} restarts of the search server broke: "
                f"{dict(counts)}\n{self.scrolls_opened} scrolls opened, none left open\nmemory of each backend at first "
                f"and at the end, in KiB, at most {GROWTH} more: {[backend.memory for backend in self.backends]}")
