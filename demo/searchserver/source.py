"""Source filtering: which members of a document a response shows."""

import fnmatch

from .errors import ParseError


def parse(given, path):
    """False for no source, None for the whole one, else (includes, excludes); or ParseError."""
    if given is True or given is None:
        return None
    if given is False:
        return False
    if isinstance(given, dict):
        for key in given:
            if key not in ("include", "includes", "exclude", "excludes"):
                raise ParseError((*path, key), f"Unknown key for a START_ARRAY in [{key}].")
        includes = patterns(given.get("includes", given.get("include", [])), path)
        excludes = patterns(given.get("excludes", given.get("exclude", [])), path)
    else:
        includes, excludes = patterns(given, path), []
    return (includes, excludes) if includes or excludes else None


def patterns(given, path):
    given = [given] if isinstance(given, str) else given
    if not isinstance(given, list) or not all(isinstance(item, str) for item in given):
        raise ParseError(path, "Expected one of [VALUE_BOOLEAN, VALUE_STRING, START_ARRAY, START_OBJECT]")
    return given


def matches(path, given):
    return any(fnmatch.fnmatchcase(path, pattern) for pattern in given)


def select(source, includes, excludes, path=""):
    """The object with only the members that the patterns leave; a named object brings all it holds."""
    kept = {}
    for key, value in source.items():
        place = f"{path}{key}"
        if matches(place, excludes):
            continue
        included = not includes or matches(place, includes)
        if included and not excludes:
            kept[key] = value
        elif isinstance(value, dict):
            inner = select(value, [] if included else includes, excludes, f"{place}.")
            if inner or included:
                kept[key] = inner
        elif isinstance(value, list) and any(isinstance(item, dict) for item in value):
            inner = [select(item, [] if included else includes, excludes, f"{place}.")
                     if isinstance(item, dict) else item
                     for item in value if included or isinstance(item, dict)]
            inner = [item for item in inner if item or included]
            if inner or included:
                kept[key] = inner
        elif included:
            kept[key] = value
    return kept


def table_order(value):
    """The value with the members of its objects in the order of a hash table of Java's, as filtered sources come."""
    if isinstance(value, list):
        return [table_order(inner) for inner in value]
    if not isinstance(value, dict):
        return value
    size = 16
    while len(value) > size * 3 // 4:
        size *= 2
    return {key: table_order(value[key]) for key in sorted(value, key=lambda key: java_hash(key) & size - 1)}


def java_hash(text):
    digest = 0
    units = text.encode("utf-16-be", "surrogatepass")
    for high, low in zip(units[::2], units[1::2]):
        digest = digest * 31 + (high << 8 | low) & 0xffffffff
    return digest ^ digest >> 16
