"""The body of a search: what it asks for, checked before it runs."""

from . import aggregations, dates, highlight, jsontext, query, sorting, source
from . import buckets  # noqa: F401  it enters the aggregations that it knows
from .errors import ParseError, Refusal, illegal_argument, illegal_on_shard, invalid, parsing
from .narrowing import Collapse, Rescore, Slice

MAX_KEEP_ALIVE = 86400  # seconds that a scroll context may live
COUNT_LIMIT = 10000  # hits are counted up to here unless the request asks for more
TOKENS = {dict: "START_OBJECT", list: "START_ARRAY", str: "VALUE_STRING", bool: "VALUE_BOOLEAN",
          int: "VALUE_NUMBER", jsontext.RawFloat: "VALUE_NUMBER", type(None): "VALUE_NULL"}
KEYS = ("query", "size", "from", "sort", "_source", "highlight", "track_total_hits", "track_scores", "min_score",
        "explain", "collapse", "rescore", "search_after", "stored_fields", "docvalue_fields", "slice", "aggs",
        "aggregations", "timeout", "version")


def read_body(data, keys, read):
    """Calls `read` with a request's JSON object; its faults become SearchErrors that tell the place."""
    body, text = jsontext.read(data) if data.strip() else ({}, "")
    try:
        if not isinstance(body, dict):
            raise ParseError((), f"Expected [START_OBJECT] but found [{TOKENS[type(body)]}]")
        for key, value in body.items():
            if key not in keys:
                raise ParseError((key,), f"Unknown key for a {TOKENS[type(value)]} in [{key}].")
        read(body)
    except ParseError as error:
        raise parsing(*jsontext.locate(text, error.path), error)
    except (Refusal, TypeError, ValueError, AttributeError, KeyError, RecursionError) as error:
        raise illegal_argument(f"Failed to parse a value of the request: {error}")


class SearchRequest:
    """A search body, checked; SearchError 400 when it is not in order.

    `keep_alive` is the time in seconds of the scroll context that the search opens, or None; `parameters` are those
    of the URL.
    """

    def __init__(self, data, dialect, keep_alive=None, parameters=None):
        self.dialect = dialect
        self.keep_alive = keep_alive
        self.parameters = parameters or {}
        self.plain_total = dialect.plain_total or self.parameters.get("rest_total_hits_as_int") in ("", "true")
        self.allows_partial = self.parameters.get("allow_partial_search_results") != "false"
        read_body(data, KEYS + (("fields",) if dialect.fetches_fields else ()), self.read)

    def read(self, body):
        body = {**body, **{name: self.parameters[name] for name in ("size", "from") if name in self.parameters}}
        self.query = query.parse(body["query"] if "query" in body else {"match_all": {}}, ("query",), self.dialect)
        self.size = window_bound(body, "size", 10)
        self.start = window_bound(body, "from", 0)
        self.min_score = float(body["min_score"]) if "min_score" in body else None
        self.sort = sorting.parse(body.get("sort", []))
        self.after = list(body["search_after"]) if "search_after" in body else None
        self.scored = not self.sort or any(key.name == "_score" for key in self.sort) or (
            body.get("track_scores") is True)
        self.slice = Slice(body["slice"], ("slice",)) if "slice" in body else None
        self.collapse = Collapse(body["collapse"], ("collapse",)) if "collapse" in body else None
        rescores = body.get("rescore", [])
        self.rescores = [Rescore(each, ("rescore",), self.dialect)
                         for each in (rescores if isinstance(rescores, list) else [rescores])]
        self.aggregations = next((aggregations.parse(body[key], (key,), self.dialect)
                                  for key in ("aggs", "aggregations") if key in body), None)
        self.read_presentation(body)
        self.read_count(body)
        self.check()

    def read_presentation(self, body):
        """What the hits of the response are to show."""
        self.source = source.parse(body.get("_source"), ("_source",))
        self.highlight = highlight.parse(body["highlight"], ("highlight",)) if "highlight" in body else []
        self.explain = body.get("explain") is True
        self.version = body.get("version") is True
        stored = body.get("stored_fields")
        self.hides_ids = stored in ("_none_", ["_none_"])
        if stored is not None and "_source" not in body and "_source" not in stored:
            self.source = False
        self.value_fields = [field_and_format(each) for each in body.get("docvalue_fields", [])]
        self.source_fields = [field_and_format(each) for each in body.get("fields", [])]

    def read_count(self, body):
        self.count = body.get("track_total_hits", COUNT_LIMIT)
        if self.dialect.plain_total:  # those servers count all hits or none
            if not isinstance(body.get("track_total_hits", True), bool):
                raise ParseError(("track_total_hits",), "[track_total_hits] must be a boolean")
        elif not isinstance(self.count, (bool, int)):
            raise ParseError(("track_total_hits",), "[track_total_hits] must be a boolean or a number")
        elif self.plain_total:
            self.count = body.get("track_total_hits", True)
            if not isinstance(self.count, bool):
                raise illegal_argument("[rest_total_hits_as_int] cannot be used if the tracking of total hits is not"
                                       f" accurate, got {self.count}")

    def check(self):
        """SearchError when parts of the request do not go together."""
        in_scroll = self.keep_alive is not None
        faults = {"disabling [track_total_hits] is not allowed in a scroll context": self.count is False,
                  "using [from] is not allowed in a scroll context": self.start > 0,
                  "[size] cannot be [0] in a scroll context": self.size == 0,
                  "using [rescore] is not allowed in a scroll context": self.rescores}
        if in_scroll and any(faults.values()):
            raise invalid(*(fault for fault, made in faults.items() if made))
        if in_scroll:
            self.count = True
        if self.after is not None:
            if in_scroll:
                raise illegal_argument("`search_after` cannot be used in a scroll context.")
            if self.start > 0:
                raise illegal_argument("`from` parameter must be set to 0 when `search_after` is used.")
            if not self.sort:
                raise illegal_argument("Sort must contain at least one field.")
            if len(self.after) != len(self.sort):
                raise illegal_argument(f"search_after has {len(self.after)} value(s) but sort has {len(self.sort)}.")
        if self.rescores and self.sort:
            raise illegal_argument("Cannot use [sort] option in conjunction with [rescore].")

    def check_shard(self, index):
        """What each shard refuses for itself; ShardFailure."""
        window, in_scroll = index.number("max_result_window"), self.keep_alive is not None
        if not in_scroll and self.start + self.size > window:
            raise too_large("Result window is too large, from + size", window, self.start + self.size, (
                "See the scroll api for a more efficient way to request large data sets. This limit can be"
                " set by changing the [index.max_result_window] index level setting."))
        if in_scroll and self.size > window:
            raise too_large("Batch size is too large, size", window, self.size, (
                "Scroll batch sizes cost as much memory as result windows so they are controlled by the"
                " [index.max_result_window] index level setting."))
        if in_scroll and self.keep_alive > MAX_KEEP_ALIVE:
            raise illegal_on_shard(f"Keep alive for scroll ({self.keep_alive:g}s) is too large. It must be less than"
                                   " (1d). This limit can be set by changing the [search.max_keep_alive] cluster"
                                   " level setting.")
        if self.slice:
            self.slice.check(in_scroll)
        if self.collapse:
            self.collapse.check(index, in_scroll)
        for name, _ in self.value_fields:
            if index.mapping.field(name):
                index.mapping.field(name).check_column()

    def narrow(self, level, scores):
        """The scores of the documents of a level that the search goes on with, out of those that were found."""
        if self.min_score is not None:
            scores = {place: score for place, score in scores.items() if score >= self.min_score}
        if self.slice:
            scores = self.slice.take(level, scores)
        for rescore in self.rescores:
            scores = rescore.change(level, scores)
        return scores

    def choose(self, hits):
        """The hits, in order, that may be shown."""
        if self.after is not None:
            hits = sorting.after(hits, self.sort, self.after)
        return self.collapse.take(hits) if self.collapse else hits

    def most_hits(self):
        """How many hits of a shard may be shown at most; None for all."""
        by_score = not self.sort and self.keep_alive is None and not self.collapse
        return max(self.start + self.size, 1) if by_score else None

    def aggregate(self, selection):
        """The aggregations of the documents found, (level, places) of each shard, as JSON; None without any."""
        return None if self.aggregations is None else aggregations.run(self.aggregations, selection, self.dialect)

    def ends_early(self, outcome):
        """What the later pages of a scroll say of "terminated_early": None when they do not mention it."""
        by_place = [key.name for key in self.sort] == ["_doc"] or (not self.sort and self.query.in_order)
        return outcome.longest > self.size if by_place else None


def window_bound(body, key, default):
    try:
        value = int(body.get(key, default))
    except (TypeError, ValueError):
        raise ParseError((key,), f"[{key}] must be a number")
    if value < 0:
        raise illegal_argument(f"[{key}] parameter cannot be negative, found [{value}]")
    return value


def too_large(what, most, wanted, advice):
    return illegal_on_shard(f"{what} must be less than or equal to: [{most}] but was [{wanted}]. {advice}")


def field_and_format(given):
    """(field, format or None) of "field" or {"field": ..., "format": ...}."""
    name, form = (given, None) if isinstance(given, str) else (given["field"], given.get("format"))
    if form:
        dates.check(form)
    return str(name), form
