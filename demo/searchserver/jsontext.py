"""JSON as text: written the way the interface writes it, read with the place of every fault known."""

import json
import re
import struct
from json.decoder import scanstring
from json.encoder import encode_basestring

from .errors import typed

BEYOND_BMP = re.compile("[\ud800-\udfff\U00010000-\U0010ffff]")
CONTROL = re.compile(r"\\(?:u00([01][0-9a-f])|.)")
BLANKS = re.compile(r"[ \t\n\r]*")
DECODER = json.JSONDecoder()


class RawFloat(float):
    """A number with a point or an exponent, and the text that it was read from."""

    def __new__(cls, text):
        number = super().__new__(cls, text)
        number.text = text
        return number


class Score(float):
    """A number in single precision."""


class DuplicateKey(Exception):
    """An object that names a member twice."""


def escape_units(match):
    units = match.group().encode("utf-16-be", "surrogatepass")
    return "".join(f"\\u{high:02X}{low:02X}" for high, low in zip(units[::2], units[1::2]))


def write_string(value):
    """A string in quotes: UTF-8, but surrogate pairs and control characters as upper-case escapes."""
    text = encode_basestring(value)
    if value.isascii() and value.isprintable():
        return text
    text = CONTROL.sub(lambda m: f"\\u00{m[1].upper()}" if m[1] else m[0], text)
    return BEYOND_BMP.sub(escape_units, text)


def write(value):
    """`value` as compact JSON."""
    if isinstance(value, str):
        return write_string(value)
    if value is None or isinstance(value, bool):
        return {None: "null", True: "true", False: "false"}[value]
    if isinstance(value, int):
        return str(int(value))
    if isinstance(value, Score):
        return write_score(value)
    if isinstance(value, float):
        return write_double(value) if value - value == 0 else f'"{write_double(value)}"'
    if isinstance(value, dict):
        return "{" + ",".join([f"{write_string(key)}:{write(inner)}" for key, inner in value.items()]) + "}"
    return "[" + ",".join([write(inner) for inner in value]) + "]"


def write_decimal(shortest):
    """A decimal number as Java spells it: plain between 1e-3 and 1e7, with an exponent beyond."""
    value = float(shortest)
    if value == 0 or 1e-3 <= abs(value) < 1e7:
        text = f"{value:.20f}" if "e" in shortest else shortest
        text = text if "." in text else text + ".0"
        return text.rstrip("0") + ("0" if text.rstrip("0").endswith(".") else "")
    sign, digits = ("-", shortest[1:]) if shortest.startswith("-") else ("", shortest)
    mantissa, _, exponent = digits.partition("e")
    whole, _, fraction = mantissa.partition(".")
    significant = (whole + fraction).lstrip("0")
    power = int(exponent or 0) + len(whole) - 1 - (len(whole + fraction) - len(significant))
    significant = significant.rstrip("0")
    return f"{sign}{significant[0]}.{significant[1:] or '0'}E{power}"


def write_double(value):
    """A double as Java spells it."""
    if value != value:
        return "NaN"
    if value in (float("inf"), float("-inf")):
        return "Infinity" if value > 0 else "-Infinity"
    return write_decimal(float.__repr__(value))


def write_score(score):
    """A score as the shortest decimal that gives the same single-precision number."""
    if score is None:
        return "null"
    single = struct.pack("f", score)
    return write_decimal(next(text for text in (f"{score:.{digits}g}" for digits in range(1, 10))
                              if struct.pack("f", float(text)) == single))


def refuse_constant(name):
    raise json.JSONDecodeError(f"Unexpected token {name}", "", 0)


def unique_members(pairs):
    value = dict(pairs)
    if len(value) < len(pairs):
        raise DuplicateKey
    return value


def fault(text, position, kind, reason):
    """The SearchError of a fault before the character at `position`."""
    line = text.count("\n", 0, position) + 1
    return typed(400, kind, f"{reason}\n at line: {line}, column: {position - text.rfind(chr(10), 0, position)}")


def read(data):
    """The value and text of a JSON request body (bytes); SearchError 400 when it is malformed."""
    try:
        text = data.decode("utf-8")
    except UnicodeDecodeError as error:
        raise typed(400, "json_parse_exception", f"Invalid UTF-8 byte 0x{data[error.start]:x}")
    return read_text(text), text


def read_text(text):
    """The value of JSON text, its fractions as RawFloat; SearchError 400 when it is malformed."""
    try:
        return json.loads(text, parse_constant=refuse_constant, parse_float=RawFloat,
                          object_pairs_hook=unique_members)
    except RecursionError:
        raise typed(400, "json_parse_exception", "Too many brackets within each other")
    except DuplicateKey:
        key, end = find_duplicate(text, BLANKS.match(text).end())
        raise fault(text, end, "json_parse_exception", f"Duplicate field '{key}'")
    except json.JSONDecodeError as error:
        if not text[error.pos:].strip() or error.msg.startswith("Unterminated string"):
            raise fault(text, error.pos, "json_e_o_f_exception",
                        "Unexpected end-of-input within/between Object entries")
        character = text[error.pos]
        raise fault(text, error.pos + 1, "json_parse_exception",
                    f"Unexpected character ('{character}' (code {ord(character)})): {error.msg}")


def find_duplicate(text, start):
    """The first key that its object names twice, and where it ends for the second time; None when there is none."""
    known = set()
    for key, place in members(text, start) if text[start] in "{[" else ():
        if text[start] == "{" and key in known:
            return key, text.rindex('"', 0, text.rindex(":", 0, place)) + 1
        known.add(key)
        inner = find_duplicate(text, place)
        if inner:
            return inner
    return None


def locate(text, path):
    """Line and column (from 1) of the value that `path` leads to in well-formed JSON text."""
    start = BLANKS.match(text).end()
    for step in path:
        start = next(place for key, place in members(text, start) if key == step)
    return text.count("\n", 0, start) + 1, start - text.rfind("\n", 0, start)


def members(text, start):
    """The key (or position) and the start of each value of the object or array that starts there."""
    is_object = text[start] == "{"
    place, position = BLANKS.match(text, start + 1).end(), 0
    while text[place] not in "]}":
        key = position
        if is_object:
            key, place = scanstring(text, place + 1)
            place = BLANKS.match(text, BLANKS.match(text, place).end() + 1).end()
        yield key, place
        place = BLANKS.match(text, DECODER.raw_decode(text, place)[1]).end()
        if text[place] == ",":
            place = BLANKS.match(text, place + 1).end()
        position += 1
