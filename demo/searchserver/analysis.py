"""Text to tokens, sources to fields: what the index, the queries and the highlighter agree on."""

import re

# Han and kana characters are tokens of their own; other words are runs of letters, digits and apostrophes.
SINGLE = "\u3040-\u30ff\u3400-\u9fff"
WORD = re.compile(f"[{SINGLE}]|[^\\W{SINGLE}]+(?:['\u2019][^\\W{SINGLE}]+)*")


def words(text):
    """The tokens of a text: (lower-case token, start, end) each."""
    return [(match.group().lower(), match.start(), match.end()) for match in WORD.finditer(text)]


def tokens(text):
    """The lower-case tokens of a text."""
    return [word.lower() for word in WORD.findall(text)]


def flatten(source):
    """The leaves of a source: {dotted path: [scalars]}; an array's elements share a path, nulls have none."""
    leaves = {}
    add_leaves(source, "", leaves)
    return leaves


def add_leaves(value, path, leaves):
    if isinstance(value, dict):
        for key, child in value.items():
            add_leaves(child, f"{path}.{key}" if path else key, leaves)
    elif isinstance(value, list):
        for child in value:
            add_leaves(child, path, leaves)
    elif value is not None:
        leaves.setdefault(path, []).append(value)


def is_number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def term_key(value):
    """A scalar as an exact term: 1851 and 1851.0 are the same one, booleans are spelt in lower case."""
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, float) and value.is_integer():
        return str(int(value))
    return str(value)
