"""Scroll contexts: results that stay on the server and leave it page by page."""

import base64
import re
import uuid
from time import monotonic

from .errors import NODE, all_shards_failed, illegal_argument, invalid, typed
from .execution import Account

# In this order: what ends in "ms" or "nanos" ends in "s", too.
UNITS = (("nanos", 1e-9), ("micros", 1e-6), ("ms", 1e-3), ("s", 1), ("m", 60), ("h", 3600), ("d", 86400))
NUMBER = rb"(.{8})\x16.{22}"
CONTEXTS = {prefix: re.compile(part, re.S) for prefix, part in (
    (b"", NUMBER), (b"\x14include_context_uuid", rb"\x14.{20}" + NUMBER))}
KINDS = (b"\x0equeryThenFetch", b"\x0dqueryAndFetch")


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


def string(data):
    return bytes([len(data)]) + data


def write_id(numbers, dialect, shards):
    """The scroll id of a result whose contexts, one a shard that responded, have these numbers."""
    count, left = b"", len(numbers)
    while left > 127:
        count, left = count + bytes([left & 127 | 128]), left >> 7
    data = string(b"include_context_uuid") if dialect.uuids_in_ids else b""
    data += KINDS[shards == 1] + count + bytes([left])
    for number in numbers:
        data += string(uuid.uuid4().hex[:20].encode()) if dialect.uuids_in_ids else b""
        data += number.to_bytes(8, "big") + string(NODE.encode())
    return base64.urlsafe_b64encode(data).decode()


def read_id(text):
    """The context numbers of a scroll id; SearchError 400 for a text that is none."""
    try:
        data = base64.b64decode(text, "-_", validate=True)
    except ValueError:
        data = b""
    for prefix, context in CONTEXTS.items():
        for kind in KINDS:
            match = re.fullmatch(re.escape(prefix + kind) + rb"[\x80-\xff]*[\0-\x7f]((?:%b)*)"
                                 % context.pattern.replace(b"(", b"(?:"), data, re.S)
            if match:
                return [int.from_bytes(number, "big") for number in context.findall(match[1])]
    raise typed(400, "illegal_argument_exception", "Cannot parse scroll id",
                {"type": "array_index_out_of_bounds_exception", "reason": f"no id: {text}"})


def missing(numbers):
    """The SearchError of a page of contexts that are not, or no longer, there."""
    reasons = [{"type": "search_context_missing_exception",
                "reason": f"No search context found for id [{number}]"} for number in numbers]
    if not reasons:
        return typed(503, "search_phase_execution_exception", "no nodes to search on")
    entries = [{"shard": -1, "index": None, "reason": reason} for reason in reasons]
    return all_shards_failed(entries, 404, reasons[-1])


class Context:
    """A result and how much of it has left; `request` and `outcome` as the search had them."""

    def __init__(self, request, outcome, keep_alive):
        self.request = request
        # The later pages know nothing of the shards that failed before the first one.
        shards = len(outcome.shards)
        self.outcome = outcome._replace(account=Account(shards, shards), aggregations=None, timed_out=False)
        self.taken = 0
        self.keep(keep_alive)

    def keep(self, keep_alive):
        self.deadline = monotonic() + keep_alive

    def take(self):
        """The hits of the next page."""
        start, self.taken = self.taken, self.taken + self.request.size
        return self.outcome.hits[start:self.taken]

    @property
    def page(self):
        """The number of the page that was taken last, from 1."""
        return self.taken // self.request.size


class Scrolls:
    """The open contexts by scroll id; `opened` counts all there ever were, `most` is how many shards may have one."""

    def __init__(self, dialect):
        self.dialect = dialect
        self.contexts = {}
        self.opened = 0
        self.next_number = 1
        self.most = 500

    def on_shards(self):
        """How many contexts are open on shards, each of which has its own."""
        self.drop_expired()
        return sum(len(context.outcome.shards) for context in self.contexts.values())

    def open(self, request, outcome, keep_alive):
        """(id, hits of the first page) of a new context."""
        count = len(outcome.shards)
        numbers = range(self.next_number, self.next_number + count)
        self.next_number += count
        scroll_id = write_id(numbers, self.dialect, outcome.account.total)
        context = Context(request, outcome, keep_alive)
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
