"""Query results as text: a table like psql's, with long values wrapped and compressed ones made readable."""

import json
import struct
import textwrap
import unicodedata
import zlib

WIDTH = 110  # columns of the whole table
MAX_LINES = 8  # of one value


def readable(value):
    """A value as text; a bytea is a document: a 4-byte length and a zlib stream, or plain text."""
    if value is None:
        return ""
    if isinstance(value, (bytes, memoryview)):
        data = bytes(value)
        try:
            plain = zlib.decompress(data[4:])
            if len(plain) == struct.unpack("<I", data[:4])[0]:
                data = plain
        except (zlib.error, struct.error):
            pass  # stored as it is
        return data.decode("utf-8", "replace")
    if isinstance(value, (dict, list)):  # as the driver reads json
        return json.dumps(value, ensure_ascii=False)
    return str(value)


def width(text):
    """Columns that a text takes on a terminal, where East Asian characters take two."""
    return sum(2 if unicodedata.east_asian_width(char) in "WF" else 0 if unicodedata.combining(char) else 1
               for char in text)


def column_widths(cells):
    """The width of each column so that the table fits; the widest column gives way first."""
    widths = [max(width(line) for cell in column for line in cell.split("\n")) for column in zip(*cells)]
    room = WIDTH - 3 * len(widths)
    while sum(widths) > room and max(widths) > 8:
        widths[widths.index(max(widths))] -= 1
    return widths


def wrap(text, columns):
    lines = [part for line in text.split("\n") for part in textwrap.wrap(line, columns) or [""]]
    if len(lines) > MAX_LINES:
        lines = lines[:MAX_LINES]
        lines[-1] = lines[-1][:columns - 4] + " ..."
    return lines


def table(names, rows):
    """The lines of a table with these column names; numbers stand to the right."""
    cells = [list(names)] + [[readable(value) for value in row] for row in rows]
    widths = column_widths(cells)
    numeric = [bool(rows) and all(isinstance(row[place], (int, float)) for row in rows)
               for place in range(len(names))]
    yield " | ".join(f"{name:^{columns}}" for name, columns in zip(names, widths)).join("  ").rstrip()
    yield "+".join("-" * (columns + 2) for columns in widths)
    for row in cells[1:]:
        wrapped = [wrap(cell, columns) for cell, columns in zip(row, widths)]
        for line in range(max(map(len, wrapped))):
            parts = []
            for cell, columns, right in zip(wrapped, widths, numeric):
                text = cell[line] if line < len(cell) else ""
                blanks = " " * (columns - width(text))
                parts.append(blanks + text if right else text + blanks)
            yield (" " + " | ".join(parts)).rstrip()
