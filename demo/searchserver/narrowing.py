"""Which of the documents that a query found a search goes on with, and with which scores."""

from .errors import ParseError, ShardFailure, illegal_argument, illegal_on_shard
from .querybase import only_members, parse
from .routing import murmur
from .scoring import single

MAX_SLICES = 1024


class Slice:
    """One of several parts of a scroll, which together find all documents once."""

    def __init__(self, body, path):
        only_members("slice", body, path, ("field", "id", "max"))
        self.field, self.id, self.max = body.get("field", "_id"), int(body["id"]), int(body["max"])
        if self.max <= 1:
            raise ParseError(path, "max must be greater than 1")
        if not 0 <= self.id < self.max:
            raise ParseError(path, "max must be greater than id")

    def check(self, in_scroll):
        if not in_scroll:
            raise ShardFailure("search_exception", "`slice` cannot be used outside of a scroll context", status=500)
        if self.max > MAX_SLICES:
            raise illegal_on_shard(f"The number of slices [{self.max}] is too large. It must be less than"
                                   f" [{MAX_SLICES}]. This limit can be set by changing the"
                                   " [index.max_slices_per_scroll] index level setting.")

    def take(self, level, scores):
        """Whole shards go to the slices in turn; when there are more slices than shards, these share a shard."""
        shards, number = len(level.shard.index.shards), level.shard.number
        if self.max <= shards:
            return scores if number % self.max == self.id else {}
        if self.id % shards != number:
            return {}
        sharing = self.max // shards + (self.max % shards > number)
        column = level.column(self.field)
        return {place: score for place, score in scores.items()
                if murmur(str(column.values.get(place)).encode()) % sharing == self.id // shards}


class Rescore:
    """A second query that changes the scores of each shard's best documents."""

    MODES = {"total": lambda first, second: first + second, "multiply": lambda first, second: first * second,
             "avg": lambda first, second: (first + second) / 2, "max": max, "min": min}

    def __init__(self, body, path, dialect):
        only_members("rescore", body, path, ("window_size", "query"))
        inner, place = body.get("query", {}), (*path, "query")
        only_members("rescore", inner, place, ("rescore_query", "query_weight", "rescore_query_weight", "score_mode"))
        self.window = int(body.get("window_size", 10))
        self.query = parse(inner.get("rescore_query"), (*place, "rescore_query"), dialect)
        self.weights = float(inner.get("query_weight", 1)), float(inner.get("rescore_query_weight", 1))
        if inner.get("score_mode", "total") not in self.MODES:
            raise ParseError(place, f"illegal score_mode [{inner['score_mode']}]")
        self.combine = self.MODES[inner.get("score_mode", "total")]

    def change(self, level, scores):
        again, (first, second) = self.query.evaluate(level), self.weights
        best = sorted(scores, key=lambda place: (-scores[place], place))[:self.window]
        return {**scores, **{place: single(self.combine(scores[place] * first, again[place] * second)
                                           if place in again else scores[place] * first) for place in best}}


class Collapse:
    """Only the first hit for each value of a field."""

    KINDS = ("keyword", "byte", "short", "integer", "long", "half_float", "float", "double", "scaled_float",
             "constant_keyword", "unsigned_long", "wildcard", "flattened")

    def __init__(self, body, path):
        only_members("collapse", body, path, ("field",))
        self.name = body.get("field")
        if not isinstance(self.name, str):
            raise ParseError(path, "[collapse] no field given")

    def check(self, index, in_scroll):
        if in_scroll:
            raise ShardFailure("search_exception", "cannot use `collapse` in a scroll context", status=500)
        field = index.mapping.field(self.name)
        if field is None:
            raise illegal_on_shard(f"no mapping found for `{self.name}` in order to collapse on")
        if field.kind not in self.KINDS:
            raise illegal_on_shard(f"unknown type for collapse field `{self.name}`, only keywords and numbers are"
                                   " accepted")

    def value(self, hit):
        """The value of a hit's document as it is shown; None when it has none."""
        column = hit.shard.level("").column(self.name)
        keys = column.sorted_keys(hit.document.place)
        if len(keys) > 1:
            raise illegal_argument(f"failed to collapse {hit.document.place}, the collapse field must be single"
                                   " valued")
        return column.field.show_key(keys[0])[0] if keys else None

    def take(self, hits):
        first = {}
        for hit in hits:
            first.setdefault(self.value(hit), hit)
        return list(first.values())
