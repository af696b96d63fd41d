"""What all queries have in common, and the way from their JSON to them."""

from .errors import ParseError
from .scoring import part, single

PARSERS = {}  # {name: function from (body, path, dialect) to a Query}


class Query:
    """One query. `marks` are the (field, test of a token) pairs for the highlighter, `nested` the queries whose inner
    hits are wanted. `in_order`: all documents score the same, and are found in their order."""

    in_order = False

    def __init__(self, marks=(), nested=()):
        self.marks = list(marks)
        self.nested = list(nested)

    def evaluate(self, level):
        """{place: score} of the documents of a level that match; Refusal or ShardFailure."""
        raise NotImplementedError

    def explain(self, level, place):
        """The score of a document that matches, as an explanation."""
        return part(self.evaluate(level)[place], self.describe())

    def describe(self):
        """The query in a few signs."""
        return type(self).__name__


class Constant(Query):
    """A query whose documents all score the same: those that `find` gives for a level."""

    def __init__(self, find, boost, description, marks=()):
        super().__init__(marks)
        self.find = find
        self.boost = single(boost)
        self.description = description

    def evaluate(self, level):
        return dict.fromkeys(self.find(level), self.boost)

    def describe(self):
        return self.description


class Everything(Constant):
    """All documents."""

    in_order = True

    def __init__(self, boost=1.0):
        super().__init__(lambda level: level.documents, boost, "*:*")


def parser(name):
    """Enters a function as the parser of the queries of that name."""
    def entered(function):
        PARSERS[name] = function
        return function
    return entered


def parse(body, path, dialect):
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
    return PARSERS[name](inner, place, dialect)


def check_object(name, body, path):
    if not isinstance(body, dict):
        raise ParseError(path, f"[{name}] malformed, expected an object")


def only_keys(name, body, path, known):
    """ParseError when the object at `path` in the query `name` has a key that is not in `known`."""
    check_object(name, body, path)
    for key in body:
        if key not in known:
            raise ParseError((*path, key), f"[{name}] query does not support [{key}]")


def only_members(name, body, path, known):
    """ParseError when the object at `path`, which is no query, has a member that is not in `known`."""
    check_object(name, body, path)
    for key in body:
        if key not in known:
            raise ParseError((*path, key), f"[{name}] unknown field [{key}]")


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


def boost_of(options):
    return float(options.get("boost", 1))


def searchable(level, name):
    """The column of a field that a query asks about, or None when there is no such field; Refusal, ShardFailure."""
    column = level.column(name)
    if column:
        column.field.check_searchable(level.shard.index.cluster.dialect)
    return column
