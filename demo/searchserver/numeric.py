"""Fields of numbers: what is stored of them, which is less than what was given, and how they are compared."""

import math
import re
import struct
from decimal import Decimal

from .errors import Refusal
from .field import Point
from .jsontext import Score

NUMBER = re.compile(r"[+-]?(?:\d+\.?\d*|\.\d+)(?:[eE][+-]?\d+)?[dDfF]?|[+-]?(?:NaN|Infinity)")
LONGEST = (2 ** 63 - 1, -2 ** 63)


def parse_double(value):
    """The number that a scalar stands for as a float; or Refusal."""
    if isinstance(value, (bool, dict, list)):
        raise Refusal("Current token not numeric, can not use numeric value accessors", "json_parse_exception")
    if not isinstance(value, str):
        return float(value)
    text = value.strip()
    if not NUMBER.fullmatch(text):
        raise Refusal(f'For input string: "{value}"' if text else "empty String", "number_format_exception")
    return float(text.rstrip("dDfF") if text[-1] not in "yN" else text)


def spelt(value):
    """A number as texts show it."""
    if isinstance(value, str) or isinstance(value, int):
        return value
    return getattr(value, "text", value)


class Whole(Point):
    """Whole numbers. Fractions are cut off, texts are read."""

    LIMITS = {"byte": (7, "a byte"), "short": (15, "a short"), "integer": (31, "an integer"), "long": (63, "a long")}
    order_missing = LONGEST

    def set_up(self, options, analysis):
        bits, self.article = self.LIMITS[self.kind]
        self.range = (-2 ** bits, 2 ** bits - 1)
        # Queries on the small types are those of the type integer.
        self.asked, self.asked_article = self.range, self.article
        if bits < 31:
            self.asked, self.asked_article = (-2 ** 31, 2 ** 31 - 1), "an integer"
        self.minimum, self.maximum = self.asked

    def stored(self, value):
        if value == "":
            return []
        number = self.parse(value, self.range)
        if not isinstance(value, str) and self.kind in ("integer", "long") and number is None:
            java, (low, high) = {"integer": "int", "long": "long"}[self.kind], self.range
            raise Refusal(f"Numeric value ({spelt(value)}) out of range of {java} ({low} - {high})",
                          "input_coercion_exception")
        if number is None:
            raise Refusal(f"Value [{spelt(value)}] is out of range for {self.article}")
        return [number]

    def parse(self, value, limits):
        """The number without its fraction, or None when it is beyond the limits."""
        double = parse_double(value)
        if isinstance(value, str):
            number = int(Decimal(value.strip().rstrip("dDfF"))) if math.isfinite(double) else None
        else:
            number = int(value) if math.isfinite(double) else None
        return number if number is not None and limits[0] <= number <= limits[1] else None

    def lookup(self, value):
        number = self.parse(value, self.asked)
        if number is None:
            raise Refusal(f"Value [{spelt(value)}] is out of range for {self.asked_article}")
        return number

    def fraction(self, value):
        double = parse_double(value)
        return double % 1 if math.isfinite(double) else 0

    def term(self, value):
        if self.fraction(value):
            return None
        number = self.lookup(value)
        return number, number + 1

    def low(self, bounds):
        if bounds.low is None:
            return self.minimum
        number = self.lookup(bounds.low)
        if self.fraction(bounds.low):
            return number + (parse_double(bounds.low) > 0)
        return number + bounds.low_open

    def high(self, bounds):
        if bounds.high is None:
            return self.maximum
        number = self.lookup(bounds.high)
        if self.fraction(bounds.high):
            return number - (parse_double(bounds.high) < 0)
        return number - bounds.high_open


class UnsignedLong(Whole):
    """Whole numbers from 0 to 2^64 - 1. Bounds beyond them are none at all."""

    order_missing = (2 ** 64 - 1, 0)

    def set_up(self, options, analysis):
        self.range = self.asked = (0, 2 ** 64 - 1)
        self.article = self.asked_article = "unsigned long"
        self.minimum, self.maximum = self.range

    def term(self, value):
        if self.fraction(value) or self.parse(value, self.range) is None:
            return None
        return super().term(value)

    def span(self, bounds):
        def within(value):
            return None if value is None or self.parse(value, self.range) is None else value

        low, high = bounds.low, bounds.high
        if (low is not None and parse_double(low) >= 2 ** 64) or (high is not None and parse_double(high) < 0):
            return None
        return super().span(bounds._replace(low=within(low), high=within(high)))


class Floating(Point):
    """Binary fractions in half, single or double precision; their keys are their bits in order."""

    FORMATS = {"half_float": ("e", 15), "float": ("f", 31), "double": ("d", 63)}
    order_missing = (math.inf, -math.inf)

    def set_up(self, options, analysis):
        self.format, self.bits = self.FORMATS[self.kind]
        self.minimum, self.maximum = self.to_key(-math.inf), self.to_key(math.inf)

    def stored(self, value):
        return [] if value == "" else [self.from_key(self.bound(value))]

    def key(self, stored):
        return self.to_key(stored)

    def keys(self, stored):
        return [self.to_key(stored)]

    def to_key(self, number):
        """The bits of a number in this precision, so that they are in the order of the numbers."""
        bits = int.from_bytes(struct.pack(">" + self.format, number), "big", signed=True)
        return bits if bits >= 0 else bits ^ (2 ** self.bits - 1)

    def from_key(self, key):
        bits = key if key >= 0 else key ^ (2 ** self.bits - 1)
        return struct.unpack(">" + self.format, bits.to_bytes(self.bits // 8 + 1, "big", signed=True))[0]

    def single(self, value):
        """The number of a value: half precision is rounded from single precision."""
        number = parse_double(value)
        try:
            if self.kind == "half_float":
                number = struct.unpack("f", struct.pack("f", number))[0]
            if math.isfinite(self.from_key(self.to_key(number))):
                return number
        except OverflowError:
            pass
        raise Refusal(f"[{self.kind}] supports only finite values, but got [{spelt(value)}]")

    def bound(self, value):
        return self.to_key(self.single(value))

    def show_key(self, key):
        return self.from_key(key), None

    def sort_value(self, key):
        number = self.from_key(key)
        return number if self.kind == "double" else Score(number)

    def low(self, bounds):
        if bounds.low is None or self.kind != "half_float":
            return super().low(bounds)
        # The bound is first moved down, then up again, each time to a neighbour of what it was in single precision.
        number = self.single(bounds.low)
        return self.up(number if bounds.low_open else self.from_key(self.down(number)))

    def high(self, bounds):
        if bounds.high is None or self.kind != "half_float":
            return super().high(bounds)
        number = self.single(bounds.high)
        return self.down(number if bounds.high_open else self.from_key(self.up(number)))

    def up(self, number):
        key = self.to_key(number)
        return key + (self.from_key(key) <= number)

    def down(self, number):
        key = self.to_key(number)
        return key - (self.from_key(key) >= number)


class Scaled(Point):
    """Fractions that are stored as a whole number of the scaling factor's parts."""

    order_missing = (math.inf, -math.inf)

    def set_up(self, options, analysis):
        self.minimum, self.maximum = -2 ** 63, 2 ** 63 - 1
        if "scaling_factor" not in options:
            raise Refusal(f"Field [{self.path}] misses required parameter [scaling_factor]")
        self.factor = float(options["scaling_factor"])

    def stored(self, value):
        return [] if value == "" else [math.floor(self.finite(value) * self.factor + 0.5)]

    def finite(self, value):
        number = parse_double(value)
        if not math.isfinite(number):
            raise Refusal(f"[scaled_float] only supports finite values, but got [{spelt(value)}]")
        return number

    def scaled(self, value):
        return float(Decimal(repr(self.finite(value))) * Decimal(repr(self.factor)))

    def term(self, value):
        key = math.floor(self.scaled(value) + 0.5)
        return key, key + 1

    def low(self, bounds):
        if bounds.low is None:
            return self.minimum
        number = self.scaled(bounds.low)
        return math.floor(number) + 1 if bounds.low_open else math.ceil(number)

    def high(self, bounds):
        if bounds.high is None:
            return self.maximum
        number = self.scaled(bounds.high)
        return math.ceil(number) - 1 if bounds.high_open else math.floor(number)

    def show(self, stored):
        return stored / self.factor

    def show_key(self, key):
        return key / self.factor, None

    def sort_value(self, key):
        return key / self.factor
