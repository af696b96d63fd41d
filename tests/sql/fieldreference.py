"""What columns show of a document's fields, read plainly from its text: the reference for the search wrapper."""
import ipaddress
import json
import re
import struct
from datetime import datetime, timedelta, timezone
from decimal import ROUND_HALF_UP, Decimal, getcontext

NUMBER = re.compile(r"-?\d+(\.\d+)?([eE][+-]?\d+)?")
ISO = re.compile(r"(\d{4})(?:-(\d\d)(?:-(\d\d)(?:T(\d\d)(?::(\d\d)(?::(\d\d)(?:[.,](\d{1,9}))?)?)?"
                 r"(?:Z|([+-]\d\d):?(\d\d)?)?)?)?)?", re.ASCII)
UUID = re.compile(r"\{?[0-9a-f]{8}(-?[0-9a-f]{4}){3}-?[0-9a-f]{12}\}?", re.I)
EPOCH = datetime(1970, 1, 1, tzinfo=timezone.utc)
UNITS = {"epoch_millis": 1000, "epoch_second": 10 ** 6}  # in microseconds

getcontext().prec = 700


class Bad(Exception):
    """A value that does not fit its column."""


class Number(str):
    """A number as it is spelt."""


def read(text):
    return json.loads(text, parse_int=Number, parse_float=Number)


def spelt(value):
    if isinstance(value, dict):
        return "{%s}" % ",".join(f"{json.dumps(name)}:{spelt(inner)}" for name, inner in value.items())
    if isinstance(value, list):
        return "[%s]" % ",".join(map(spelt, value))
    return value if isinstance(value, Number) else json.dumps(value)


def places(value, names):
    """What stands at a path, however its names are put together, in each of the objects of arrays."""
    if not names:
        yield value
    elif isinstance(value, list):
        for each in value:
            yield from places(each, names)
    elif isinstance(value, dict):
        for name, inner in value.items():
            parts = name.split(".")
            if names[:len(parts)] == parts:
                yield from places(inner, names[len(parts):])


def flat(values):
    for value in values:
        if isinstance(value, list):
            yield from flat(value)
        else:
            yield value


def whole(value, bits):
    if not isinstance(value, str) or not NUMBER.fullmatch(value):
        raise Bad
    number = int(value) if re.fullmatch(r"-?\d+", value) else float(value)
    if isinstance(number, float) and (abs(number) >= 2 ** 53 or number % 1) or not -2 ** bits <= number < 2 ** bits:
        raise Bad
    return str(int(number))


def floating(value, form):
    """Beyond the type's range, and what it would make zero of, is bad."""
    if not isinstance(value, str) or not NUMBER.fullmatch(value):
        raise Bad
    try:
        packed, = struct.unpack(form, struct.pack(form, float(value)))
    except OverflowError:
        raise Bad
    if abs(packed) == float("inf") or (packed == 0) != (Decimal(value) == 0):
        raise Bad
    return str(value)


def numeric(value, precision, scale):
    if not isinstance(value, str) or not NUMBER.fullmatch(value):
        raise Bad
    number = Decimal(value)
    if precision and abs(number.quantize(Decimal(1).scaleb(-scale),
                                         ROUND_HALF_UP)) >= Decimal(10) ** (precision - scale):
        raise Bad
    return str(value)


def boolean(value):
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, Number) or value not in ("true", "false", ""):
        raise Bad
    return value or "false"


def instant(value, unit):
    """Microseconds since 1970."""
    if unit and isinstance(value, str) and NUMBER.fullmatch(value):
        return int((Decimal(value) * unit).to_integral_value("ROUND_FLOOR"))
    match = isinstance(value, str) and not isinstance(value, Number) and ISO.fullmatch(value)
    if not match:
        raise Bad
    year, month, day, hour, minute, second = (int(part or least) for part,
                                              least in zip(match.groups(), (0, 1, 1, 0, 0, 0)))
    try:
        local = datetime(year, month, day, hour, minute, second, tzinfo=timezone.utc)
    except ValueError:
        raise Bad
    ahead = int(match[8] or 0) * 60 + int(match[9] or 0) * (-1 if (match[8] or "").startswith("-") else 1)
    fraction = int((match[7] or "").ljust(6, "0")[:6])
    return (local - EPOCH) // timedelta(microseconds=1) + fraction - ahead * 60 * 10 ** 6


def text(value, kind, labels):
    if isinstance(value, dict) or (isinstance(value, Number) and not re.fullmatch(r"0|-?[1-9]\d*", value)):
        raise Bad
    shown = str(value) if isinstance(value, str) else json.dumps(value)
    length = re.fullmatch(r"varchar\((\d+)\)", kind)
    if (length and len(shown) > int(length[1])) or (labels and shown not in labels):
        raise Bad
    if kind == "uuid" and not UUID.fullmatch(shown):
        raise Bad
    if kind == "inet":
        try:
            ipaddress.ip_address(shown)
        except ValueError:
            raise Bad
    return shown


def scalar(value, kind, date_format, labels):
    """A value as SQL reads it for a type, None for NULL; or Bad."""
    if value is None:
        return None
    if kind in ("int2", "int4", "int8"):
        return whole(value, int(kind[3:]) * 8 - 1)
    if kind in ("float4", "float8"):
        return floating(value, {"float4": "f", "float8": "d"}[kind])
    if kind.startswith("numeric"):
        return numeric(value, *(map(int, re.findall(r"\d+", kind)) if "(" in kind else (0, 0)))
    if kind == "bool":
        return boolean(value)
    if kind == "date" or kind.startswith("timestamp"):
        try:
            moment = EPOCH + timedelta(microseconds=instant(value, UNITS.get(date_format)))
        except OverflowError:  # long before PostgreSQL's first day
            raise Bad
        return moment.isoformat() if kind.startswith("timestamptz") else moment.replace(tzinfo=None).isoformat()
    return spelt(value) if kind == "jsonb" else text(value, kind, labels)


def column_value(source, path, kind, date_format=None, labels=()):
    """The value of a column in the form of psycopg2's: text, a list of texts or None; or Bad."""
    found = list(places(source, path.split(".")))
    if found in ([], [None]):
        return None
    if kind == "jsonb":
        return spelt(found[0] if len(found) == 1 else found)
    if kind.endswith("[]"):
        return [scalar(value, kind[:-2], date_format, labels) for value in flat(found)]
    values = [value for value in flat(found) if value is not None]
    shown = [scalar(value, kind, date_format, labels) for value in values]
    if len(shown) > 1:
        raise Bad
    return shown[0] if shown else None
