"""The query language: a JSON query becomes a function from an index to scored documents."""

from collections import namedtuple

from .analysis import is_number, tokens
from .errors import ParseError, ShardFailure

# evaluate(index) gives {place: score}; marks are (field, test of a token) pairs for the highlighter.
Query = namedtuple("Query", "evaluate marks")

MAX_TERMS = 65536  # of one terms query


def parse(body, path=()):
    """The Query of a JSON query object; `path` is its place in the request, for ParseError."""
    if not isinstance(body, dict):
        raise ParseError(path, "[_na] query malformed, must start with start_object")
    if not body:
        raise ParseError(path, "query malformed, empty clause found")
    (name, inner), *more = body.items()
    place = (*path, name)
    if name not in PARSERS:
        raise ParseError(place, f"unknown query [{name}]", unknown=name)
    if not isinstance(inner, dict):
        raise ParseError(place, f"[{name}] query malformed, no start_object after query name")
    if more:
        found = (*path, more[0][0])
        raise ParseError(found, f"[{name}] malformed query, expected [END_OBJECT] but found [FIELD_NAME]")
    return PARSERS[name](inner, place)


def constant(places, boost=1.0):
    return dict.fromkeys(sorted(places), boost)


def only_keys(name, body, path, known):
    """ParseError when the object at `path` in the query `name` has a key that is not in `known`."""
    for key in body:
        if key not in known:
            raise ParseError((*path, key), f"[{name}] query does not support [{key}]")


def single_field(body, path):
    """The one field that a query names, its value, and its place."""
    name = path[-1]
    if not body:
        raise ParseError(path, f"[{name}] query malformed, no field name given")
    (field, value), *more = body.items()
    if more:
        raise ParseError((*path, more[0][0]), f"[{name}] query doesn't support multiple fields,"
                                              f" found [{field}] and [{more[0][0]}]")
    return field, value, (*path, field)


def value_and_options(body, path, key, known):
    """Field, value and options of a query: {field: value}, or {field: {key: value, option: value}}."""
    field, value, place = single_field(body, path)
    options = value if isinstance(value, dict) else {key: value}
    only_keys(path[-1], options, place, known)
    if options.get(key) is None or isinstance(options[key], (dict, list)):
        raise ParseError(place, f"[{path[-1]}] unknown token or no value for [{field}]")
    return field, options[key], options


def parse_match_all(body, path):
    only_keys("match_all", body, path, ("boost",))
    boost = float(body.get("boost", 1))
    return Query(lambda index: constant(index.documents, boost), [])


def parse_match(body, path):
    field, text, options = value_and_options(body, path, "query", ("query", "operator", "boost"))
    operator = str(options.get("operator", "or")).upper()
    if operator not in ("AND", "OR"):
        raise ParseError((*path, field, "operator"),
                         f"operator needs to be either OR or AND, found [{operator}]")
    boost = float(options.get("boost", 1))
    wanted = list(dict.fromkeys(tokens(str(text))))

    def evaluate(index):
        held = index.field(field)
        if held.numeric or isinstance(text, bool) or field == "_id":
            return constant(held.terms.get(held.key(text), ()), boost)
        if not wanted:
            return {}
        return {place: score * boost for place, score in index.search_text(field, wanted, operator).items()}

    return Query(evaluate, [(field, set(wanted).__contains__)])


def terms_query(field, values, boost):
    if len(values) > MAX_TERMS:
        reason = (f"The number of terms [{len(values)}] used in the Terms Query request has exceeded the"
                  f" allowed maximum of [{MAX_TERMS}]. This maximum can be set by changing the"
                  " [index.max_terms_count] index level setting.")
        failure = ShardFailure("query_shard_exception", f"failed to create query: {reason}",
                               {"type": "illegal_argument_exception", "reason": reason})
    else:
        failure = None

    def evaluate(index):
        if failure:
            raise failure
        held = index.field(field)
        return constant({place for value in values for place in held.terms.get(held.key(value), ())}, boost)

    wanted = {str(value) for value in values}
    return Query(evaluate, [(field, wanted.__contains__)])


def parse_term(body, path):
    field, value, options = value_and_options(body, path, "value", ("value", "boost"))
    return terms_query(field, [value], float(options.get("boost", 1)))


def parse_terms(body, path):
    fields = {key: value for key, value in body.items() if key != "boost"}
    field, values, place = single_field(fields, path)
    if not isinstance(values, list):
        raise ParseError(place, f"[terms] query does not support [{field}]")
    return terms_query(field, values, float(body.get("boost", 1)))


def parse_ids(body, path):
    only_keys("ids", body, path, ("values", "boost"))
    values = body.get("values", [])
    return terms_query("_id", values if isinstance(values, list) else [values], float(body.get("boost", 1)))


def parse_prefix(body, path):
    field, value, options = value_and_options(body, path, "value", ("value", "boost"))
    prefix = str(value)

    def evaluate(index):
        terms = index.field(field).terms
        places = {place for term in terms if term.startswith(prefix) for place in terms[term]}
        return constant(places, float(options.get("boost", 1)))

    return Query(evaluate, [(field, lambda token: token.startswith(prefix))])


def parse_exists(body, path):
    only_keys("exists", body, path, ("field", "boost"))
    if not isinstance(body.get("field"), str):
        raise ParseError(path, "[exists] must be provided with a [field]")
    field = body["field"]

    def evaluate(index):
        places = (place for place, document in index.documents.items()
                  if document.values(field) or any(leaf.startswith(f"{field}.") for leaf in document.leaves))
        return constant(places, float(body.get("boost", 1)))

    return Query(evaluate, [])


RANGE_TESTS = {
    "gt": lambda value, bound: value > bound,
    "gte": lambda value, bound: value >= bound,
    "lt": lambda value, bound: value < bound,
    "lte": lambda value, bound: value <= bound,
}


def parse_range(body, path):
    field, options, place = single_field(body, path)
    if not isinstance(options, dict):
        raise ParseError(place, f"[range] query does not support [{field}]")
    only_keys("range", options, place, (*RANGE_TESTS, "boost"))
    bounds = [(RANGE_TESTS[key], bound) for key, bound in options.items()
              if key in RANGE_TESTS and bound is not None]

    def evaluate(index):
        held = index.field(field)
        convert = held.number if held.numeric else str
        tests = [(test, convert(bound)) for test, bound in bounds]

        def inside(value):
            comparable = is_number(value) if held.numeric else isinstance(value, str)
            return comparable and all(test(value, bound) for test, bound in tests)

        places = (place for place, values in held.values.items() if any(map(inside, values)))
        return constant(places, float(options.get("boost", 1)))

    return Query(evaluate, [])


def clauses(body, path, key):
    """The queries of one clause of a bool query: an object or an array of objects."""
    given = body.get(key, [])
    if isinstance(given, dict):
        return [parse(given, (*path, key))]
    return [parse(item, (*path, key, position)) for position, item in enumerate(given)]


def required_matches(rule, count):
    """How many of `count` optional clauses must match: 2, -1 (all but one), "75%", "-25%"."""
    text = str(rule)
    number = int(count * float(text[:-1]) / 100) if text.endswith("%") else int(text)
    return max(0, number if not text.startswith("-") else count + number)


def parse_bool(body, path):
    only_keys("bool", body, path, ("must", "filter", "should", "must_not", "minimum_should_match", "boost"))
    must, filters, should, must_not = (clauses(body, path, key)
                                       for key in ("must", "filter", "should", "must_not"))
    needed = 0 if must or filters or not should else 1
    if body.get("minimum_should_match") is not None:
        needed = required_matches(body["minimum_should_match"], len(should))
    boost = float(body.get("boost", 1))
    is_empty = not (must or filters or should or must_not)

    def evaluate(index):
        scores = dict.fromkeys(index.documents, boost if is_empty else 0.0)
        for query in filters:
            matched = query.evaluate(index)
            scores = {place: score for place, score in scores.items() if place in matched}
        for query in must:
            matched = query.evaluate(index)
            scores = {place: score + matched[place] for place, score in scores.items() if place in matched}
        counts = dict.fromkeys(scores, 0)
        for query in should:
            for place, score in query.evaluate(index).items():
                if place in scores:
                    scores[place] += score
                    counts[place] += 1
        excluded = {place for query in must_not for place in query.evaluate(index)}
        return {place: score * (1 if is_empty else boost) for place, score in scores.items()
                if counts[place] >= needed and place not in excluded}

    return Query(evaluate, [mark for query in must + filters + should for mark in query.marks])


PARSERS = {
    "match_all": parse_match_all, "match": parse_match, "term": parse_term, "terms": parse_terms,
    "ids": parse_ids, "prefix": parse_prefix, "exists": parse_exists, "range": parse_range,
    "bool": parse_bool,
}
