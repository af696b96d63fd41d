"""Queries made of queries."""

import random

from .errors import ParseError, Refusal
from .querybase import Constant, Everything, Query, boost_of, only_keys, parse, parser
from .scoring import part, single

MAX_CLAUSES = 1024


@parser("match_all")
def parse_match_all(body, path, dialect):
    only_keys("match_all", body, path, ("boost",))
    return Everything(boost_of(body))


@parser("match_none")
def parse_match_none(body, path, dialect):
    only_keys("match_none", body, path, ("boost",))
    return Constant(lambda level: (), 1.0, "MatchNoDocsQuery")


@parser("constant_score")
def parse_constant_score(body, path, dialect):
    only_keys("constant_score", body, path, ("filter", "boost"))
    if "filter" not in body:
        raise ParseError(path, "[constant_score] requires a 'filter' element")
    inner = parse(body["filter"], (*path, "filter"), dialect)
    found = Constant(inner.evaluate, boost_of(body), f"ConstantScore({inner.describe()})", inner.marks)
    found.in_order = True
    found.nested = inner.nested
    return found


def clauses(body, path, key, dialect):
    """The queries of one clause of a bool query: an object or an array of objects."""
    given = body.get(key, [])
    if isinstance(given, dict):
        return [parse(given, (*path, key), dialect)]
    return [parse(item, (*path, key, position), dialect) for position, item in enumerate(given)]


def required_matches(rule, count):
    """How many of `count` optional clauses must match: 2, -1 (all but one), "75%", "-25%"."""
    text = str(rule)
    number = int(count * float(text[:-1]) / 100) if text.endswith("%") else int(text)
    return max(0, number if not text.startswith("-") else count + number)


class Bool(Query):
    """Queries of which documents must, should or must not be found, some without a score."""

    def __init__(self, must, filters, should, must_not):
        scored = [*must, *filters, *should]
        super().__init__([mark for query in scored for mark in query.marks],
                         [nested for query in scored for nested in query.nested])
        self.must, self.filters, self.should, self.must_not = must, filters, should, must_not
        self.needed = 0 if must or filters or not should else 1
        self.boost = 1.0

    def evaluate(self, level):
        if max(map(len, (self.must, self.filters, self.should, self.must_not))) > MAX_CLAUSES:
            raise Refusal(f"maxClauseCount is set to {MAX_CLAUSES}", "too_many_clauses")
        if not (self.must or self.filters or self.should or self.must_not):
            return dict.fromkeys(level.documents, self.boost)
        places, must = None, [query.evaluate(level) for query in self.must]
        for matched in (*must, *(query.evaluate(level) for query in self.filters)):
            places = matched.keys() if places is None else [place for place in places if place in matched]
        should = [query.evaluate(level) for query in self.should]
        if places is None:
            places = level.documents if not self.needed else {place for matched in should for place in matched}
        if self.needed > 1 or (self.needed and (self.must or self.filters)):
            places = [place for place in places if sum(place in matched for matched in should) >= self.needed]
        for query in self.must_not:
            excluded = query.evaluate(level)
            places = [place for place in places if place not in excluded]
        return {place: self.score(place, must, should) for place in places} if must or should else (
            dict.fromkeys(places, 0.0))

    def score(self, place, must, should):
        required = single(sum([matched[place] for matched in must]))
        optional = [matched[place] for matched in should if place in matched]
        return single((required + single(sum(optional))) * self.boost)

    def explain(self, level, place):
        scored = [query.explain(level, place) for query in (*self.must, *self.should)
                  if place in query.evaluate(level)]
        filters = [part(0.0, "match on required clause, product of:", part(0.0, "# clause"),
                        part(1.0, query.describe())) for query in self.filters]
        if len(scored) == 1 and not filters:
            return scored[0]
        return part(self.evaluate(level)[place], "sum of:", *scored, *filters)

    def describe(self):
        said = [f"{sign}{query.describe()}" for sign, queries in (
            ("+", self.must), ("#", self.filters), ("", self.should), ("-", self.must_not)) for query in queries]
        return " ".join(said)


@parser("bool")
def parse_bool(body, path, dialect):
    only_keys("bool", body, path, ("must", "filter", "should", "must_not", "minimum_should_match", "boost"))
    found = Bool(*(clauses(body, path, key, dialect) for key in ("must", "filter", "should", "must_not")))
    if body.get("minimum_should_match") is not None:
        found.needed = required_matches(body["minimum_should_match"], len(found.should))
    found.boost = boost_of(body)
    return found


class Nested(Query):
    """Documents with objects in a nested field of which one is found by the query."""

    MODES = {"avg": lambda scores: sum(scores) / len(scores), "max": max, "min": min, "sum": sum,
             "none": lambda scores: 0.0}

    def __init__(self, path, query, mode, boost):
        super().__init__(query.marks)
        self.path, self.query, self.boost = path, query, boost
        self.combine = self.MODES[mode]
        self.ignore_unmapped = False
        self.inner_hits = None  # what is wanted of the inner documents

    def matches(self, level):
        """{place: [(score, inner document)]} of the inner documents that are found."""
        if level.mapping.objects.get(self.path, {}).get("type") != "nested":
            if self.ignore_unmapped:
                return {}
            raise Refusal(f"[nested] failed to find nested object under path [{self.path}]",
                          "illegal_state_exception")
        inner, found = level.shard.level(self.path), {}
        scores = self.query.evaluate(inner)
        for place in sorted(scores):
            document = inner.documents[place]
            outer = document.parent
            while (outer.path or "") != level.path:
                outer = outer.parent
            found.setdefault(outer.place, []).append((scores[place], document))
        return found

    def evaluate(self, level):
        return {place: single(self.combine([score for score, _ in found]) * self.boost)
                for place, found in self.matches(level).items()}

    def describe(self):
        return f"ToParentBlockJoinQuery ({self.query.describe()})"


@parser("nested")
def parse_nested(body, path, dialect):
    only_keys("nested", body, path, ("path", "query", "score_mode", "ignore_unmapped", "inner_hits", "boost"))
    for key in ("path", "query"):
        if key not in body:
            raise ParseError(path, f"[nested] requires '{key}' field")
    if not isinstance(body["path"], str):
        raise ParseError((*path, "path"), "[nested] path is a text")
    if body.get("score_mode", "avg") not in Nested.MODES:
        raise ParseError(path, f"No score mode for child query [{body['score_mode']}] found")
    query = parse(body["query"], (*path, "query"), dialect)
    found = Nested(body["path"], query, body.get("score_mode", "avg"), boost_of(body))
    found.ignore_unmapped = body.get("ignore_unmapped") is True
    if "inner_hits" in body:
        only_keys("inner_hits", body["inner_hits"], (*path, "inner_hits"), ("name", "size", "from", "_source"))
        found.inner_hits = {**body["inner_hits"], **{
            key: int(body["inner_hits"][key]) for key in ("size", "from") if key in body["inner_hits"]}}
        found.nested = [found]
    return found


class RandomScore(Query):
    """Documents of another query, each with a score by chance."""

    def __init__(self, query, boost):
        super().__init__(query.marks, query.nested)
        self.query, self.boost = query, boost

    def evaluate(self, level):
        return {place: single(random.random() * self.boost) for place in self.query.evaluate(level)}

    def describe(self):
        return f"function score ({self.query.describe()})"


@parser("function_score")
def parse_function_score(body, path, dialect):
    """Of all functions only a random score in place of the query's own."""
    only_keys("function_score", body, path, ("query", "random_score", "boost_mode", "boost"))
    if body.get("random_score") != {} or body.get("boost_mode") != "replace":
        raise ParseError(path, "[function_score] only an unseeded random_score that replaces the score is known here")
    return RandomScore(parse(body.get("query", {"match_all": {}}), (*path, "query"), dialect), boost_of(body))
