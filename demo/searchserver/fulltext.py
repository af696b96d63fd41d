"""Queries for words in texts."""

import fnmatch

from .compound import Bool, required_matches
from .errors import ParseError, Refusal
from .leafqueries import Term
from .querybase import Constant, Everything, Query, boost_of, only_keys, parser, searchable, value_and_options
from .scoring import single
from .strings import Keyword, asked

MATCH_KEYS = ("query", "operator", "minimum_should_match", "zero_terms_query", "lenient", "boost", "analyzer")


class Word(Term):
    """A word as it stands in the index of a text."""

    def evaluate(self, level):
        return level.column(self.name).scores(self.value, self.boost)

    def explain(self, level, place):
        return level.column(self.name).explain(self.value, place, self.boost)


class Match(Query):
    """Documents with the words of a text in a field; in fields that are no text, with the value itself."""

    def __init__(self, name, text, options):
        super().__init__([(name, lambda token: token in self.marked)])
        self.name, self.text, self.options = name, text, options
        self.marked = set()  # words, known when a field has been asked
        self.boost = boost_of(options)

    def resolve(self, level):
        """The query for the words, as the field's analyzer finds them."""
        column = searchable(level, self.name)
        if column is None:
            return Constant(lambda level: (), 1.0, "MatchNoDocsQuery")
        if not column.analyzed:
            return Term(self.name, self.text, self.boost)
        analysis = level.mapping.analysis
        analyzer = analysis.named(self.options["analyzer"]) if "analyzer" in self.options else (
            column.field.search_analyzer)
        words = list(dict.fromkeys(analyzer.terms(asked(self.text))))
        self.marked.update(words)
        if not words:
            wanted = self.options.get("zero_terms_query", "none") == "all"
            return Everything() if wanted else Constant(lambda level: (), 1.0, "MatchNoDocsQuery")
        found = [Word(self.name, word, self.boost) for word in words]
        if len(found) == 1:
            return found[0]
        if operator(self.options) == "AND":
            return Bool(found, [], [], [])
        either = Bool([], [], found, [])
        if self.options.get("minimum_should_match") is not None:
            either.needed = max(1, required_matches(self.options["minimum_should_match"], len(found)))
        return either

    def evaluate(self, level):
        try:
            return self.resolve(level).evaluate(level)
        except Refusal:
            if self.options.get("lenient"):
                return {}
            raise

    def explain(self, level, place):
        return self.resolve(level).explain(level, place)

    def describe(self):
        return f"{self.name}:{self.text}"


def operator(options):
    return str(options.get("operator", "or")).upper()


def check_operator(options, path):
    if operator(options) not in ("AND", "OR"):
        raise ParseError((*path, "operator"), f"operator needs to be either OR or AND, found [{operator(options)}]")


@parser("match")
def parse_match(body, path, dialect):
    field, text, options = value_and_options(body, path, "query", MATCH_KEYS)
    check_operator(options, (*path, field))
    return Match(field, text, options)


class BestOf(Query):
    """Documents that have a text in one of several fields; the best score counts, and a part (`rest`) of the others.

    `fields` are (name or pattern, options of the match).
    """

    def __init__(self, text, fields, rest):
        self.text, self.fields, self.rest = text, fields, rest
        self.by_name = {}
        super().__init__()

    def queries(self, level):
        """The match of each field that there is."""
        known = [name for name, field in level.mapping.fields.items() if isinstance(field, Keyword) and name != "_id"]
        for pattern, options in self.fields:
            for name in fnmatch.filter(known, pattern) if "*" in pattern else [pattern]:
                if name not in self.by_name:
                    self.by_name[name] = Match(name, self.text, options)
                    self.marks += self.by_name[name].marks
                yield self.by_name[name]

    def evaluate(self, level):
        found = [query.evaluate(level) for query in self.queries(level)]
        scores = {}
        for place in {place for each in found for place in each}:
            held = [each[place] for each in found if place in each]
            scores[place] = single(max(held) + (sum(held) - max(held)) * self.rest)
        return scores


@parser("multi_match")
def parse_multi_match(body, path, dialect):
    only_keys("multi_match", body, path, (*MATCH_KEYS, "fields", "type", "tie_breaker"))
    check_operator(body, path)
    kind = body.get("type", "best_fields")
    if kind not in ("best_fields", "most_fields"):
        raise ParseError(path, f"[multi_match] query does not support type [{kind}]")
    given = body.get("fields", [])
    options, fields = {key: body[key] for key in MATCH_KEYS if key in body}, []
    for named in [given] if isinstance(given, str) else given:
        name, _, boost = named.partition("^")
        fields.append((name, {**options, "boost": float(boost or 1) * boost_of(body)}))
    return BestOf(body.get("query", ""), fields, float(body.get("tie_breaker", kind == "most_fields")))
