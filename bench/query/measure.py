"""Measures whole queries beside the floor that their work must cost; prints a JSON object a line.

The floor of a query is what its parts take at the least: a plain client that fetches the same responses, one
zlib stream that compresses the same contents, and the server that returns the same rows from its memory. All
of them run in turn, so that a ratio is one of times side by side.
"""
import argparse
import json
import signal
import sys
from collections import defaultdict
from contextlib import ExitStack
from statistics import median

from workbench import Backend, Programs, measuring_cluster

PAGE = 1000
KINDS = ("300B", "2KB", "20KB", "dense")
RAW = -2  # the compression level that leaves contents as they are
MATCH_ALL = """param = 'query={"match_all":{}}'"""
# The fields that the measure of the reader takes of such documents, too.
FIELDS = {"sku": "text", "title": "text", "author.name": "text", "year": "int", "publisher": "text",
          "price": "float8", "tags": "text[]", "active": "bool", "created": "timestamptz", "shelf": "text"}
# How contents come to rows: the column's type, and the table's options.
FORMS = {"deflated": ("bytea", {"compressionlevel": 5}), "raw": ("bytea", {"compressionlevel": RAW}),
         "jsonb": ("jsonb", {})}
# How pages come: options of the foreign server.
WAYS = {"ahead": {"pageahead": "true"}, "stepwise": {"pageahead": "false"}}
# How long a search server that plays a real cluster's part needs for a document, in microseconds.
DOCUMENT_TIME = 50
SEARCHED = "docname text, doccontent bytea"  # the columns of the search wrapper's table
COUNT = "SELECT count(doccontent) FROM {}"
COPY = "COPY (SELECT docname, doccontent FROM {}) TO '/dev/null'"


def say(text):
    print(text, file=sys.stderr, flush=True)


def show(measure, **figures):
    print(json.dumps({"measure": measure, **figures}), flush=True)


def in_turn(rounds, actions):
    """Runs the actions, which return seconds, round by round; returns the median of each by its name."""
    times = defaultdict(list)
    for _ in range(rounds):
        for name, action in actions.items():
            times[name].append(action())
    return {name: round(median(values), 6) for name, values in times.items()}


class Measuring:
    """The sections, on one cluster; `quick` measures less of everything."""

    def __init__(self, programs, cluster, quick):
        self.programs, self.cluster, self.quick = programs, cluster, quick
        self.rounds = 3 if quick else 7

    def backend(self, stack):
        """A fresh backend that has loaded the module and its libraries."""
        backend = Backend(self.cluster)
        stack.callback(backend.close)
        with self.programs.page_server() as port:
            backend.make_table("first", port, "300B-1", scroll=False)
            backend.run(f"{COUNT.format('first')} WHERE {MATCH_ALL}")
        return backend

    @staticmethod
    def make_tables(backend, port, index, level):
        """Makes a table of each wrapper; returns, by wrapper, what to select from for all documents."""
        backend.make_table("documents", port, index, batchsize=PAGE, compressionlevel=level)
        backend.make_search_table("searched", port, SEARCHED, indexlist=index, compressionlevel=level)
        return {"classic": f"documents WHERE {MATCH_ALL}", "search": "searched"}

    def query(self):
        """Long scans: all rows counted, and all rows copied."""
        for kind in KINDS:
            for level in (5, RAW):
                documents = 20_000 if kind == "20KB" and level != RAW else 100_000
                with self.programs.page_server() as port, ExitStack() as stack:
                    self.query_of(kind, level, documents // 10 if self.quick else documents, port, stack)

    def query_of(self, kind, level, documents, port, stack):
        # What a backend has done before changes what its memory costs, so the one that is measured does nothing
        # else, and another one has the local table.
        backend, local = self.backend(stack), self.backend(stack)
        index = f"{kind}-{documents}"
        say(f"query: {index} at level {level}")
        fetch = (port, index, documents, PAGE)
        sources = self.make_tables(backend, port, index, level)
        local.make_local_table("rows_at_hand", SEARCHED,
                               f"SELECT docname, doccontent FROM {sources['classic']}")
        expected = [(documents, self.programs.run("deflateFloor", kind, documents, level)["bytes"])]
        for session, table in (*((backend, source) for source in sources.values()), (local, "rows_at_hand")):
            found = session.run(f"SELECT count(*), sum(length(doccontent)) FROM {table}")
            if found != expected:
                raise RuntimeError(f"{index} at level {level}: {found} in {table}, {expected} expected")

        parts = {"fetch": lambda: self.programs.fetch_seconds(*fetch),
                 "fetch_reused": lambda: self.programs.fetch_seconds(*fetch, reuse=True),
                 "deflate": lambda: self.programs.run("deflateFloor", kind, documents, level)["seconds"]}
        for name, statement in (("count", COUNT), ("copy", COPY)):
            for wrapper, source in sources.items():
                parts[name, wrapper] = lambda text=statement.format(source): backend.seconds(text)
            parts[name, "rows"] = lambda text=statement.format("rows_at_hand"): local.seconds(text)
        times = in_turn(self.rounds, parts)
        local.run("DROP TABLE rows_at_hand")
        for name in ("count", "copy"):
            # Each wrapper's floor uses connections as it does.
            for wrapper, fetch in (("classic", "fetch"), ("search", "fetch_reused")):
                floor = {"fetch": times[fetch], "deflate": times["deflate"], "rows": times[name, "rows"]}
                seconds = times[name, wrapper]
                show("query", statement=name, wrapper=wrapper, kind=kind, level=level, documents=documents,
                     seconds=seconds, floor=floor, ratio=round(seconds / sum(floor.values()), 3))

    def ahead(self):
        """Pages that are asked for while the one before is worked on beside pages one after the other, from a search
        server that needs no time and from one that does."""
        documents = 10_000 if self.quick else 100_000
        index = f"2KB-{documents}"
        for delay in (0, DOCUMENT_TIME):
            say(f"ahead: {index}, {delay} µs a document")
            with self.programs.page_server(delay) as port, ExitStack() as stack:
                backend, local = self.backend(stack), self.backend(stack)
                for form, (column, options) in FORMS.items():
                    for way, server in WAYS.items():
                        backend.make_search_table(f"{form}_{way}", port, f"doccontent {column}", server,
                                                  indexlist=index, **options)
                local.make_local_table("contents", "doccontent bytea", "SELECT doccontent FROM raw_ahead")
                local.make_local_table("texts", "doccontent text",
                                       "SELECT convert_from(doccontent, 'UTF8') FROM contents")
                if not delay:
                    self.check_forms(documents, local)
                self.ahead_of(documents, delay, port, (backend, local))
                local.run("DROP TABLE contents, texts")

    def check_forms(self, documents, session):
        """What is measured must be right."""
        length = "SELECT sum(length(doccontent{})) FROM {}"
        sizes = {form: [(self.programs.run("deflateFloor", "2KB", documents, level)["bytes"],)]
                 for form, level in (("deflated", 5), ("raw", RAW))}
        sizes["jsonb"] = session.run(length.format("::jsonb::text", "texts"))
        for form, size in sizes.items():
            for way in WAYS:
                found = session.run(length.format("::text" if form == "jsonb" else "", f"{form}_{way}"))
                if found != size:
                    raise RuntimeError(f"{found} bytes of {documents} documents, {form} {way}, {size} expected")

    def ahead_of(self, documents, delay, port, sessions):
        backend, local = sessions
        actions = {
            "read": lambda: self.programs.fetch_seconds(port, f"2KB-{documents}", documents, PAGE, reuse=True),
            # The work on each form
            "deflated": lambda: self.programs.run("deflateFloor", "2KB", documents, 5)["seconds"],
            "raw": lambda: local.seconds(COUNT.format("contents")),
            "jsonb": lambda: local.seconds("SELECT count(doccontent::jsonb) FROM texts")}
        for table in (f"{form}_{way}" for form in FORMS for way in WAYS):
            actions[table] = lambda text=COUNT.format(table): backend.seconds(text)
        # A query that waits takes long, and each time as long.
        times = in_turn(3 if delay else self.rounds, actions)
        for form in FORMS:
            show("ahead", form=form, kind="2KB", documents=documents, document_microseconds=delay,
                 read=times["read"], work=times[form], **{way: times[f"{form}_{way}"] for way in WAYS})

    def small(self):
        """Small queries, prepared, in a warm backend; their floor is the request and the deflating."""
        kind, hits = "2KB", 10
        index = f"{kind}-{hits}"
        look_up = "docname = 'doc-00000000'"
        queries = {
            ("classic", "lookup"): (f"documents WHERE {look_up}", 1,
                                    '{"query":{"terms":{"_id":["doc-00000000"]}},"size":1}'),
            ("classic", "search10"): (f"documents WHERE {MATCH_ALL}", hits,
                                      f'{{"query":{{"match_all":{{}}}},"size":{hits}}}'),
            ("search", "lookup"): (f"searched WHERE {look_up}", 1,
                                   '{"query":{"ids":{"values":["doc-00000000"]}},"size":1}')}
        with self.programs.page_server() as port, ExitStack() as stack:
            backend = self.backend(stack)
            cases = [(5, False), (RAW, False)]
            if backend.has_jit():
                backend.run("SET jit = on")
                cases += [(RAW, True)] * backend.run("SELECT pg_jit_available()")[0][0]
            for (wrapper, name), (source, rows, body) in queries.items():
                for level, jit in cases:
                    say(f"small: {name}, {wrapper} wrapper, at level {level}{' with jit' * jit}")
                    repeats = 200 if jit or self.quick else 2000
                    backend.make_table("documents", port, index, scroll=False, batchsize=hits,
                                       compressionlevel=level)
                    backend.make_search_table("searched", port, SEARCHED, indexlist=index, compressionlevel=level)
                    # A later host, the socket's folder, takes the place of an earlier one.
                    session = f"{self.cluster.dsn} host={self.cluster.directory}"
                    if backend.has_jit():
                        session += f" options='-c jit={jit}'"
                    times = self.programs.run(
                        "smallQueries", session, f"SELECT docname, doccontent FROM {source}", rows,
                        f"http://127.0.0.1:{port}/{index}//_search", body, repeats)
                    deflate = self.programs.run("deflateFloor", kind, 10_000, level)["seconds"] / 10_000 * rows
                    show("small", query=name, wrapper=wrapper, kind=kind, level=level, **times,
                         deflate_milliseconds=round(deflate * 1000, 4), jit=jit)

    def columns(self):
        """Ten fields as typed columns, the same out of the whole source as jsonb, and rows that show neither."""
        documents = 10_000 if self.quick else 100_000
        index = f"fields-{documents}"
        say(f"columns: {index}")
        paths = {field: "{" + field.replace(".", ",") + "}" for field in FIELDS}
        statements = {"ids": "count(docname)", "columns": ", ".join(f'count("{field}")' for field in FIELDS),
                      "jsonb": ", ".join(f"count(doccontent#>>'{path}')" for path in paths.values())}
        with self.programs.page_server() as port, ExitStack() as stack:
            backend = self.backend(stack)
            # What is taken off, the fetch, must not have gone on beside the work.
            columns = "docname text, doccontent jsonb, " + ", ".join(f'"{field}" {FIELDS[field]}' for field in FIELDS)
            backend.make_search_table("fielded", port, columns, WAYS["stepwise"], indexlist=index)
            found = [backend.run(f"SELECT {statements[name]} FROM fielded") for name in ("columns", "jsonb")]
            if found[0] != found[1] or found[0][0][0] != documents:
                raise RuntimeError(f"{index}: {found}")
            actions = {name: lambda text=f"SELECT {what} FROM fielded": backend.seconds(text)
                       for name, what in statements.items()}
            actions["fetch"] = lambda: self.programs.fetch_seconds(port, index, documents, PAGE, reuse=True)
            times = in_turn(self.rounds, actions)
            show("columns", documents=documents, **times)

    def growth(self):
        """Time and memory as the result grows."""
        with self.programs.page_server() as port:
            for documents in [10**power for power in range(3, 6 if self.quick else 7)]:
                index = f"2KB-{documents}"
                say(f"growth: {index}")
                self.programs.fetch_seconds(port, index, documents, PAGE)  # has the pages rendered
                for wrapper in ("classic", "search"):
                    runs = [self.growth_of(port, index, wrapper) for _ in range(3)]
                    seconds, peak, anonymous = (median(values) for values in zip(*runs))
                    show("growth", wrapper=wrapper, documents=documents, seconds=round(seconds, 6), peak_kB=peak,
                         rss_anon_kB=anonymous)

    def growth_of(self, port, index, wrapper):
        with ExitStack() as stack:
            backend = self.backend(stack)
            source = self.make_tables(backend, port, index, RAW)[wrapper]
            seconds = backend.seconds(COUNT.format(source))
            return seconds, backend.memory("VmHWM"), backend.memory("RssAnon")

    def batch(self):
        """The time of a row and the memory by the size of a page."""
        for kind in ("300B", "2KB"):
            for size in (10, 100, 1000, 10_000):
                documents = min(10_000 if self.quick else 100_000, 2000 * size)
                index = f"{kind}-{documents}"
                say(f"batch: {index}, {size} a page")
                with self.programs.page_server() as port, ExitStack() as stack:
                    fetch = (port, index, documents, size)
                    backend = self.backend(stack)
                    backend.make_table("documents", port, index, batchsize=size, compressionlevel=RAW)
                    self.programs.fetch_seconds(*fetch)  # has the pages rendered
                    times = in_turn(self.rounds, {
                        "query": lambda: backend.seconds(f"{COUNT.format('documents')} WHERE {MATCH_ALL}"),
                        "fetch": lambda: self.programs.fetch_seconds(*fetch)})
                    show("batch", kind=kind, batch=size, documents=documents,
                         microseconds_per_row=round(times["query"] / documents * 1e6, 3),
                         fetch_microseconds_per_row=round(times["fetch"] / documents * 1e6, 3),
                         peak_kB=backend.memory("VmHWM"))


def main():
    sections = ("query", "ahead", "columns", "small", "growth", "batch")
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, metavar="DIR", help="a build with the module and bench/")
    parser.add_argument("--quick", action="store_true", help="fewer documents and rounds")
    parser.add_argument("--only", choices=sections, metavar="SECTION", help=f"one of {', '.join(sections)}")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # the cluster must not stay behind
    programs = Programs(options.build)
    with measuring_cluster(programs.module) as cluster:
        measuring = Measuring(programs, cluster, options.quick)
        for section in [options.only] if options.only else sections:
            getattr(measuring, section)()


if __name__ == "__main__":
    main()
