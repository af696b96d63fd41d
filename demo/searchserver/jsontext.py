"""JSON as text: written the way the interface writes it, read with the place of every fault known."""

import json
import re
import struct
from json.decoder import scanstring

from .errors import typed

BEYOND_BMP = re.compile("[\ud800-\udfff\U00010000-\U0010ffff]")
CONTROL = re.compile(r"\\(?:u00([01][0-9a-f])|.)")
BLANKS = re.compile(r"[ \t\n\r]*")
DECODER = json.JSONDecoder()


def escape_units(match):
    units = match.group().encode("utf-16-be", "surrogatepass")
    return "".join(f"\\u{high:02X}{low:02X}" for high, low in zip(units[::2], units[1::2]))


def write(value):
    """`value` as compact JSON: UTF-8, but surrogate pairs and control characters as upper-case escapes."""
    text = json.dumps(value, ensure_ascii=False, separators=(",", ":"))
    text = CONTROL.sub(lambda m: f"\\u00{m[1].upper()}" if m[1] else m[0], text)
    return BEYOND_BMP.sub(escape_units, text)


def write_score(score):
    """A score as the shortest decimal that gives the same single-precision number."""
    if score is None:
        return "null"
    single = struct.pack("f", score)
    shortest = next(text for text in (f"{score:.{digits}g}" for digits in range(1, 10))
                    if struct.pack("f", float(text)) == single)
    value = float(shortest)
    if value == 0 or 1e-3 <= abs(value) < 1e7:
        return f"{value:.10f}".rstrip("0") + ("0" if value == int(value) else "")
    mantissa, exponent = f"{value:.8e}".split("e")
    return f"{mantissa.rstrip('0')}{'0' if mantissa.rstrip('0').endswith('.') else ''}E{int(exponent)}"


def refuse_constant(name):
    raise json.JSONDecodeError(f"Unexpected token {name}", "", 0)


def read(data):
    """The value and text of a JSON request body (bytes); SearchError 400 when it is malformed."""
    try:
        text = data.decode("utf-8")
    except UnicodeDecodeError as error:
        raise typed(400, "json_parse_exception", f"Invalid UTF-8 byte 0x{data[error.start]:x}")
    try:
        return json.loads(text, parse_constant=refuse_constant), text
    except RecursionError:
        raise typed(400, "json_parse_exception", "Too many brackets within each other")
    except json.JSONDecodeError as error:
        at_end = not text[error.pos:].strip() or error.msg.startswith("Unterminated string")
        if at_end:
            kind, reason = "json_e_o_f_exception", "Unexpected end-of-input within/between Object entries"
        else:
            kind = "json_parse_exception"
            reason = f"Unexpected character ('{text[error.pos]}' (code {ord(text[error.pos])})): {error.msg}"
        raise typed(400, kind, f"{reason}\n at line: {error.lineno}, column: {error.colno}")


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
