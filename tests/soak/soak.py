"""An endurance run: several backends ask and fail for a while; the search server dies under them twice."""
import re
import threading
import time
from collections import Counter, deque
from contextlib import contextmanager
from random import Random

import psycopg2

from conftest import Database, SearchServer, connections_to, diagnosis, memory
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


class Unexpected(Exception):
    """An answer or an error that is not the right one."""


class Session(Database):
    """A session of the run."""

    def __init__(self, cluster, port):
        super().__init__(cluster, port, jit=False)
        self.run("SET search_path = soak")

    @contextmanager
    def transaction(self):
        self.run("BEGIN")
        try:
            yield
            self.run("COMMIT")
        except psycopg2.Error:
            self.run("ROLLBACK")
            raise


class Backend(threading.Thread):
    """One backend at work, with the account of what it did."""

    def __init__(self, soak, number):
        super().__init__(daemon=True, name=f"backend {number}")
        self.soak = soak
        self.db = Session(soak.cluster, soak.port)
        self.rng = Random(number)
        self.done, self.outages = Counter(), Counter()
        self.before = self.after = None
        self.doing, self.problem = "", None

    def run(self):
        try:
            for kind in [*ANSWERED, *FAILING]:  # each once, so that the memory of all is there
                self.ask(kind)
            while time.monotonic() < self.soak.deadline and not self.soak.stop.is_set():
                if self.before is None and time.monotonic() >= self.soak.level_at:
                    self.before = memory(self.db.pid)
                self.ask(self.rng.choice(list(FAILING if self.rng.random() < 0.1 else ANSWERED)))
            self.after = memory(self.db.pid)
        except BaseException as error:  # whatever it is, the run has failed
            self.problem = f"{self.name}, {self.doing}: {type(error).__name__}: {str(error)[:1000]}"
            self.soak.stop.set()

    def ask(self, kind):
        self.doing, started = kind, time.monotonic()
        try:
            for got, right in (ANSWERED.get(kind) or FAILING[kind])(self.db, self.rng):
                if kind in ANSWERED and got != right:
                    raise Unexpected(f"wrong answer {str(got)[:300]}, right is {str(right)[:300]}")
                if kind in FAILING and (got[0] != right[0] or not re.match(right[1], got[1], re.S)):
                    self.excuse(started, *got)
                    return
        except psycopg2.Error as error:
            self.excuse(started, *diagnosis(error))
            return
        self.done[kind] += 1

    def excuse(self, started, state, message):
        """Accepts an error that an outage explains."""
        kinds = [kind for pattern, kind in OUTAGE.items() if state == "HV000" and re.match(pattern, message, re.S)]
        if not kinds or not self.soak.was_away(started):
            raise Unexpected(f"{state} {message}")
        self.outages[kinds[0]] += 1
        time.sleep(0.05)  # refusals come fast


class Soak:
    """One run of so many minutes on a cluster."""

    def __init__(self, cluster, minutes):
        self.cluster, self.seconds = cluster, minutes * 60
        self.port, self.scrolls_opened = 0, 0
        self.stop = threading.Event()
        self.backends, self.problems, self.outages = [], [], []  # an outage: [killed, back or None]

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
            yield search
            self.scrolls_opened += search.opened_scrolls

    def run(self):
        """Runs and returns the problems that there were, best none."""
        started = time.monotonic()
        self.deadline = started + self.seconds - SCROLL_SECONDS - 1
        self.level_at = started + min(60, self.seconds / 5)
        try:
            for part in (1, 2, 3):
                with self.searching() as search:
                    if part == 1:
                        self.begin()
                    else:
                        self.outages[-1][1] = time.monotonic()
                    if part < 3:
                        self.stop.wait(started + part * self.seconds / 3 - time.monotonic())
                    else:
                        for backend in self.backends:
                            backend.join(max(0, self.deadline - time.monotonic()) + PATIENCE)
                        self.judge(search)
                    self.outages += [[time.monotonic(), None]] * (part < 3)
                time.sleep(DOWN_SECONDS)
        finally:
            for backend in self.backends:
                if not backend.is_alive():
                    backend.db.connection.close()
            self.admin.run("DROP SCHEMA soak CASCADE")
            self.admin.connection.close()
        return self.problems

    def begin(self):
        """Makes the tables and starts the backends."""
        self.admin = Session(self.cluster, self.port)
        self.admin.run("CREATE SCHEMA soak")
        for name, options in TABLES.items():
            self.admin.make_table(name, **{"indexlist": "library", "batchsize": PAGE, "fullerrormsg": "true",
                                           **options})
        self.backends = [Backend(self, number) for number in range(BACKENDS)]
        for backend in self.backends:
            backend.start()

    def judge(self, search):
        """Looks for what the run has left behind."""
        self.problems = [f"{backend.name} hangs: {backend.doing}" if backend.is_alive() else backend.problem
                         for backend in self.backends if backend.is_alive() or backend.problem]
        if self.problems:
            return
        for backend in self.backends:
            if connections_to(backend.db.pid, self.port):
                self.problems.append(f"{backend.name} has a connection to the search server")
            if backend.after - backend.before > GROWTH:
                self.problems.append(f"{backend.name} has grown from {backend.before} to {backend.after} KiB")
            if not backend.outages:
                self.problems.append(f"{backend.name} saw no outage")
        time.sleep(SCROLL_SECONDS + 0.5)
        if search.open_scrolls():
            self.problems.append(f"{search.open_scrolls()} scroll contexts are left over")

    def summary(self):
        """The figures of the run, as text."""
        def listed(name, kinds):
            counts = sum((getattr(backend, name) for backend in self.backends), Counter())
            return ", ".join(f"{kind} {counts[kind]}" for kind in kinds if counts[kind])

        growth = ", ".join(f"{backend.before}->{backend.after}" for backend in self.backends)
        return "\n".join([
            "queries answered, every answer right: " + listed("done", ANSWERED),
            "failed or interrupted as they must: " + listed("done", FAILING),
            f"hit by {len(self.outages)} restarts of the search server: " + listed("outages", OUTAGE.values()),
            f"{self.scrolls_opened} scrolls opened, none left open",
            f"memory of each backend after {min(60, self.seconds / 5):.0f} s and at the end, in KiB, "
            f"at most {GROWTH} more: {growth}"])
