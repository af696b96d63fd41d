"""One search: from the request's JSON body to the text of the answer."""

import functools
import time
from collections import namedtuple

from . import highlight, jsontext, query, source
from .analysis import is_number
from .errors import ParseError, ShardFailure, all_shards_failed, illegal_argument, invalid, parsing

MAX_WINDOW = 10000  # the furthest hit that a search may show, and the most hits of a page
MAX_KEEP_ALIVE = 86400  # seconds that a scroll context may live
COUNT_LIMIT = 10000  # hits are counted up to here unless the request asks for more
TOKENS = {dict: "START_OBJECT", list: "START_ARRAY", str: "VALUE_STRING", bool: "VALUE_BOOLEAN",
          int: "VALUE_NUMBER", float: "VALUE_NUMBER", type(None): "VALUE_NULL"}
KEYS = ("query", "size", "from", "sort", "_source", "highlight", "track_total_hits", "track_scores")


# All hits in their order, their count, the account of the shards, the highest score or None, the indices in which
# the search succeeded, whether it ran out of time.
Found = namedtuple("Found", "hits count shards highest indices timed_out")


class SearchRequest:
    """A search body, checked; SearchError 400 when it is not in order.

    `keep_alive` is the time in seconds of the scroll context that the search opens, or None.
    """

    def __init__(self, data, dialect, keep_alive=None):
        self.dialect = dialect
        self.keep_alive = keep_alive
        body, text = jsontext.read(data) if data.strip() else ({}, "")
        try:
            self.read(body)
        except ParseError as error:
            raise parsing(*jsontext.locate(text, error.path), error)
        except (TypeError, ValueError, AttributeError, RecursionError) as error:
            raise illegal_argument(f"Failed to parse a value of the request: {error}")

    def read(self, body):
        if not isinstance(body, dict):
            raise ParseError((), f"Expected [START_OBJECT] but found [{TOKENS[type(body)]}]")
        for key, value in body.items():
            if key not in KEYS:
                raise ParseError((key,), f"Unknown key for a {TOKENS[type(value)]} in [{key}].")
        self.query = query.parse(body["query"] if "query" in body else {"match_all": {}}, ("query",))
        self.size = window_bound(body, "size", 10)
        self.start = window_bound(body, "from", 0)
        self.source = source.parse(body.get("_source"), ("_source",))
        self.highlight = highlight.parse(body["highlight"], ("highlight",)) if "highlight" in body else []
        self.sort = parse_sort(body.get("sort", []))
        self.count = body.get("track_total_hits", COUNT_LIMIT)
        # Servers with plain totals count all hits or none.
        if self.dialect.plain_total and not isinstance(body.get("track_total_hits", True), bool):
            raise ParseError(("track_total_hits",), "[track_total_hits] must be a boolean")
        if not isinstance(self.count, (bool, int)):
            raise ParseError(("track_total_hits",), "[track_total_hits] must be a boolean or a number")
        sorted_by_score = not self.sort or any(field == "_score" for field, _ in self.sort)
        self.scored = sorted_by_score or body.get("track_scores") is True
        if self.sort == [("_score", True)]:
            self.sort = []
        if self.keep_alive is not None:
            self.check_scroll()

    def check_scroll(self):
        faults = {"disabling [track_total_hits] is not allowed in a scroll context": self.count is False,
                  "using [from] is not allowed in a scroll context": self.start > 0,
                  "[size] cannot be [0] in a scroll context": self.size == 0}
        if any(faults.values()):
            raise invalid(*(fault for fault, made in faults.items() if made))
        self.count = True

    def check_window(self):
        """What each index refuses for itself; ShardFailure."""
        if self.keep_alive is None and self.start + self.size > MAX_WINDOW:
            raise too_large("Result window is too large, from + size", self.start + self.size, (
                "See the scroll api for a more efficient way to request large data sets. This limit can be"
                " set by changing the [index.max_result_window] index level setting."))
        if self.keep_alive is not None and self.size > MAX_WINDOW:
            raise too_large("Batch size is too large, size", self.size, (
                "Scroll batch sizes cost as much memory as result windows so they are controlled by the"
                " [index.max_result_window] index level setting."))
        if self.keep_alive is not None and self.keep_alive > MAX_KEEP_ALIVE:
            raise ShardFailure("illegal_argument_exception", (
                f"Keep alive for scroll ({self.keep_alive:g}s) is too large. It must be less than (1d). This"
                " limit can be set by changing the [search.max_keep_alive] cluster level setting."))

    def find(self, indices):
        """The Found of a search; SearchError when it fails on every index."""
        hits, failures, succeeded, count = [], [], [], 0
        for index in indices:
            try:
                self.check_window()
                scores = self.query.evaluate(index)
                hits += self.ordered(index, scores)
                count += len(scores)
                succeeded.append(index)
            except ShardFailure as failure:
                failures.append(failure.entry(index))
        if indices and not succeeded:
            raise all_shards_failed(failures)
        hits.sort(key=lambda hit: hit[0])
        total, successful = (sum(index.shards for index in each) for each in (indices, succeeded))
        shards = {"total": total, "successful": successful, "skipped": 0, "failed": total - successful}
        if failures:
            shards["failures"] = failures
        highest = None
        if not indices:
            highest = 0.0
        elif hits and self.size and self.scored:
            highest = max(score for _, score, *_ in hits)
        return Found(hits, count, shards, highest, succeeded, False)

    def write(self, found, hits, plain_total, started, scroll_id=None, later_page=False):
        """The answer's text; `plain_total` asks for a number in any case."""
        head = f'"_scroll_id":"{scroll_id}",' if scroll_id else ""
        took = int((time.monotonic() - started) * 1000)
        timed_out = jsontext.write(found.timed_out)
        ended = '"terminated_early":true,' if later_page else ""
        return (f'{{{head}"took":{took},"timed_out":{timed_out},{ended}"_shards":{jsontext.write(found.shards)},'
                f'"hits":{{{self.write_total(found.count, plain_total)}'
                f'"max_score":{jsontext.write_score(found.highest)},'
                f'"hits":[{",".join(self.write_hit(*hit[1:]) for hit in hits)}]}}}}')

    def ordered(self, index, scores):
        """(sort key, score, index, document, sort values) of an index's hits, not yet in order."""
        if not self.sort:
            return [((-score,), score, index, index.documents[place], None)
                    for place, score in scores.items()]
        columns = [sort_column(index, field, descending, scores) for field, descending in self.sort]
        return [(tuple(column(place)[0] for column in columns), scores[place] if self.scored else None,
                 index, index.documents[place], [column(place)[1] for column in columns]) for place in scores]

    def write_total(self, count, plain):
        if plain or self.dialect.plain_total:
            return f'"total":{-1 if self.count is False else count},'
        if self.count is False:
            return ""
        limit = count if self.count is True else self.count
        relation = "gte" if count > limit else "eq"
        return f'"total":{{"value":{min(count, limit)},"relation":"{relation}"}},'

    def write_hit(self, score, index, document, sort_values):
        doc_type = '"_type":"_doc",' if self.dialect.types else ""
        parts = [f'{{"_index":{jsontext.write(index.name)},{doc_type}'
                 f'"_id":{jsontext.write(document.id)},"_score":{jsontext.write_score(score)}']
        if self.source is None:
            parts.append(f',"_source":{document.raw}')
        elif self.source:
            parts.append(f',"_source":{jsontext.write(source.select(document.source, *self.source))}')
        if self.highlight:
            marked = highlight.highlight(document, self.highlight, self.query.marks)
            if marked:
                parts.append(f',"highlight":{jsontext.write(marked)}')
        if sort_values is not None:
            parts.append(f',"sort":{jsontext.write(sort_values)}')
        return "".join(parts) + "}"


def window_bound(body, key, default):
    try:
        value = int(body.get(key, default))
    except (TypeError, ValueError):
        raise ParseError((key,), f"[{key}] must be a number")
    if value < 0:
        raise illegal_argument(f"[{key}] parameter cannot be negative, found [{value}]")
    return value


def too_large(what, wanted, advice):
    return ShardFailure("illegal_argument_exception", (
        f"{what} must be less than or equal to: [{MAX_WINDOW}] but was [{wanted}]. {advice}"))


def parse_sort(given):
    """[(field, descending)] of "year", {"year": "desc"}, {"year": {"order": "desc"}} or a list of these."""
    keys = []
    for item in given if isinstance(given, list) else [given]:
        for field, how in item.items() if isinstance(item, dict) else [(item, None)]:
            order = how.get("order") if isinstance(how, dict) else how
            order = order or ("desc" if field == "_score" else "asc")
            if not isinstance(field, str) or order not in ("asc", "desc"):
                raise ParseError(("sort",), f"No enum constant for the sort order [{order}]")
            keys.append((field, order == "desc"))
    return keys


@functools.total_ordering
class Descending:
    """A string that sorts before those that are less than it."""

    def __init__(self, value):
        self.value = value

    def __eq__(self, other):
        return self.value == other.value

    def __lt__(self, other):
        return other.value < self.value


def sort_column(index, field, descending, scores):
    """A function from place to (comparable key, shown value); missing values come last either way."""
    sign = -1 if descending else 1
    if field == "_score":
        return lambda place: (sign * scores[place], scores[place])
    if field == "_doc":
        return lambda place: (sign * place, place)
    held = index.field(field)
    if not held.values and index.documents:
        reason = f"No mapping found for [{field}] in order to sort on"
        raise ShardFailure("query_shard_exception", reason)
    if held.numeric:
        missing = -2 ** 63 if descending else 2 ** 63 - 1
        shown = {place: (max if descending else min)(value for value in values if is_number(value))
                 for place, values in held.values.items() if any(map(is_number, values))}
        return lambda place: ((place not in shown, 0, sign * shown.get(place, 0)), shown.get(place, missing))
    shown = {place: (max if descending else min)(map(str, values)) for place, values in held.values.items()}
    wrap = Descending if descending else str
    return lambda place: ((place not in shown, 1, wrap(shown.get(place, ""))), shown.get(place))
