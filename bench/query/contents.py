"""Measures the SQL functions that make contents readable beside the floor that their work must cost; prints a JSON
object a line.

The floor of a compressed text is one inflate state that decompresses the same values into one buffer; on top of that,
the floor of jsonb is the server's own cast of the same texts. What the functions take is the time of a statement over
a local table minus that of one that reads the same values. Raw texts are compared with convert_from.
"""
import argparse
import signal
import sys

from measure import MATCH_ALL, PAGE, RAW, in_turn, say, show
from workbench import Backend, Programs, measuring_cluster

KINDS = ("300B", "2KB", "20KB")
LEVEL = 5

# The cheapest function that wants the whole value, also where it lies out of line.
READ_BYTES, READ_TEXT = "get_byte(value, 0)", "ascii(value)"


class Measuring:
    def __init__(self, programs, cluster, quick):
        self.programs = programs
        self.rounds, self.most = (3, 10_000) if quick else (7, 100_000)
        self.backend = Backend(cluster)

    def fill(self, kind, documents):
        """Makes the tables of one kind of documents: compressed, raw and text."""
        index = f"{kind}-{documents}"
        for table, what in (("compressed", "bytea"), ("raw", "bytea"), ("texts", "text")):
            self.backend.run(f"DROP TABLE IF EXISTS {table}")
            # Contents that fit into a page stay in it, where they cost the least.
            self.backend.run(f"CREATE UNLOGGED TABLE {table} (value {what}) WITH (toast_tuple_target = 8160)")
            self.backend.run(f"ALTER TABLE {table} ALTER COLUMN value SET STORAGE EXTERNAL")
        with self.programs.page_server() as port:
            for table, level in (("compressed", LEVEL), ("raw", RAW)):
                self.backend.make_table("documents", port, index, batchsize=PAGE, compressionlevel=level)
                self.backend.run(f"INSERT INTO {table} SELECT doccontent FROM documents WHERE {MATCH_ALL}")
        self.backend.run("INSERT INTO texts SELECT convert_from(value, 'UTF8') FROM raw")
        for table in ("compressed", "raw", "texts"):
            self.backend.run(f"VACUUM {table}")
        # What is measured must be right.
        cases = (("value", "texts"), ("veltranepgfdw_text(value)", "compressed"), ("veltranepgfdw_text(value)", "raw"))
        sizes = [self.backend.run(f"SELECT sum(octet_length({what})) FROM {table}") for what, table in cases]
        floor = self.programs.run("inflateFloor", kind, documents, LEVEL)["bytes"]
        if any(size != [(floor,)] for size in sizes):
            raise RuntimeError(f"{index}: {sizes} bytes, {floor} expected")

    def measure(self, kind):
        # All tables of a kind must find room in the server's memory.
        documents = min(self.most, 20_000) if kind == "20KB" else self.most
        say(f"contents: {kind}")
        self.fill(kind, documents)
        statements = {
            "compressed": ("compressed", READ_BYTES), "compressed text": ("compressed", "veltranepgfdw_text(value)"),
            "compressed jsonb": ("compressed", "veltranepgfdw_jsonb(value)"),
            "raw": ("raw", READ_BYTES), "raw text": ("raw", "veltranepgfdw_text(value)"),
            "raw jsonb": ("raw", "veltranepgfdw_jsonb(value)"),
            "raw convert_from": ("raw", "convert_from(value, 'UTF8')"),
            "texts": ("texts", READ_TEXT), "texts jsonb": ("texts", "value::jsonb")}
        actions = {name: lambda text=f"SELECT count({what}) FROM {table}": self.backend.seconds(text)
                   for name, (table, what) in statements.items()}
        actions["inflate"] = lambda: self.programs.run("inflateFloor", kind, documents, LEVEL)["seconds"]
        times = in_turn(self.rounds, actions)

        def above_scan(name):
            return times[name] - times[name.split()[0]]

        inflate, cast = times["inflate"], above_scan("texts jsonb")
        for form, function, floor in (("compressed", "text", {"inflate": inflate}),
                                      ("compressed", "jsonb", {"inflate": inflate, "cast": cast}),
                                      ("raw", "text", {"convert_from": above_scan("raw convert_from")}),
                                      ("raw", "jsonb", {"cast": cast})):
            seconds = above_scan(f"{form} {function}")
            show("contents", function=function, form=form, kind=kind, values=documents, scan=times[form],
                 seconds=round(seconds, 6), floor={part: round(time, 6) for part, time in floor.items()},
                 ratio=round(seconds / sum(floor.values()), 3))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, metavar="DIR", help="a build with the module and bench/")
    parser.add_argument("--quick", action="store_true", help="fewer documents and rounds")
    parser.add_argument("--only", choices=KINDS, metavar="KIND", help=f"one of {', '.join(KINDS)}")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # the cluster must not stay behind
    programs = Programs(options.build)
    with measuring_cluster(programs.module) as cluster:
        measuring = Measuring(programs, cluster, options.quick)
        for kind in [options.only] if options.only else KINDS:
            measuring.measure(kind)
        measuring.backend.close()


if __name__ == "__main__":
    main()
