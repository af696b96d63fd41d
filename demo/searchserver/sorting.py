"""The order of hits."""

import math

from .errors import ParseError, ShardFailure, illegal_argument
from .jsontext import Score


class SortKey:
    """One of the keys that hits are sorted by: `mode` tells which of several values counts, `missing` what stands
    for a value that is not there."""

    def __init__(self, name, options, path):
        self.name = name
        order = str(options.get("order", "desc" if name == "_score" else "asc")).lower()
        if order not in ("asc", "desc"):
            raise ParseError(path, f"No enum constant for the sort order [{order}]")
        self.descending = order == "desc"
        self.mode = options.get("mode", "max" if self.descending else "min")
        self.missing = options.get("missing", "_last")
        self.unmapped_type = options.get("unmapped_type")
        for key in options:
            if key not in ("order", "mode", "missing", "unmapped_type") or isinstance(options[key], (list, dict)):
                raise ParseError(path, f"[field_sort] unknown field [{key}]")

    def values(self, level, scores):
        """A function from place to (whether there is a value, comparable value, shown value); ShardFailure."""
        if self.name == "_score":
            return lambda place: (True, scores[place], Score(scores[place]))
        if self.name == "_doc":
            return lambda place: (True, place, place)
        column = level.column(self.name)
        if column is None:
            if self.unmapped_type:
                return lambda place: (False, None, None)
            raise ShardFailure("query_shard_exception", f"No mapping found for [{self.name}] in order to sort on")
        column.field.check_column()
        return lambda place: self.value(column, place)

    def value(self, column, place):
        field, keys = column.field, column.sorted_keys(place)
        if keys:
            key = keys[-1] if self.mode == "max" else keys[0]
            shown = field.sort_value(key)
            if self.mode in ("sum", "avg", "median"):
                numbers = [field.sort_value(each) for each in keys]
                shown = {"sum": sum(numbers), "avg": sum(numbers) / len(numbers),
                         "median": numbers[len(numbers) // 2]}[self.mode]
                shown = int(shown) if isinstance(field.order_missing[0], int) else float(shown)
            return True, shown, shown
        if self.missing not in ("_last", "_first"):
            return True, self.missing, self.missing
        return False, None, field.order_missing[(self.missing == "_first") != self.descending]

    def place_of(self, found):
        """What a value is compared by: those that are missing lie together at one end."""
        there, value, _ = found
        if there:
            return 1, value
        return (2 if (self.missing == "_first") == self.descending else 0), 0

    def read(self, value):
        """The value that "search_after" gives, as `place_of` has it."""
        if value is None or value in (math.inf, -math.inf, 2 ** 63 - 1, -2 ** 63):
            return self.place_of((False, None, None))
        return 1, value


def parse(given):
    """The SortKeys of "year", {"year": "desc"}, {"year": {"order": "desc"}} or a list of these."""
    keys = []
    for position, item in enumerate(given if isinstance(given, list) else [given]):
        path = ("sort", position) if isinstance(given, list) else ("sort",)
        for name, how in item.items() if isinstance(item, dict) else [(item, {})]:
            if not isinstance(name, str):
                raise ParseError(path, "malformed sort format, within the sort array, an object, or an actual string"
                                       " are allowed")
            keys.append(SortKey(name, how if isinstance(how, dict) else {"order": how}, path))
    # By score alone is the order that there is without a sort.
    return [] if len(keys) == 1 and keys[0].name == "_score" and keys[0].descending else keys


def order(hits, keys):
    """Sorts hits, which stand in the order of their shards and places, by their sort values, or by score."""
    if not keys:
        if len({hit.score for hit in hits}) > 1:
            hits.sort(key=lambda hit: -hit.score)
        return
    for number in range(len(keys) - 1, -1, -1):
        key = keys[number]
        if len({isinstance(hit.sort[number][1], str) for hit in hits if hit.sort[number][0]}) > 1:
            raise illegal_argument(f"Can't sort on field [{key.name}]; the field has incompatible sort types: [LONG]"
                                   " and [STRING] across shards!")
        hits.sort(key=lambda hit: key.place_of(hit.sort[number]), reverse=key.descending)


def after(hits, keys, values):
    """The hits, in order, that come after the given sort values."""
    wanted = [key.read(value) for key, value in zip(keys, values)]

    def comes_after(hit):
        for key, found, bound in zip(keys, hit.sort, wanted):
            place = key.place_of(found)
            if place != bound:
                return (place < bound) == key.descending
        return False

    try:
        return [hit for hit in hits if comes_after(hit)]
    except TypeError:
        raise illegal_argument(f"Failed to parse search_after values {values}")
