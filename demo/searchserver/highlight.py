"""Highlighting: the fragments of a document's texts in which the words of the query are marked."""

import fnmatch
import re

from .analysis import Token
from .errors import ParseError
from .strings import Keyword, Text

DEFAULTS = {"pre_tags": ["<em>"], "post_tags": ["</em>"], "fragment_size": 100, "number_of_fragments": 5,
            "require_field_match": True, "no_match_size": 0, "order": "none", "type": "unified"}
SENTENCE = re.compile(r".+?(?:[.!?\u2026]+[\"'\u201d\u2019)]*(?=\s|$)\s*|$)", re.DOTALL)


def parse(given, path):
    """[(field pattern, options)] of a request's "highlight" object."""
    if not isinstance(given, dict):
        raise ParseError(path, "[highlight] must be an object")
    common = {**DEFAULTS, **options(given, path, ("fields",))}
    fields = given.get("fields", {})
    named = [item for entry in (fields if isinstance(fields, list) else [fields]) for item in entry.items()]
    return [(name, {**common, **options(own, (*path, "fields", name))}) for name, own in named]


def options(given, path, more=()):
    for key in given:
        if key not in DEFAULTS and key not in more:
            raise ParseError(path, f"[highlight] unknown field [{key}]")
    return {key: value for key, value in given.items() if key in DEFAULTS}


def highlight(hit, wanted, marks):
    """{field: [fragments]} of the fields that hold a marked word; `wanted` from parse, `marks` a query's."""
    found, mapping = {}, hit.shard.index.mapping
    for pattern, how in wanted:
        names = [pattern] if "*" not in pattern else [
            name for name in mapping.fields if fnmatch.fnmatchcase(name, pattern) and name != "_id"]
        for name in names:
            field = mapping.field(name)
            if not isinstance(field, Keyword):
                continue
            tests = [test for asked, test in marks if asked == name or not how["require_field_match"]]
            texts = hit.document.values.get(field.path, [])
            words = field.analyzer.tokens if isinstance(field, Text) else whole
            parts = [part for text in texts for part in fragments(text, words(text), tests, how)]
            if how["order"] == "score":
                parts.sort(key=lambda part: -part[0])
            parts = [part for _, part in parts][:how["number_of_fragments"] or None]
            if not parts and texts and how["no_match_size"]:
                parts = [texts[0][:how["no_match_size"]]]
            if parts:
                found[name] = parts
    return found


def whole(text):
    """A keyword as the only token of its text."""
    return [Token(text, 0, len(text), 0, "word")]


def fragments(text, words, tests, how):
    """(number of marks, marked text) of each fragment, about fragment_size characters long."""
    hits = [(word.start, word.end) for word in words if any(test(word.text) for test in tests)]
    if hits and how["number_of_fragments"] == 0:
        return [(len(hits), mark(text, 0, len(text), hits, how))]
    parts, done = [], 0
    sentences = [match.span() for match in SENTENCE.finditer(text)]
    while hits:
        begin, end = window(text, sentences, hits[0], done, how["fragment_size"])
        inside = [hit for hit in hits if hit[1] <= end]
        parts.append((len(inside), mark(text, begin, end, inside, how)))
        hits, done = hits[len(inside):], end
    return parts


def window(text, sentences, hit, done, size):
    """Begin and end of the fragment around a hit: whole sentences up to `size`, or words of a longer one."""
    begin, end = next(span for span in sentences if span[1] > hit[0])
    begin = max(begin, done)
    if end - begin > size:
        if hit[1] - begin > size:
            begin = text.rfind(" ", begin, max(hit[0] - size // 3, begin + 1)) + 1 or hit[0]
        cut = text.rfind(" ", hit[1], begin + size)
        return begin, max(cut, hit[1])
    for span in sentences:
        if span[0] >= end and span[1] - begin <= size:
            end = span[1]
    return begin, end


def mark(text, begin, end, hits, how):
    pieces, place = [], begin
    for start, stop in hits:
        pieces += [text[place:start], how["pre_tags"][0], text[start:stop], how["post_tags"][0]]
        place = stop
    return "".join([*pieces, text[place:end]]).strip()
