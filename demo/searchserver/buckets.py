"""Aggregations that put documents into buckets: by the terms of a field, by intervals, by several of these."""

import itertools
import math
import re

from . import dates
from .aggregations import Aggregation, aggregation, parse, too_many_buckets
from .errors import ParseError, Refusal, SearchError, illegal_argument, illegal_on_shard
from .querybase import check_object

UNITS = {"ms": 10 ** 6, "s": 10 ** 9, "m": 60 * 10 ** 9, "h": 3600 * 10 ** 9, "d": dates.DAY}
CALENDAR = {"minute": "m", "1m": "m", "hour": "h", "1h": "h", "day": "d", "1d": "d", "week": "w", "1w": "w",
            "month": "M", "1M": "M", "quarter": "q", "1q": "q", "year": "y", "1y": "y", "second": "s", "1s": "s"}


def one_type(fields):
    """SearchError when indices have the field in types that do not go together."""
    if len({field.terms for field in fields}) > 1:
        raise SearchError(500, {"error": {
            "root_cause": [], "type": "search_phase_execution_exception", "reason": "", "phase": "fetch",
            "grouped": True, "failed_shards": [], "caused_by": {
                "type": "aggregation_execution_exception",
                "reason": "Merging/Reducing the aggregations failed because the field you gave in the aggregation"
                          " query existed as two different types in two different indices"}}, "status": 500})


@aggregation("terms")
class Terms(Aggregation):
    """A bucket for each value of a field. Each shard tells its best buckets only, so counts may lack a part."""

    options = ("field", "size", "shard_size", "order", "min_doc_count", "missing")

    def set_up(self, body, path, dialect):
        super().set_up(body, path, dialect)
        self.size = int(body.get("size", 10))
        if body.get("min_doc_count") == 0:
            raise ParseError(path, "[min_doc_count] 0 is nothing that this server knows")
        if self.size <= 0:
            raise ParseError(path, f"[size] must be greater than 0. Found [{self.size}] in [{path[-2]}]")
        order = body.get("order", {"_count": "desc"})
        self.order = [item for each in (order if isinstance(order, list) else [order]) for item in each.items()]

    def check(self, level):
        super().check(level)
        for name, _ in self.order:
            if name not in ("_key", "_term", "_count") and name.partition(".")[0] not in self.children:
                raise illegal_on_shard(f"Invalid aggregator order path [{name}]. The provided aggregation [{name}]"
                                       " either does not exist, or is a pipeline aggregation and cannot be used to"
                                       " sort the buckets.")

    def groups(self, level, places):
        """{key: places} of one shard."""
        column, found = level.column(self.name), {}
        missing = [column.field.key(each) for each in column.field.stored(self.body["missing"])] if (
            "missing" in self.body and column) else []
        for place in places:
            for key in dict.fromkeys(column.sorted_keys(place) or missing) if column else ():
                found.setdefault(key, []).append(place)
        return found

    def rank(self, buckets):
        """Sorts (key, count, figures) tuples in the wanted order; equal ones by key."""
        buckets.sort(key=lambda bucket: bucket[0])
        for name, direction in reversed(self.order):
            def value(bucket):
                if name in ("_key", "_term", "_count"):
                    return bucket[name == "_count"]
                figure, _, part = name.partition(".")
                return bucket[2][figure].get(part or "value") or 0
            buckets.sort(key=value, reverse=direction == "desc")
        return buckets

    def result(self, selection, run):
        size_of_shard = max(self.size, int(self.body.get("shard_size", self.size * 1.5 + 10)))
        by_figure = any(name not in ("_key", "_term", "_count") for name, _ in self.order)
        merged, others, errors, fields = {}, 0, [], []
        for level, places in selection:
            found = self.groups(level, places)
            ranked = [(key, len(members), None) for key, members in found.items()]
            kept = ranked if by_figure else self.rank(ranked)[:size_of_shard]
            others += sum(count for _, count, _ in ranked[len(kept):])
            errors.append(self.most_missed(kept, size_of_shard))
            for key, _, _ in kept:
                merged.setdefault(key, []).append((level, found[key]))
            fields += [level.column(self.name).field] if found else []
        one_type(fields)
        least = int(self.body.get("min_doc_count", 1))
        buckets = [(key, sum(len(places) for _, places in part), self.figures(part, run) if by_figure else {})
                   for key, part in merged.items()]
        buckets = self.rank([bucket for bucket in buckets if bucket[1] >= least])
        others += sum(count for _, count, _ in buckets[self.size:])
        run.add_buckets(len(buckets[:self.size]))
        uncertain = 0 if len(errors) == 1 else -1 if -1 in errors else sum(errors)
        return {"doc_count_error_upper_bound": uncertain, "sum_other_doc_count": others,
                "buckets": [{**spelt(fields[0], key), **self.bucket(merged[key], run)}
                            for key, _, _ in buckets[:self.size]]}

    def most_missed(self, kept, size_of_shard):
        """Of how many documents of a term a shard that tells these buckets may say nothing; -1 for nobody knows."""
        if len(kept) < size_of_shard or self.order[0][0] in ("_key", "_term"):
            return 0
        return kept[-1][1] if self.order[0] == ("_count", "desc") else -1

    def figures(self, selection, run):
        return {name: child.result(selection, run) for name, child in self.children.items()}


def spelt(field, key):
    shown, text = field.show_key(key)
    return {"key": shown, **({"key_as_string": text} if text is not None else {})}


@aggregation("histogram")
class Histogram(Aggregation):
    """A bucket for each interval of numbers, those without documents among others as well."""

    options = ("field", "interval", "offset", "min_doc_count")

    def set_up(self, body, path, dialect):
        super().set_up(body, path, dialect)
        self.least = int(body.get("min_doc_count", 0))
        self.interval, self.offset = float(body["interval"]), float(body.get("offset", 0))
        if self.interval <= 0:
            raise ParseError(path, f"[interval] must be >0 for histogram aggregation [{path[-2]}]")

    def check(self, level):
        super().check(level)
        column = level.column(self.name)
        if column and (column.field.terms or column.field.kind == "ip") and column.field.kind != "boolean":
            raise illegal_on_shard(f"Expected numeric type on field [{self.name}], but got [{column.field.kind}]")

    def round(self, field, key):
        """The start of the interval that a key of the field lies in."""
        return math.floor((field.sort_value(key) - self.offset) / self.interval) * self.interval + self.offset

    def next(self, start):
        return start + self.interval

    def spell(self, start):
        return {"key": start}

    def groups(self, level, places):
        """{start: places} of one shard."""
        column, found = level.column(self.name), {}
        for place in places if column else ():
            for start in {self.round(column.field, key) for key in column.sorted_keys(place)}:
                found.setdefault(start, []).append(place)
        return found

    def result(self, selection, run):
        merged = {}
        for level, places in selection:
            for start, members in self.groups(level, places).items():
                merged.setdefault(start, []).append((level, members))
        starts = sorted(merged)
        if starts and not self.least:
            last, starts = starts[-1], starts[:1]
            while starts[-1] < last:
                starts.append(self.next(starts[-1]))
                run.add_buckets(1)
        shown = [start for start in starts if sum(len(places) for _, places in merged.get(start, ())) >= self.least]
        return {"buckets": [{**self.spell(start), **self.bucket(merged.get(start, []), run)} for start in shown]}


@aggregation("date_histogram")
class DateHistogram(Histogram):
    """A bucket for each interval of time."""

    options = ("field", "interval", "fixed_interval", "calendar_interval", "format", "min_doc_count")

    def set_up(self, body, path, dialect):
        Aggregation.set_up(self, body, path, dialect)
        self.least = int(body.get("min_doc_count", 0))
        self.format = body.get("format", dates.DEFAULT_FORMAT)
        dates.check(self.format)
        given = [key for key in ("interval", "fixed_interval", "calendar_interval") if key in body]
        if len(given) != 1 or given[0] not in dialect.date_intervals:
            raise ParseError(path, f"[date_histogram] takes one of {', '.join(dialect.date_intervals)}")
        text = body[given[0]]
        self.calendar = CALENDAR.get(text) if given[0] != "fixed_interval" else None
        span = re.fullmatch(r"(\d+)(ms|s|m|h|d)", text)
        if not self.calendar and (given[0] == "calendar_interval" or not span or int(span[1]) == 0):
            raise ParseError(path, f"The supplied interval [{text}] could not be parsed as a {given[0]}.")
        self.span = None if self.calendar else int(span[1]) * UNITS[span[2]]

    def round(self, field, key):
        time = key * field.unit
        start = dates.floor(time, self.calendar) if self.calendar else time - time % self.span
        return start // 10 ** 6

    def next(self, start):
        time = start * 10 ** 6
        moved = time + self.span if self.span else dates.move(
            time, 3 if self.calendar == "q" else 1, "M" if self.calendar == "q" else self.calendar)
        return moved // 10 ** 6

    def spell(self, start):
        return {"key_as_string": dates.write(start * 10 ** 6, self.format), "key": start}


class Source:
    """One of the values that the keys of a composite aggregation are made of."""

    def __init__(self, name, body, path, dialect):
        check_object(name, body, path)
        (kind, given), = body.items()
        check_object(kind, given, (*path, kind))
        if kind not in ("terms", "histogram", "date_histogram"):
            raise ParseError((*path, kind), f"invalid source type: {kind}")
        own = {key: value for key, value in given.items() if key not in ("order", "missing_bucket")}
        self.name, self.kind = name, kind
        self.format = own.get("format")
        self.descending = given.get("order", "asc") == "desc"
        self.takes_missing = given.get("missing_bucket") is True
        self.inner, = parse({name: {kind: own}}, path[:-1], dialect).values()

    def keys(self, column, place):
        """The keys of a document; none when it is to be left out."""
        found = column.sorted_keys(place) if column else []
        if self.kind != "terms":
            found = [self.inner.round(column.field, key) for key in found]
        return list(dict.fromkeys(found)) or ([None] if self.takes_missing else [])

    def show(self, field, key):
        if key is None:
            return None
        if self.kind != "terms":
            return dates.write(key * 10 ** 6, self.format) if self.format else key
        if field.kind == "boolean":
            return key == "T"
        return field.show(key) if field.kind == "ip" else field.show_key(key)[0]

    def read(self, field, value):
        """The key that "after" gives."""
        if value is None:
            return None
        if self.kind != "terms":
            return dates.parse(value, self.format) // 10 ** 6 if self.format else value
        try:
            stored = field.stored(value)
        except Refusal as refusal:
            raise illegal_argument(f"invalid value, got [{value}] in `after`: {refusal.reason}")
        return field.key(stored[0]) if stored else value

    def rank(self, key):
        return (key is not None, key)


@aggregation("composite")
class Composite(Aggregation):
    """Buckets by several values, page by page: `after` is the key of the last bucket that is known."""

    options = ("sources", "size", "after")

    def set_up(self, body, path, dialect):
        self.size, self.after = int(body.get("size", 10)), body.get("after")
        self.sources = []
        if self.after is not None:
            check_object("after", self.after, (*path, "after"))
        for number, each in enumerate(body.get("sources", [])):
            (name, given), = each.items()
            self.sources.append(Source(name, given, (*path, "sources", number, name), dialect))
        if not self.sources:
            raise ParseError(path, "Composite [sources] cannot be null or empty")
        if dialect.max_buckets and self.size > dialect.max_buckets:
            raise too_many_buckets(dialect, self.size)

    def check(self, level):
        super().check(level)
        for source in self.sources:
            source.inner.check(level)

    def fields(self, selection):
        """The field of each source, as the first shard that knows it has it."""
        return [next((level.column(source.inner.name).field for level, _ in selection
                      if level.column(source.inner.name)), None) for source in self.sources]

    def check_after(self):
        """SearchError for a key that is not of these sources."""
        if len(self.after) != len(self.sources):
            raise illegal_argument(f"[after] has {len(self.after)} value(s) but [sources] has {len(self.sources)}")
        for source in self.sources:
            if source.name not in self.after:
                raise illegal_argument(f"Missing value for [after.{source.name}]")

    def ordered(self, keys):
        keys = list(keys)
        for number in range(len(self.sources) - 1, -1, -1):
            source = self.sources[number]
            keys.sort(key=lambda key: source.rank(key[number]), reverse=source.descending)
        return keys

    def comes_after(self, key, bound):
        for source, mine, other in zip(self.sources, key, bound):
            if mine != other:
                return (source.rank(mine) < source.rank(other)) == source.descending
        return False

    def result(self, selection, run):
        merged, fields = {}, self.fields(selection)
        for level, places in selection:
            columns = [level.column(source.inner.name) for source in self.sources]
            found = {}
            for place in places:
                parts = [source.keys(column, place) for source, column in zip(self.sources, columns)]
                for key in itertools.product(*parts):
                    found.setdefault(key, []).append(place)
            for key, members in found.items():
                merged.setdefault(key, []).append((level, members))
        keys = merged
        if self.after is not None:
            self.check_after()
            bound = [source.read(field, self.after.get(source.name)) if field else None
                     for source, field in zip(self.sources, fields)]
            keys = [key for key in merged if self.comes_after(key, bound)]
        keys = self.ordered(keys)[:self.size]
        run.add_buckets(len(keys))
        shown = [{source.name: source.show(field, part) for source, field, part in zip(self.sources, fields, key)}
                 for key in keys]
        buckets = [{"key": key, **self.bucket(merged[each], run)} for key, each in zip(shown, keys)]
        return {**({"after_key": shown[-1]} if shown else {}), "buckets": buckets}
