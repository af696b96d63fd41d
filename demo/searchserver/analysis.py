"""Text to tokens: what the index, the queries and the highlighter agree on."""

import re
import unicodedata
from collections import namedtuple

from .errors import illegal_argument

Token = namedtuple("Token", "text start end position kind")

# Han and Hiragana characters and emoji are tokens of their own; other words are runs of letters and digits, which
# some signs join when they stand between two letters or between two digits.
SINGLE = "\u3040-\u309f\u3400-\u9fff\uf900-\ufaff\u2600-\u27bf\U0001f300-\U0001faff"
PART = f"[^\\W{SINGLE}]+"
STANDARD = re.compile(f"[{SINGLE}]|{PART}(?:(?:(?<=[^\\W\\d])['\u2019.:\u00b7](?=[^\\W\\d{SINGLE}])"
                      f"|(?<=\\d)['.,;](?=\\d)){PART})*")
TOKENIZERS = {"standard": STANDARD, "letter": re.compile(r"[^\W\d_]+"), "lowercase": re.compile(r"[^\W\d_]+"),
              "whitespace": re.compile(r"\S+"), "keyword": re.compile(r".+", re.DOTALL)}
KINDS = (("[\u3040-\u309f]", "<HIRAGANA>"), ("[\u30a0-\u30ff]", "<KATAKANA>"),
         ("[\u3400-\u9fff\uf900-\ufaff]", "<IDEOGRAPHIC>"), ("[\u2600-\u27bf\U0001f300-\U0001faff]", "<EMOJI>"),
         (r"\d", "<NUM>"), ("", "<ALPHANUM>"))
STOP_WORDS = frozenset(("a an and are as at be but by for if in into is it no not of on or such that the their then"
                        " there these they this to was will with").split())


def fold(text):
    """The text without the marks of its letters."""
    return "".join(part for part in unicodedata.normalize("NFKD", text) if not unicodedata.combining(part))


# What becomes of a token; None when it is left out.
FILTERS = {"lowercase": str.lower, "uppercase": str.upper, "asciifolding": fold, "trim": str.strip,
           "stop": lambda text: None if text in STOP_WORDS else text}


class Analyzer:
    """A tokenizer and the filters, by name or as functions, that its tokens go through."""

    def __init__(self, tokenizer, filters):
        if tokenizer not in TOKENIZERS:
            raise illegal_argument(f"failed to find tokenizer [{tokenizer}]")
        for name in filters:
            if not callable(name) and name not in FILTERS:
                raise illegal_argument(f"failed to find filter [{name}]")
        self.tokenizer = tokenizer
        self.pattern = TOKENIZERS[tokenizer]
        self.filters = [FILTERS.get(name, name) for name in filters]

    def filtered(self, text):
        for change in self.filters:
            text = text if text is None else change(text)
        return text

    def terms(self, text):
        """The tokens of a text as plain strings."""
        found = map(self.filtered, self.pattern.findall(text))
        return [term for term in found if term is not None]

    def tokens(self, text):
        """The tokens of a text with their places; what a filter leaves out keeps its position."""
        kept = []
        for position, match in enumerate(self.pattern.finditer(text)):
            term = self.filtered(match.group())
            if term is not None:
                kept.append(Token(term, *match.span(), position, self.kind(match.group())))
        return kept

    def kind(self, text):
        if self.tokenizer != "standard":
            return "word"
        return next(name for start, name in KINDS if re.match(start, text))


NAMED = {"standard": Analyzer("standard", ["lowercase"]), "simple": Analyzer("letter", ["lowercase"]),
         "stop": Analyzer("letter", ["lowercase", "stop"]), "whitespace": Analyzer("whitespace", []),
         "keyword": Analyzer("keyword", [])}


class Analysis:
    """The analyzers and normalizers of an index by name: those of every index and those of its settings."""

    def __init__(self, settings):
        self.analyzers = {**NAMED, **{
            name: Analyzer(given.get("tokenizer", "standard"), names(given.get("filter", [])))
            if given.get("type", "custom") == "custom" else self.named(given["type"])
            for name, given in settings.get("analyzer", {}).items()}}
        self.normalizers = {"lowercase": Analyzer("keyword", ["lowercase"]), **{
            name: Analyzer("keyword", names(given.get("filter", [])))
            for name, given in settings.get("normalizer", {}).items()}}

    def named(self, name):
        known = getattr(self, "analyzers", NAMED)
        if name not in known:
            raise illegal_argument(f"failed to find global analyzer [{name}]")
        return known[name]

    def normalizer(self, name):
        """The function that a keyword's values go through."""
        if name not in self.normalizers:
            raise illegal_argument(f"normalizer [{name}] not found")
        return self.normalizers[name].filtered


def names(given):
    return [given] if isinstance(given, str) else given
