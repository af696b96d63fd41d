"""Aggregations: figures of what a search found, and the way from their JSON to them."""

import math

from . import query
from .errors import ParseError, Refusal, SearchError, failed_query, illegal_on_shard
from .querybase import check_object, only_members

PARSERS = {}  # {name: class of an Aggregation}


class Run:
    """One run of the aggregations of a search: what they share while they work."""

    def __init__(self, dialect):
        self.dialect = dialect
        self.buckets = 0
        self.found = {}  # {(query, level): {place: score}}

    def matches(self, wanted, level):
        if (wanted, level) not in self.found:
            self.found[wanted, level] = wanted.evaluate(level)
        return self.found[wanted, level]

    def add_buckets(self, count):
        """Counts buckets; SearchError when a response has too many of them."""
        self.buckets += count
        limit = self.dialect.max_buckets
        if limit and self.buckets > limit:
            raise too_many_buckets(self.dialect, self.buckets)


def too_many_buckets(dialect, count):
    reason = (f"Trying to create too many buckets. Must be less than or equal to: [{dialect.max_buckets}] but was"
              f" [{count}]. This limit can be set by changing the [search.max_buckets] cluster level setting.")
    status = dialect.too_many_buckets
    cause = {"type": "too_many_buckets_exception", "reason": reason, "max_buckets": dialect.max_buckets}
    return SearchError(status, {"error": {"root_cause": [], "type": "search_phase_execution_exception", "reason": "",
                                          "phase": "fetch", "grouped": True, "failed_shards": [],
                                          "caused_by": cause}, "status": status})


class Aggregation:
    """One aggregation. A selection is what it works on: (level, places of documents) of each shard."""

    options = ()

    def __init__(self, body, path, dialect):
        only_members(path[-1], body, path, self.options)
        self.body = body
        self.name = body.get("field")
        self.children = {}
        self.set_up(body, path, dialect)

    def set_up(self, body, path, dialect):
        if "field" in self.options and not isinstance(self.name, str):
            raise ParseError(path, "Required one of fields [field, script], but none were specified. ")

    def check(self, level):
        """ShardFailure when a shard cannot serve the aggregation or one within it."""
        column = self.name and level.column(self.name)
        if column:
            column.field.check_column()
        for child in self.children.values():
            child.check(level)

    def result(self, selection, run):
        """The aggregation's figures as JSON."""
        raise NotImplementedError

    def bucket(self, selection, run, count=None):
        """The number of documents of a selection and the figures of the aggregations within this one."""
        total = sum(len(places) for _, places in selection) if count is None else count
        return {"doc_count": total, **{name: child.result(selection, run) for name, child in self.children.items()}}


def aggregation(name):
    """Enters a class as that of the aggregations of that name."""
    def entered(kind):
        PARSERS[name] = kind
        return kind
    return entered


def parse(body, path, dialect):
    """{name: Aggregation} of a JSON object."""
    found = {}
    check_object("aggregations", body, path)
    for name, given in body.items():
        place = (*path, name)
        check_object(name, given, place)
        kinds = [key for key in given if key not in ("aggs", "aggregations")]
        if len(kinds) != 1:
            raise ParseError(place, f"Expected one aggregation type in [{name}] but found {len(kinds)}")
        kind = kinds[0]
        if kind not in PARSERS:
            raise ParseError((*place, kind), f"Unknown aggregation type [{kind}]", unknown=kind)
        found[name] = PARSERS[kind](given[kind], (*place, kind), dialect)
        inner = next((key for key in ("aggs", "aggregations") if key in given), None)
        if inner and isinstance(found[name], Metric):
            raise ParseError((*place, inner), f"Aggregator [{name}] of type [{kind}] cannot accept sub-aggregations")
        found[name].children = parse(given[inner], (*place, inner), dialect) if inner else {}
    return found


def run(wanted, selection, dialect):
    """The figures of all aggregations as JSON."""
    running = Run(dialect)
    return {name: each.result(selection, running) for name, each in wanted.items()}


def check(wanted, level):
    """ShardFailure when a shard cannot serve the aggregations."""
    try:
        for each in wanted.values():
            each.check(level)
    except Refusal as refusal:
        raise failed_query(refusal)


class Metric(Aggregation):
    """Figures that come from the values of a field."""

    options = ("field", "missing", "precision_threshold")
    takes_words = False

    def check(self, level):
        super().check(level)
        column = level.column(self.name)
        if column and not self.takes_words and (column.field.terms or column.field.kind == "ip") and (
                column.field.kind != "boolean"):
            raise illegal_on_shard(f"Expected numeric type on field [{self.name}], but got [{column.field.kind}]")

    def columns(self, selection):
        return [(level.column(self.name), places) for level, places in selection if level.column(self.name)]

    def numbers(self, selection):
        """The values of the selection's documents as numbers."""
        found = [float(column.field.sort_value(key)) for column, places in self.columns(selection)
                 for place in places for key in column.sorted_keys(place)]
        if "missing" in self.body:
            found += [float(self.body["missing"])] * sum(
                place not in level.column(self.name).values if level.column(self.name) else True
                for level, places in selection for place in places)
        return found

    def result(self, selection, run):
        value = self.figure(self.numbers(selection))
        date = next((column.field for column, _ in self.columns(selection) if column.field.kind == "date"), None)
        shown = {"value_as_string": date.show(int(value))} if date and value is not None else {}
        return {"value": value, **shown}

    def figure(self, numbers):
        raise NotImplementedError


@aggregation("min")
class Min(Metric):
    def figure(self, numbers):
        return min(numbers, default=None)


@aggregation("max")
class Max(Metric):
    def figure(self, numbers):
        return max(numbers, default=None)


@aggregation("sum")
class Sum(Metric):
    def figure(self, numbers):
        return math.fsum(numbers)


@aggregation("avg")
class Avg(Metric):
    def figure(self, numbers):
        return math.fsum(numbers) / len(numbers) if numbers else None


@aggregation("stats")
class Stats(Metric):
    def result(self, selection, run):
        numbers = self.numbers(selection)
        return {"count": len(numbers), "min": Min.figure(self, numbers), "max": Max.figure(self, numbers),
                "avg": Avg.figure(self, numbers), "sum": math.fsum(numbers)}


@aggregation("value_count")
class ValueCount(Metric):
    takes_words = True

    def result(self, selection, run):
        return {"value": sum(len(column.sorted_keys(place)) for column, places in self.columns(selection)
                             for place in places)}


@aggregation("cardinality")
class Cardinality(Metric):
    takes_words = True

    def result(self, selection, run):
        return {"value": len({key for column, places in self.columns(selection) for place in places
                              for key in column.sorted_keys(place)})}


@aggregation("filter")
class Filter(Aggregation):
    """The documents that a query finds among those of the selection."""

    def __init__(self, body, path, dialect):
        self.query = query.parse(body, path, dialect)
        self.name, self.children = None, {}

    def check(self, level):
        self.query.evaluate(level)
        super().check(level)

    def result(self, selection, run):
        return self.bucket([(level, [place for place in places if place in run.matches(self.query, level)])
                            for level, places in selection], run)


@aggregation("missing")
class Missing(Aggregation):
    """The documents of the selection that have no value in a field."""

    options = ("field",)

    def result(self, selection, run):
        left = []
        for level, places in selection:
            column = level.column(self.name)
            left.append((level, [place for place in places if not column or place not in column.values]))
        return self.bucket(left, run)
