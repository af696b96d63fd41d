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
        backend.make_table("documents", port, index, batchsize=PAGE, compressionlevel=level)
        backend.make_search_table("searched", port, index, level)
        source = f"documents WHERE {MATCH_ALL}"
        # Contents that fit into a page stay in it, where they cost the least.
        local.run("CREATE UNLOGGED TABLE rows_at_hand (docname text, doccontent bytea) "
                  "WITH (toast_tuple_target = 8160)")
        local.run("ALTER TABLE rows_at_hand ALTER COLUMN doccontent SET STORAGE EXTERNAL")
        local.run(f"INSERT INTO rows_at_hand SELECT docname, doccontent FROM {source}")
        local.run("VACUUM rows_at_hand")
        expected = [(documents, self.programs.run("deflateFloor", kind, documents, level)["bytes"])]
        for session, table in ((backend, source), (backend, "searched"), (local, "rows_at_hand")):
            found = session.run(f"SELECT count(*), sum(length(doccontent)) FROM {table}")
            if found != expected:
                raise RuntimeError(f"{index} at level {level}: {found} in {table}, {expected} expected")

        parts = {"fetch": lambda: self.programs.fetch_seconds(*fetch),
                 "fetch_reused": lambda: self.programs.fetch_seconds(*fetch, reuse=True),
                 "deflate": lambda: self.programs.run("deflateFloor", kind, documents, level)["seconds"]}
        for name, statement in (("count", COUNT), ("copy", COPY)):
            parts[name] = lambda text=statement.format(source): backend.seconds(text)
            parts[f"{name}, search wrapper"] = lambda text=statement.format("searched"): backend.seconds(text)
            parts[f"{name} rows"] = lambda text=statement.format("rows_at_hand"): local.seconds(text)
        times = in_turn(self.rounds, parts)
        local.run("DROP TABLE rows_at_hand")
        for name in ("count", "count, search wrapper", "copy", "copy, search wrapper"):
            rows = times[f"{name.partition(',')[0]} rows"]
            floor = {"fetch": times["fetch"], "deflate": times["deflate"], "rows": rows}
            show("query", statement=name, kind=kind, level=level, documents=documents, seconds=times[name],
                 floor=floor, ratio=round(times[name] / sum(floor.values()), 3),
                 fetch_reused_connection=times["fetch_reused"])

    def small(self):
        """Small queries, prepared, in a warm backend; their floor is the request and the deflating."""
        kind, hits = "2KB", 10
        queries = {
            "lookup": ("docname = 'doc-00000000'", 1, '{"query":{"terms":{"_id":["doc-00000000"]}},"size":1}'),
            "search10": (MATCH_ALL, hits, f'{{"query":{{"match_all":{{}}}},"size":{hits}}}')}
        with self.programs.page_server() as port, ExitStack() as stack:
            backend = self.backend(stack)
            index = f"{kind}-{hits}"
            cases = [(5, False), (RAW, False)]
            if backend.has_jit():
                backend.run("SET jit = on")
                cases += [(RAW, True)] * backend.run("SELECT pg_jit_available()")[0][0]
            for name, (clause, rows, body) in queries.items():
                for level, jit in cases:
                    say(f"small: {name} at level {level}{' with jit' * jit}")
                    repeats = 200 if jit or self.quick else 2000
                    backend.make_table("documents", port, index, scroll=False, batchsize=hits,
                                       compressionlevel=level)
                    # A later host, the socket's folder, takes the place of an earlier one.
                    session = f"{self.cluster.dsn} host={self.cluster.directory}"
                    if backend.has_jit():
                        session += f" options='-c jit={jit}'"
                    times = self.programs.run(
                        "smallQueries", session,
                        f"SELECT docname, doccontent FROM documents WHERE {clause}", rows,
                        f"http://127.0.0.1:{port}/{index}//_search", body, repeats)
                    deflate = self.programs.run("deflateFloor", kind, 10_000, level)["seconds"] / 10_000 * rows
                    show("small", query=name, kind=kind, level=level, **times,
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
            backend.make_field_table("fielded", port, index, FIELDS)
            found = [backend.run(f"SELECT {statements[name]} FROM fielded") for name in ("columns", "jsonb")]
            if found[0] != found[1] or found[0][0][0] != documents:
                raise RuntimeError(f"{index}: {found}")
            actions = {name: lambda text=f"SELECT {what} FROM fielded": backend.seconds(text)
                       for name, what in statements.items()}
            actions["fetch"] = lambda: self.programs.fetch_seconds(port, index, documents, PAGE)
            times = in_turn(self.rounds, actions)
            show("columns", documents=documents, **times)

    def growth(self):
        """Time and memory as the result grows."""
        with self.programs.page_server() as port:
            for documents in [10**power for power in range(3, 6 if self.quick else 7)]:
                index = f"2KB-{documents}"
                say(f"growth: {index}")
                self.programs.fetch_seconds(port, index, documents, PAGE)  # has the pages rendered
                runs = [self.growth_of(port, index) for _ in range(3)]
                seconds, peak, anonymous = (median(values) for values in zip(*runs))
                show("growth", documents=documents, seconds=round(seconds, 6), peak_kB=peak, rss_anon_kB=anonymous)

    def growth_of(self, port, index):
        with ExitStack() as stack:
            backend = self.backend(stack)
            backend.make_table("documents", port, index, batchsize=PAGE, compressionlevel=RAW)
            seconds = backend.seconds(f"{COUNT.format('documents')} WHERE {MATCH_ALL}")
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
    sections = ("query", "columns", "small", "growth", "batch")
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
