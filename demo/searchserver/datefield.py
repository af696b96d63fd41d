"""Fields of dates, of addresses and of ranges, whose keys are whole numbers as well."""

import ipaddress
import time

from . import dates
from .errors import Refusal, ShardFailure, illegal_on_shard
from .field import Bounds, Point
from .numeric import LONGEST
from .strings import asked, spelling


def now():
    """The time of the queries that say so."""
    return time.time_ns() // 10 ** 6 * 10 ** 6


class Date(Point):
    """Dates in milliseconds, or in nanoseconds, since 1970."""

    order_missing = LONGEST
    minimum, maximum = -2 ** 63, 2 ** 63 - 1

    def set_up(self, options, analysis):
        self.format = options.get("format", dates.DEFAULT_FORMAT)
        dates.check(self.format)
        self.unit = 10 ** 6 if self.kind == "date" else 1

    def stored(self, value):
        return [dates.parse(spelling(value), self.format) // self.unit]

    def show(self, stored):
        return dates.write(stored * self.unit, self.format)

    def show_key(self, key):
        return key, self.show(key)

    def instant(self, value, bounds, round_up):
        return dates.resolve(asked(value), bounds.format or self.format, round_up, bounds.zone, now) // self.unit

    def low(self, bounds):
        if bounds.low is None:
            return self.minimum
        return self.instant(bounds.low, bounds, bounds.low_open) + bounds.low_open

    def high(self, bounds):
        if bounds.high is None:
            return self.maximum
        return self.instant(bounds.high, bounds, not bounds.high_open) - bounds.high_open

    def span(self, bounds):
        """A fault in a bound is found before the query is made, and therefore told in other words."""
        try:
            return super().span(bounds)
        except Refusal as refusal:
            raise ShardFailure(refusal.kind, refusal.reason, refusal.cause)

    def term(self, value):
        both = Bounds(value, value, False, False, None, None)
        return self.low(both), self.high(both) + 1


class Address(Point):
    """IP addresses; those of version 4 lie among those of version 6."""

    minimum, maximum = 0, 2 ** 128 - 1

    def address(self, value):
        try:
            return ipaddress.ip_address(spelling(value))
        except ValueError:
            raise Refusal(f"'{spelling(value)}' is not an IP string literal.")

    def bound(self, value):
        found = self.address(value)
        return int(found) | (0xffff << 32 if found.version == 4 else 0)

    def stored(self, value):
        return [self.bound(value)]

    def term(self, value):
        text = spelling(value)
        if "/" not in text:
            return super().term(value)
        try:
            network = ipaddress.ip_network(text, strict=False)
        except ValueError:
            raise Refusal(f"'{text}' is not an IP string literal.")
        first = self.bound(str(network.network_address))
        return first, first + network.num_addresses

    def show(self, stored):
        address = ipaddress.IPv6Address(stored)
        return str(address.ipv4_mapped or address)

    def show_key(self, key):
        return self.show(key), None

    sort_value = show


class Range(Point):
    """Ranges of numbers, dates or addresses: `member` is the field that such values would be in."""

    keeps_objects = True
    MEMBERS = {"integer_range": "integer", "long_range": "long", "float_range": "float", "double_range": "double",
               "date_range": "date", "ip_range": "ip"}

    def set_up(self, options, analysis):
        self.member = options["member"]

    def stored(self, value):
        if not isinstance(value, dict):
            raise Refusal(f"error parsing field [{self.path}], expected an object but got {spelling(value)}")
        low = value.get("gte", value.get("gt"))
        high = value.get("lte", value.get("lt"))
        return [self.member.span(Bounds(low, high, "gt" in value, "lt" in value, None, None))]

    def keys(self, stored):
        return []

    def check_column(self):
        raise illegal_on_shard(f"can't sort or aggregate on field [{self.path}] of type [{self.kind}]")

    def term(self, value):
        return self.member.term(value)

    def span(self, bounds):
        return self.member.span(bounds)
