"""Makes of what the measuring programs printed one table of ratios and their targets, and a chart.

report.py FILE... [--markdown FILE] [--chart FILE]     the files hold JSON lines; "-" is standard input,
                                                       a later file's measures take the place of an earlier one's
"""

import argparse
import dataclasses
import json
import pathlib
import platform
import statistics
import sys

import chart

KINDS = ["300B", "2KB", "20KB", "dense", "fields"]
OURS, EXACT, USUAL_CHUNK, SMALL_CHUNK = "ours", "exact", 16384, 1024
CHUNK_NAMES = {0: "whole", USUAL_CHUNK: "16 KiB", SMALL_CHUNK: "1 KiB"}
WRAPPERS = ["classic", "search"]
DEFLATE_NAMES = {5: "level 5", -2: "level -2"}
SMALL_QUERIES = {"lookup": "look-up of one id", "search10": "search for 10 documents"}
FORMS = {"deflated": ("level 5", "deflate"), "raw": ("level -2", "own rows"), "jsonb": ("jsonb", "own cast")}


@dataclasses.dataclass
class Target:
    """What a figure must come to; `sign` is "≥" or "≤". `aim` is what would be better still."""

    sign: str
    limit: float
    aim: str = ""

    def met_by(self, value):
        return value >= self.limit if self.sign == "≥" else value <= self.limit

    def verdict(self, value):
        return "met" if self.met_by(value) else "**missed**"

    def __str__(self):
        return f"{self.sign} {self.limit:g}{self.aim and f', aim {self.aim}'}"


class Aim(Target):
    """What a figure is to come to, although it need not."""

    def verdict(self, value):
        return "reached" if self.met_by(value) else "not reached"

    def __str__(self):
        return f"aim {self.sign} {self.limit:g}"


@dataclasses.dataclass
class Row:
    """A line of the table. Without a target the figure is only told; `aim` is then all there is."""

    what: str
    kind: str
    value: float
    target: Target = None
    aim: str = ""
    unit: str = ""

    def cells(self):
        verdict = self.target.verdict(self.value) if self.target else ""
        target = str(self.target) if self.target else self.aim and f"aim {self.aim}"
        return [self.what, self.kind, f"{self.value:#.3g}{self.unit}", target, verdict]


def read_lines(names):
    """The measured values, by the name of the measure. What a file has of a measure takes the place of what one
    before it has. A line that is no JSON object is an error."""
    values = {}
    for name in names:
        text = sys.stdin.read() if name == "-" else pathlib.Path(name).read_text(encoding="utf-8")
        of_file = {}
        for line in filter(str.strip, text.splitlines()):
            value = json.loads(line)
            of_file.setdefault(value["measure"], []).append(value)
        values.update(of_file)
    return values


def kinds_of(values):
    """The kinds of documents that occur."""
    return [kind for kind in KINDS if any(value["kind"] == kind for value in values)]


class ReaderValues:
    """The speeds of the module's readers and of those that they are compared with."""

    TARGETS = {
        ("simdjson DOM", "300B"): Target("≥", 0.6),
        ("simdjson DOM", "2KB"): Target("≥", 1.0),
        ("simdjson DOM", "20KB"): Target("≥", 1.0),
        ("simdjson DOM", "dense"): Target("≥", 1.0),
        ("RapidJSON SAX", "2KB"): Target("≥", 4.0),
        ("RapidJSON SAX", "20KB"): Target("≥", 4.0),
    }
    AIMS = {"simdjson On-Demand": "1"}
    SMALL_CHUNK_TARGET = Target("≥", 0.9)
    EXACT_TARGET = Target("≥", 1.0)

    def __init__(self, values):
        self.values = values
        self.kinds = kinds_of(values)
        self.contestants = list(dict.fromkeys((value["contestant"], value["chunk"]) for value in values))

    def find(self, kind, contestant, chunk):
        return next((value for value in self.values if value["kind"] == kind and
                     value["contestant"] == contestant and value["chunk"] == chunk), None)

    def ratio(self, kind, one, other):
        """How often as fast one contestant is as another, each given by name and chunk; None if unknown.

        It is the middle of the ratios that the rounds give: what slows down a round slows down both.
        """
        first, second = self.find(kind, *one), self.find(kind, *other)
        if not first or not second:
            return None
        return statistics.median(a / b for a, b in zip(first["rounds"], second["rounds"]))

    def rivals(self):
        return [(name, chunk) for name, chunk in self.contestants if not name.startswith((OURS, EXACT))]

    def rows(self):
        ours, small = (OURS, USUAL_CHUNK), (OURS, SMALL_CHUNK)
        judged = {name for name, _ in self.TARGETS}
        for name, chunk in sorted(self.rivals(), key=lambda rival: rival[0] not in judged):
            for kind in self.kinds:
                ratio = self.ratio(kind, ours, (name, chunk))
                if ratio:
                    yield Row(f"reader / {name}", kind, ratio, self.TARGETS.get((name, kind)),
                              self.AIMS.get(name, ""))
        for what, one, target in [("reader, 1 KiB chunks / 16 KiB chunks", small, self.SMALL_CHUNK_TARGET),
                                  ("exact reader / reader", (EXACT, USUAL_CHUNK), self.EXACT_TARGET)]:
            for kind in self.kinds:
                ratio = self.ratio(kind, one, ours)
                if ratio:
                    yield Row(what, kind, ratio, target)

    def speeds(self):
        """The header and the lines of a table of speeds."""
        yield ["MB/s", "chunks"] + self.kinds
        for name, chunk in self.contestants:
            found = [self.find(kind, name, chunk) for kind in self.kinds]
            yield [name, CHUNK_NAMES.get(chunk, str(chunk))] + [f"{value['MBps']:,.0f}" if value else ""
                                                               for value in found]


FIELDS, TEN_FIELDS = (EXACT, USUAL_CHUNK), (f"{EXACT}, ten fields", USUAL_CHUNK)


def field_rows(reader):
    """What ten fields of a source cost, and how the reader that finds them is beside others that do."""
    kind = "fields"
    ratio = reader.ratio(kind, FIELDS, TEN_FIELDS)
    if ratio:
        yield Row("exact reader's time, with ten fields / without", kind, ratio, aim="1.3")
    for name, chunk in reader.rivals():
        ratio = reader.ratio(kind, TEN_FIELDS if "ten fields" in name else FIELDS, (name, chunk))
        if ratio:
            yield Row(f"exact reader / {name}", kind, ratio, Target("≥", 1.0) if "ten fields" in name else None)


QUERY_TARGETS = {5: Target("≤", 1.10), -2: Target("≤", 2.0, "1.5")}


def named(value):
    """The name of a query, which tells the wrapper if it is not the classic one."""
    return value["statement"] + ", search wrapper" * (value["wrapper"] == "search")


def query_rows(values):
    for value in values:
        yield Row(f"{named(value)}, {DEFLATE_NAMES[value['level']]} / its floor", value["kind"],
                  value["ratio"], QUERY_TARGETS[value["level"]])


def query_table(values):
    parts = list(dict.fromkeys(part for value in values for part in value["floor"]))
    yield ["seconds", "documents", "deflate", "count", "query", *(f"floor: {part}" for part in parts)]
    for value in values:
        seconds = [value["seconds"], *map(value["floor"].get, parts)]
        yield [named(value), value["kind"], DEFLATE_NAMES[value["level"]], f"{value['documents']:,}",
               *(f"{part:.3f}" for part in seconds)]


AHEAD_AIM = Aim("≤", 1.10)


def ahead_floor(value):
    return max(value["read"], value["work"])


def ahead_rows(values):
    """An aim where the search server takes its time; where it takes none there is nearly nothing to gain."""
    for value in values:
        delay = value["document_microseconds"]
        server = f"{delay} µs a document" if delay else "a quick server"
        yield Row(f"count, {FORMS[value['form']][0]}, {server} / the longer of read and work", value["kind"],
                  value["ahead"] / ahead_floor(value), AHEAD_AIM if delay else None)


def ahead_table(values):
    yield ["seconds", "documents", "µs a document", "read", "work", "pages ahead", "one by one",
           "ahead / floor", "one by one / floor"]
    for value in values:
        form, work = FORMS[value["form"]]
        floor = ahead_floor(value)
        yield [f"count, {form}", f"{value['documents']:,}", str(value["document_microseconds"]),
               f"{value['read']:.3f}", f"{work} {value['work']:.3f}", f"{value['ahead']:.3f}",
               f"{value['stepwise']:.3f}", f"{value['ahead'] / floor:.2f}", f"{value['stepwise'] / floor:.2f}"]


def ahead_remark(values):
    """What is to be said where the aim is not reached; empty if it is."""
    missed = [f"{FORMS[value['form']][0]} ({value['ahead'] / ahead_floor(value):.2f})" for value in values
              if value["document_microseconds"] and not AHEAD_AIM.met_by(value["ahead"] / ahead_floor(value))]
    if not missed:
        return ""
    return (f"Not within {AHEAD_AIM.limit:.2f} of the floor: {', '.join(missed)}.\nNothing goes on beside the first "
            "page, the reading of the second and the work on the last, and what it takes to\nreceive is the "
            "backend's own time.\n")


def column_rows(values):
    """What both take above the fetch of the same responses."""
    for value in values:
        columns, jsonb = (value[name] - value["fetch"] for name in ("columns", "jsonb"))
        yield Row("ten fields as columns / out of jsonb", "fields", columns / jsonb, Target("≤", 0.25))


def column_table(values):
    yield ["seconds", "documents", "ids alone", "ten columns", "ten out of jsonb", "floor: fetch"]
    for value in values:
        seconds = [f"{value[name]:.3f}" for name in ("ids", "columns", "jsonb", "fetch")]
        yield ["query", f"{value['documents']:,}"] + seconds


def small_name(value):
    return (f"{SMALL_QUERIES[value['query']]}, " + "search wrapper, " * (value["wrapper"] == "search") +
            DEFLATE_NAMES[value["level"]] + ", jit" * value["jit"])


SMALL_TARGETS = {"classic": Target("≤", 0.3), "search": Aim("≤", 0.1)}


def small_floor(value):
    """The request, on a new connection or on one that is kept as the wrapper does, and the deflating."""
    request = value["plain_reused_milliseconds" if value["wrapper"] == "search" else "plain_milliseconds"]
    return request, value["deflate_milliseconds"]


def small_rows(values):
    for value in values:
        yield Row(f"{small_name(value)} - its floor", "", value["milliseconds"] - sum(small_floor(value)),
                  None if value["jit"] else SMALL_TARGETS[value["wrapper"]], unit=" ms")


def small_table(values):
    yield ["milliseconds", "query", "floor: request", "floor: deflate", "SELECT 1"]
    for value in values:
        times = (value["milliseconds"], *small_floor(value), value["nothing_milliseconds"])
        yield [small_name(value)] + [f"{time:.3f}" for time in times]


def contents_rows(values):
    """The target is that of inflating; jsonb has to be parsed on top, and raw text needs no inflating."""
    for value in values:
        if value["form"] == "compressed":
            target = Target("≤", 1.2) if value["function"] == "text" else None
            yield Row(f"veltranepgfdw_{value['function']} / its floor", value["kind"], value["ratio"], target)


def contents_table(values):
    yield ["seconds", "contents", "documents", "values", "function", "floor", "of which"]
    for value in values:
        parts = ", ".join(f"{part} {time:.3f}" for part, time in value["floor"].items())
        yield [f"veltranepgfdw_{value['function']}", value["form"], value["kind"], f"{value['values']:,}",
               f"{value['seconds']:.3f}", f"{sum(value['floor'].values()):.3f}", parts]


def growth_of(values, wrapper):
    """The values of a wrapper, from the smallest result to the largest."""
    return sorted((value for value in values if value["wrapper"] == wrapper), key=lambda value: value["documents"])


def growth_rows(values):
    """What larger results show of the search wrapper: whether a row takes longer, and whether memory grows.

    Of small ones the start of the query is too large a part, and some have no second page."""
    found = [value for value in growth_of(values, "search") if value["documents"] >= 10_000]
    if len(found) < 2:
        return
    first, last = found[0], found[-1]
    growth = last["documents"] / first["documents"]
    what = f"{last['documents']:,} documents / {first['documents']:,}, search wrapper"
    yield Row(f"time of a row, {what}", "2KB", last["seconds"] / first["seconds"] / growth, Aim("≤", 1.1))
    yield Row(f"peak memory, {what}", "2KB", last["peak_kB"] / first["peak_kB"], Aim("≤", 1.1))


def growth_table(values):
    yield ["wrapper", "documents", "seconds", "µs a row", "peak memory, MB"]
    for value in (value for wrapper in WRAPPERS for value in growth_of(values, wrapper)):
        yield [value["wrapper"], f"{value['documents']:,}", f"{value['seconds']:.3f}",
               f"{value['seconds'] / value['documents'] * 1e6:.2f}", f"{value['peak_kB'] / 1000:.1f}"]


def batch_table(values):
    yield ["documents", "batch size", "µs a row", "bare fetch, µs a row", "peak memory, MB"]
    for value in values:
        yield [value["kind"], f"{value['batch']:,}", f"{value['microseconds_per_row']:.2f}",
               f"{value['fetch_microseconds_per_row']:.2f}", f"{value['peak_kB'] / 1000:.1f}"]


def markdown_table(lines):
    """A table whose first line is its header; nothing if there is no other."""
    header, *rest = lines
    if not rest:
        return ""
    widths = [max(map(len, column)) for column in zip(header, *rest)]

    def line(cells):
        return "| " + " | ".join(cell.ljust(width) for cell, width in zip(cells, widths)) + " |\n"

    return line(header) + line(["-" * width for width in widths]) + "".join(map(line, rest))


def ratio_table(rows):
    return markdown_table([["Measurement", "documents", "figure", "target", ""]] + [row.cells() for row in rows])


def processor():
    """The processor's name and how many of it there are."""
    names = [line.partition(":")[2].strip()
             for line in pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines()
             if line.startswith("model name")]
    return f"{len(names)} × {names[0]}" if names else platform.machine()


SECTIONS = {"reader": "the reader", "fields": "fields of sources", "query": "large results",
            "ahead": "pages ahead", "columns": "fields as columns", "small": "small queries", "growth": "growth",
            "batch": "batch sizes", "contents": "contents in SQL"}


def missing(values):
    """A sentence about what was not measured; empty if everything was."""
    names = [name for measure, name in SECTIONS.items() if measure not in values]
    return f"Not measured: {', '.join(names)}.\n" if names else ""


def versions(values):
    pairs = {name: version for value in values.get("versions", [])
             for name, version in value.items() if name != "measure"}
    return "".join(f", {name} {version}" for name, version in pairs.items())


def markdown(values, rows, chart_name):
    """The whole report."""
    reader = ReaderValues(values.get("reader", []))
    parts = [
        "# Measurements\n",
        "`scripts/bench.sh` makes this file and its chart anew. Only ratios are judged: both sides of each are "
        "measured on\nthe same machine, in turns.\n",
        f"Measured on {processor()}{versions(values)}.\n",
        missing(values),
        ratio_table(rows),
        f"![The ratios, and how time and memory grow]({chart_name})\n",
    ]
    if reader.values:
        parts += [
            "## The reader\n",
            "All contestants read the same responses from memory: 1,000 hits, or 100 of 20 KB. The module's reader "
            "takes them in\nchunks and copies every document, `exact` is that of the search wrapper, which keeps the "
            "text. The others have an\nadvantage: they are given the whole response in one piece; RapidJSON's "
            "handler does nothing, and simdjson's tree is\nnot looked at. All are compiled with `-O2` for any "
            "processor of this family; the module's readers and simdjson choose\nfaster instructions when they "
            "run, RapidJSON has to be compiled for them. `byte by byte` is the plain reader that\njudges the "
            "module's in the unit tests. A ratio is the median over the rounds; so is a speed.\n",
            markdown_table(reader.speeds()),
        ]
    fields = ReaderValues(values.get("fields", []))
    if fields.values:
        parts += [
            "## Fields of sources\n",
            "The same of documents of 24 members, of which ten fields are wanted: one is in an object, one is an "
            "array. Each\nreader takes the whole source too, and the values as they stand. simdjson is asked for "
            "one name after the\nother, or goes through the members.\n",
            markdown_table(fields.speeds()),
        ]
    if values.get("query"):
        parts += [
            "## Large results\n",
            "The floor of a query is what its work must cost without the module: fetch the responses, deflate the "
            "contents, and\nreturn as many rows of the same size from a local table. Like the classic wrapper, its "
            "fetch makes a new connection\nfor each page; that of the search wrapper's floor keeps one, as that "
            "wrapper does.\n",
            markdown_table(query_table(values["query"])),
        ]
    if values.get("ahead"):
        parts += [
            "## Pages ahead\n",
            "The search wrapper asks for a page while the one before becomes rows. The floor of a scan of many pages "
            "is then the\nlonger of two things: to read all pages, which a bare client does on one connection, and "
            "the work on them. That is\nto deflate (level 5), and else what the server needs for as many rows of "
            "its own, as `bytea` (level -2) or cast from\ntext (`jsonb`). Pages one by one are those of "
            "`pageahead 'false'`, where both add up. The page server keeps a response\nback for so many µs for each "
            "document in it, as a cluster does that has to find them; where it does not, to read\ncosts next to "
            "nothing, and there is next to nothing to gain.\n",
            markdown_table(ahead_table(values["ahead"])),
            ahead_remark(values["ahead"]),
        ]
    if values.get("columns"):
        parts += ["## Fields as columns\n",
                  "Ten fields of the documents of 24 members, counted as typed columns of the search wrapper, and "
                  "out of `doccontent`\nas `jsonb` by ten operators. All responses hold the whole sources, and no "
                  "page is asked for ahead.\n",
                  markdown_table(column_table(values["columns"]))]
    if values.get("small"):
        parts += ["## Small queries\n",
                  "The floor of the search wrapper is a bare request on a connection that is kept, as its own is; "
                  "that of the classic\nwrapper one on a new connection. No floor holds what a `SELECT 1` takes, the "
                  "statement's way to the PostgreSQL\nserver and back. `jit` tells what it costs to compile "
                  "expressions.\n",
                  markdown_table(small_table(values["small"]))]
    if values.get("growth"):
        parts += ["## Growth\n",
                  "How time and the backend's memory grow with the result. The search wrapper has two pages of it at "
                  "most, of 1,000\ndocuments here, the classic wrapper one.\n",
                  markdown_table(growth_table(values["growth"]))]
    if values.get("batch"):
        parts += ["## Batch sizes\n", markdown_table(batch_table(values["batch"]))]
    if values.get("contents"):
        parts += ["## Contents in SQL\n",
                  "What the functions take, without the scan of the local table. Their floor is a program that "
                  "inflates into one\nbuffer, for jsonb with the server's cast of the same texts; for raw contents "
                  "the server's own `convert_from` or cast.\n",
                  markdown_table(contents_table(values["contents"]))]
    return "\n".join(filter(None, parts))


def bar_panels(values):
    """The ratios as groups of bars: of the reader, then of the queries."""
    reader = ReaderValues(values.get("reader", []))
    for what, name in [("reader", OURS), ("exact reader", EXACT)] if reader.values else []:
        yield chart.bars(f"The {what}'s speed against others (1 = as fast; higher is better)", {
            kind: {rival: reader.ratio(kind, (name, USUAL_CHUNK), (rival, chunk))
                   for rival, chunk in reader.rivals() if rival.startswith(("simdjson", "RapidJSON"))}
            for kind in reader.kinds})
    queries = values.get("query", [])
    if queries:
        for wrapper in WRAPPERS:
            title = f"The {wrapper} wrapper's queries against their floor (1 = nothing on top; lower is better)"
            yield chart.bars(title, {
                kind: {f"{value['statement']}, {DEFLATE_NAMES[value['level']]}": value["ratio"]
                       for value in queries if value["kind"] == kind and value["wrapper"] == wrapper}
                for kind in kinds_of(queries)})
    waiting = [value for value in values.get("ahead", []) if value["document_microseconds"]]
    if waiting:
        yield chart.bars("Time of a query against the longer of read and work (1 = all of one is beside the other)", {
            FORMS[value["form"]][0]: {"pages ahead": value["ahead"] / ahead_floor(value),
                                      "one by one": value["stepwise"] / ahead_floor(value)}
            for value in waiting})


def line_panels(values):
    """Time and memory over what grows."""
    growth = values.get("growth", [])
    if growth:
        curves = {f"{wrapper} wrapper": growth_of(growth, wrapper) for wrapper in WRAPPERS}
        for title, member, unit in (("Seconds, by documents", "seconds", 1),
                                    ("The backend's peak memory in MB, by documents", "peak_kB", 1000)):
            yield chart.lines(title, {name: [(value["documents"], value[member] / unit) for value in curve]
                                      for name, curve in curves.items()})
    batches = values.get("batch", [])
    for kind in kinds_of(batches):
        of_kind = [value for value in batches if value["kind"] == kind]
        yield chart.lines(f"Microseconds a row of {kind}, by batch size", {
            "query": [(value["batch"], value["microseconds_per_row"]) for value in of_kind],
            "bare fetch": [(value["batch"], value["fetch_microseconds_per_row"]) for value in of_kind]})


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("files", nargs="+", metavar="FILE")
    parser.add_argument("--markdown", type=pathlib.Path, metavar="FILE")
    parser.add_argument("--chart", type=pathlib.Path, metavar="FILE")
    arguments = parser.parse_args()
    values = read_lines(arguments.files)
    rows = [*ReaderValues(values.get("reader", [])).rows(), *field_rows(ReaderValues(values.get("fields", []))),
            *query_rows(values.get("query", [])), *ahead_rows(values.get("ahead", [])),
            *column_rows(values.get("columns", [])), *small_rows(values.get("small", [])),
            *growth_rows(values.get("growth", [])), *contents_rows(values.get("contents", []))]
    print(ratio_table(rows) + missing(values), end="")
    if arguments.chart:
        arguments.chart.write_text(chart.page([*bar_panels(values), *line_panels(values)]), encoding="utf-8")
    if arguments.markdown:
        name = arguments.chart.name if arguments.chart else "measurements.svg"
        arguments.markdown.write_text(markdown(values, rows, name), encoding="utf-8")


if __name__ == "__main__":
    main()
