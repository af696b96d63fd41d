"""Dates: formats that read and write them, and date math that moves and rounds them."""

import datetime
import functools
import re
import zoneinfo
from collections import namedtuple

from .errors import Refusal, caused

DEFAULT_FORMAT = "strict_date_optional_time||epoch_millis"
EPOCH = datetime.date(1970, 1, 1).toordinal()
DAY = 86400 * 10 ** 9  # all times here are in nanoseconds since 1970

# The formats that have names, as patterns. A name with "strict_" before it asks for as many digits.
NAMED = {
    "date": "yyyy-MM-dd", "year_month_day": "yyyy-MM-dd", "year_month": "yyyy-MM", "year": "yyyy",
    "date_time": "yyyy-MM-dd'T'HH:mm:ss.SSSX", "date_time_no_millis": "yyyy-MM-dd'T'HH:mm:ssX",
    "date_hour": "yyyy-MM-dd'T'HH", "date_hour_minute": "yyyy-MM-dd'T'HH:mm",
    "date_hour_minute_second": "yyyy-MM-dd'T'HH:mm:ss", "date_hour_minute_second_fraction":
    "yyyy-MM-dd'T'HH:mm:ss.SSS", "date_hour_minute_second_millis": "yyyy-MM-dd'T'HH:mm:ss.SSS",
    "basic_date": "yyyyMMdd", "basic_date_time": "yyyyMMdd'T'HHmmss.SSSX",
    "basic_date_time_no_millis": "yyyyMMdd'T'HHmmssX", "hour_minute_second": "HH:mm:ss", "hour_minute": "HH:mm",
}
FREE = ("date_optional_time", "strict_date_optional_time", "strict_date_optional_time_nanos", "iso8601")
ZONE = r"(?P<zone>Z|[+-]\d\d(?::?\d\d(?::?\d\d)?)?)"
OPTIONAL_TIME = re.compile(
    r"(?P<year>\d{{{0}4}})(?:-(?P<month>\d{{{0}2}})(?:-(?P<day>\d{{{0}2}})(?:T(?:(?P<hour>\d{{{0}2}})"
    r"(?::(?P<minute>\d{{{0}2}})(?::(?P<second>\d{{{0}2}})(?:[.,](?P<fraction>\d{{1,9}}))?)?)?{1}?)?)?)?)?"
    .format("", ZONE))
LENIENT_TIME = re.compile(re.sub(r"\\d\{([24])\}", r"\\d{1,\1}", OPTIONAL_TIME.pattern))
PIECE = re.compile(r"'((?:[^']|'')*)'|([A-Za-z])\2*|[^A-Za-z']")
LETTERS = {"y": "year", "u": "year", "Y": "year", "M": "month", "L": "month", "d": "day", "H": "hour", "m": "minute",
           "s": "second", "S": "fraction"}
FRACTIONAL = re.compile(r"-?\d+(?:\.\d+)?")

# What is read of a date: any part but the year may be missing (None), the zone is the offset in seconds.
Parts = namedtuple("Parts", "year month day hour minute second fraction zone")


def days_in(year, month):
    return (datetime.date(year + month // 12, month % 12 + 1, 1) - datetime.date(year, month, 1)).days


def ordinal(year, month, day):
    """The number of a day as datetime's, also of one in the year 0, which is like the year 400."""
    return datetime.date(year or 400, month, day).toordinal() - (0 if year else 146097)


def compose(parts, round_up, zone):
    """The time that the parts tell; what they do not tell is the least, or the greatest when `round_up`."""
    year, month = 1970 if parts.year is None else parts.year, parts.month or (12 if round_up else 1)
    day = parts.day or (days_in(year or 400, month) if round_up else 1)
    hour, minute, second = (most * round_up if given is None else given for given, most in
                            zip((parts.hour, parts.minute, parts.second), (23, 59, 59)))
    fraction = (10 ** 9 - 1) * round_up if parts.fraction is None else int(parts.fraction.ljust(9, "0"))
    if hour > 23 or minute > 59 or second > 59:
        raise ValueError("no time of a day")
    whole = ((ordinal(year, month, day) - EPOCH) * 86400 + hour * 3600 + minute * 60 + second)
    return (whole - (parts.zone if parts.zone is not None else offset(zone, whole))) * 10 ** 9 + fraction


def offset(zone, seconds):
    """The seconds that the clocks of a zone (a text, None for UTC) are ahead at a local time."""
    if zone in (None, "Z", "UTC"):
        return 0
    sign = re.fullmatch(r"([+-])(\d\d):?(\d\d)?(?::?(\d\d))?", zone)
    if sign:
        return (-1 if sign[1] == "-" else 1) * (
            int(sign[2]) * 3600 + int(sign[3] or 0) * 60 + int(sign[4] or 0))
    try:
        known = zoneinfo.ZoneInfo(zone)
    except (ValueError, KeyError, OSError):
        raise Refusal(f"Unknown time-zone ID: {zone}", "zone_rules_exception")
    local = datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=seconds)
    return int(local.replace(tzinfo=known).utcoffset().total_seconds())


def parts_of(match):
    groups = match.groupdict()
    zone = groups.get("zone")
    numbers = [int(groups[name]) if groups.get(name) is not None else None
               for name in ("year", "month", "day", "hour", "minute", "second")]
    return Parts(*numbers, groups.get("fraction"), None if zone is None else offset(zone, 0))


@functools.lru_cache(None)
def pattern(format_name):
    """The regular expression of a format with a name, or of a pattern of letters."""
    bare = format_name[7:] if format_name.startswith("strict_") else format_name
    if format_name in FREE:
        return OPTIONAL_TIME if format_name != "date_optional_time" else LENIENT_TIME
    expression = ""
    for piece in PIECE.finditer(NAMED.get(bare, format_name)):
        text, letter = piece[0], piece[2]
        if not letter:
            expression += re.escape((piece[1] or "'").replace("''", "'") if text[0] == "'" else text)
        elif letter in "XxZ":
            expression += ZONE
        elif letter in LETTERS:
            digits = f"{{{len(text)}}}" if len(text) > 1 else "{1,9}"
            expression += f"(?P<{LETTERS[letter]}>\\d{digits})"
        else:
            raise Refusal(f"Invalid format: [{format_name}]: Unknown pattern letter: {letter}")
    try:
        return re.compile(expression)
    except re.error:
        raise Refusal(f"Invalid format: [{format_name}]")


def check(formats):
    """Refusal when there is no such format."""
    for name in formats.split("||"):
        if name not in ("epoch_millis", "epoch_second"):
            pattern(name)


def parse_one(text, name, round_up, zone):
    """The time of a text in a single format, or None when it is in another one."""
    if name in ("epoch_millis", "epoch_second"):
        factor = 10 ** 6 if name == "epoch_millis" else 10 ** 9
        whole, _, fraction = text.partition(".")
        if not FRACTIONAL.fullmatch(text) or len(whole) > 19:
            return None
        digits = len(str(factor)) - 1
        part = int((fraction or "0").ljust(digits, "0")[:digits])
        return int(whole) * factor + (-part if whole.startswith("-") else part) + (factor - 1) * round_up
    match = pattern(name).fullmatch(text)
    try:
        return match and compose(parts_of(match), round_up, zone)
    except ValueError:
        return None


def parse(text, formats, round_up=False, zone=None):
    """The time of a text in one of several formats ("a||b"); Refusal when it is in none of them."""
    for name in formats.split("||"):
        found = parse_one(text, name, round_up, zone)
        if found is not None:
            return found
    raise Refusal(f"failed to parse date field [{text}] with format [{formats}]", cause={
        "type": "date_time_parse_exception", "reason": "Failed to parse with all enclosed parsers"})


def resolve(text, formats, round_up, zone, now):
    """The time of a query's text: a date, or date math that starts from `now` or from a date before "||"."""
    if text.startswith("now"):
        return calculate(now(), text[3:], round_up)
    date, separator, math = text.partition("||")
    try:
        if separator:
            return calculate(parse(date, formats, False, zone), math, round_up)
        return parse(text, formats, round_up, zone)
    except Refusal as refusal:
        raise Refusal(f"failed to parse date field [{text}] with format [{formats}]: [{refusal.reason}]",
                      "parse_exception", caused(refusal)) if refusal.kind != "parse_exception" else refusal


UNITS = {"s": 10 ** 9, "m": 60 * 10 ** 9, "h": 3600 * 10 ** 9, "H": 3600 * 10 ** 9, "d": DAY, "w": 7 * DAY}


def calculate(time, math, round_up):
    place = 0
    while place < len(math):
        step = re.compile(r"([+/-])(\d*)(.?)", re.DOTALL).match(math, place)
        if not step:
            raise Refusal(f"operator not supported for date math [{math}]", "parse_exception")
        sign, count, unit = step.groups()
        if not unit:
            raise Refusal(f"truncated date math [{math}]", "parse_exception")
        if unit not in "yMwdhHms":
            raise Refusal(f"unit [{unit}] not supported for date math [{math}]", "parse_exception")
        if sign == "/":
            if count not in ("", "1"):
                raise Refusal(f"rounding `/` can only be used on single unit types [{math}]", "parse_exception")
            time = floor(time, unit)
            time = move(time, 1, unit) - 1 if round_up else time
        else:
            time = move(time, int(sign + (count or "1")), unit)
        place = step.end()
    return time


def split(time):
    """(date, nanoseconds of the day) of a time."""
    return datetime.date.fromordinal(EPOCH + time // DAY), time % DAY


def move(time, count, unit):
    """The time so many units later."""
    if unit in UNITS:
        return time + count * UNITS[unit]
    date, rest = split(time)
    months = date.year * 12 + date.month - 1 + count * (12 if unit == "y" else 1)
    year, month = months // 12, months % 12 + 1
    moved = datetime.date(year, month, min(date.day, days_in(year, month)))
    return (moved.toordinal() - EPOCH) * DAY + rest


def floor(time, unit):
    """The time at which its unit, such as the month, began."""
    if unit in "smhHd":
        return time - time % UNITS[unit]
    date, _ = split(time)
    first = {"w": lambda: date - datetime.timedelta(days=date.weekday()), "M": lambda: date.replace(day=1),
             "q": lambda: date.replace(day=1, month=(date.month - 1) // 3 * 3 + 1),
             "y": lambda: date.replace(day=1, month=1)}[unit]()
    return (first.toordinal() - EPOCH) * DAY


def write(time, formats):
    """The time as text in the first of the formats."""
    name = formats.split("||")[0]
    if name in ("epoch_millis", "epoch_second"):
        return str(time // (10 ** 6 if name == "epoch_millis" else 10 ** 9))
    date, rest = split(time)
    seconds, nanos = divmod(rest, 10 ** 9)
    numbers = {"y": date.year, "u": date.year, "Y": date.year, "M": date.month, "L": date.month, "d": date.day,
               "H": seconds // 3600, "m": seconds // 60 % 60, "s": seconds % 60}

    def spell(piece):
        if not piece[2]:
            return (piece[1] or "'").replace("''", "'") if piece[0][0] == "'" else piece[0]
        if piece[2] in "XxZ":
            return "Z"
        if piece[2] == "S":
            return f"{nanos:09}"[:len(piece[0])]
        return f"{numbers[piece[2]]:0{len(piece[0])}}"

    bare = name[7:] if name.startswith("strict_") else name
    digits = "SSSSSSSSS" if nanos % 10 ** 6 else "SSS"
    return PIECE.sub(spell, f"yyyy-MM-dd'T'HH:mm:ss.{digits}X" if name in FREE else NAMED.get(bare, name))
