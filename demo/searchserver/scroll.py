"""Scroll contexts: results that stay on the server and leave it page by page."""

import base64
import re
import uuid
from time import monotonic

from .errors import NODE, all_shards_failed, illegal_argument, invalid, typed

# In this order: what ends in "ms" or "nanos" ends in "s", too.
UNITS = (("nanos", 1e-9), ("micros", 1e-6), ("ms", 1e-3), ("s", 1), ("m", 60), ("h", 3600), ("d", 86400))
SHARD = re.compile(rb"\x14.{20}(.{8})\x16.{22}", re.S)
ID = re.compile(rb"\x14include_context_uuid\x0equeryThenFetch[\x80-\xff]*[\0-\x7f]((?:%b)*)"
                % SHARD.pattern.replace(b"(", b"(?:"), re.S)


def seconds(text):
    """The length of a time value such as "5m"; SearchError 400 when it is none."""
    normal = text.lower().strip()
    if re.fullmatch("-0*1|0+", normal):
        return 0
    # An upper-case M is no minute: it would stand for months.
    factor, unit = next(((factor, unit) for unit, factor in UNITS
                         if (text.strip() if unit == "m" else normal).endswith(unit)), (None, ""))
    refused = f"failed to parse setting [scroll] with value [{text}] as a time value: "
    if factor is None:
        raise illegal_argument(refused + "unit is missing or unrecognized")
    number = normal[:-len(unit)].strip()
    if re.fullmatch("[+-]?[0-9]+", number):
        if int(number) < -1:
            raise illegal_argument(refused + "negative durations are not supported")
        return max(int(number), 0) * factor
    try:
        float(number)
    except ValueError:
        raise illegal_argument(f"failed to parse [{text}]")
    raise illegal_argument(f"failed to parse [{text}], fractional time values are not supported")


def write_id(numbers):
    """The scroll id of a result whose contexts, one a shard, have these numbers."""
    def string(data):
        return bytes([len(data)]) + data

    count, left = b"", len(numbers)
    while left > 127:
        count, left = count + bytes([left & 127 | 128]), left >> 7
    data = string(b"include_context_uuid") + string(b"queryThenFetch") + count + bytes([left])
    for number in numbers:
        data += string(uuid.uuid4().hex[:20].encode()) + number.to_bytes(8, "big") + string(NODE.encode())
    return base64.urlsafe_b64encode(data).decode()


def read_id(text):
    """The context numbers of a scroll id; SearchError 400 for a text that is none."""
    try:
        match = ID.fullmatch(base64.b64decode(text, "-_", validate=True))
    except ValueError:
        match = None
    if not match:
        raise typed(400, "illegal_argument_exception", "Cannot parse scroll id",
                    {"type": "array_index_out_of_bounds_exception", "reason": f"no id: {text}"})
    return [int.from_bytes(number, "big") for number in SHARD.findall(match[1])]


def missing(numbers):
    """The SearchError of a page of contexts that are not, or no longer, there."""
    reasons = [{"type": "search_context_missing_exception",
                "reason": f"No search context found for id [{number}]"} for number in numbers]
    if not reasons:
        return typed(503, "search_phase_execution_exception", "no nodes to search on")
    entries = [{"shard": -1, "index": None, "reason": reason} for reason in reasons]
    return all_shards_failed(entries, 404, reasons[-1])


class Context:
    """A result and how much of it has left; `request` and `found` as SearchRequest has them."""

    def __init__(self, request, found, keep_alive):
        self.request = request
        # The later pages know nothing of the shards that failed before the first one.
        shards = found.shards["successful"]
        self.found = found._replace(timed_out=False, shards={
            "total": shards, "successful": shards, "skipped": 0, "failed": 0})
        self.taken = 0
        self.keep(keep_alive)

    def keep(self, keep_alive):
        self.deadline = monotonic() + keep_alive

    def take(self):
        """The hits of the next page."""
        start, self.taken = self.taken, self.taken + self.request.size
        return self.found.hits[start:self.taken]

    @property
    def page(self):
        """The number of the page that was taken last, from 1."""
        return self.taken // self.request.size


class Scrolls:
    """The open contexts by scroll id; `opened` counts all there ever were."""

    def __init__(self):
        self.contexts = {}
        self.opened = 0
        self.next_number = 1

    def open(self, request, found, keep_alive):
        """(id, hits of the first page) of a new context."""
        shards = found.shards["successful"]
        numbers = range(self.next_number, self.next_number + shards)
        self.next_number += shards
        scroll_id = write_id(numbers)
        context = Context(request, found, keep_alive)
        if numbers:
            self.contexts[scroll_id] = context
            self.opened += 1
        return scroll_id, context.take()

    def next_page(self, scroll_id, keep_alive):
        """(context, hits of its next page); without a time to keep it, the context is gone afterwards."""
        numbers = read_id(scroll_id)
        self.drop_expired()
        context = self.contexts.get(scroll_id)
        if context is None:
            raise missing(numbers)
        if keep_alive is None:
            del self.contexts[scroll_id]
        else:
            context.keep(keep_alive)
        return context, context.take()

    def delete(self, scroll_ids):
        """Drops contexts and returns how many there were, counted by shard."""
        counts = {scroll_id: len(read_id(scroll_id)) for scroll_id in scroll_ids}
        self.drop_expired()
        return sum(count for scroll_id, count in counts.items() if self.contexts.pop(scroll_id, None))

    def drop_expired(self):
        """Drops what was not asked for within its time."""
        now = monotonic()
        self.contexts = {key: context for key, context in self.contexts.items() if context.deadline > now}


def members(parameters, body):
    """(scroll ids, time value or None) of a request's URL and, which has the last word, its body."""
    given = {"scroll_id": parameters.get("scroll_id"), "scroll": parameters.get("scroll")}
    for key, value in body.items():
        if key not in given or not isinstance(value, (str, list)):
            raise illegal_argument(f"Unknown parameter [{key}] in request body or parameter is of the wrong"
                                   " type")
        given[key] = value
    ids = given["scroll_id"]
    ids = ids.split(",") if isinstance(ids, str) else ids
    if not ids or not all(isinstance(item, str) for item in ids):
        raise invalid("scrollId is missing")
    return ids, given["scroll"]
