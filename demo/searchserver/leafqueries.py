"""Queries for values: documents with a term, with one out of a list, within bounds, with any value at all."""

import re

from .datefield import Range
from .errors import ParseError, Refusal
from .field import Bounds
from .querybase import Constant, Query, boost_of, only_keys, parser, searchable, single_field, value_and_options
from .strings import asked


class Term(Query):
    """Documents that have a term in a field, scored by how rare it is; all the same in fields of numbers."""

    def __init__(self, name, value, boost):
        super().__init__([(name, {asked(value)}.__contains__)])
        self.name, self.value, self.boost = name, value, boost

    def evaluate(self, level):
        column = searchable(level, self.name)
        if column is None:
            return {}
        if self.name == "_id" or not column.field.terms:
            return dict.fromkeys(places_of(column, self.value), self.boost)
        return column.scores(column.field.lookup(self.value), self.boost)

    def explain(self, level, place):
        column = searchable(level, self.name)
        if self.name == "_id" or not column.field.terms:
            return super().explain(level, place)
        return column.explain(column.field.lookup(self.value), place, self.boost)

    def describe(self):
        return spelt_field(self.name, self.value)


def spelt_field(name, value):
    """A field and a value as explanations show them; ids as the bytes that stand for them."""
    return f"_id:[ff {asked(value).encode().hex(' ')}]" if name == "_id" else f"{name}:{asked(value)}"


def places_of(column, value):
    """The places of documents that a term query on the value finds."""
    field = column.field
    if field.terms:
        return column.keys.get(field.lookup(value), ())
    span = field.term(value)
    if span is None:
        return ()
    return overlapping(column, *span) if isinstance(field, Range) else column.between(*span)


def overlapping(column, first, beyond):
    """The places of documents with a range that has a key from `first` to before `beyond`."""
    return [place for place, stored in column.values.items()
            if any(low < beyond and first < high for low, high in stored)]


def case_options(dialect):
    return ("case_insensitive",) if dialect.case_insensitive else ()


@parser("term")
def parse_term(body, path, dialect):
    field, value, options = value_and_options(body, path, "value", ("value", "boost", *case_options(dialect)))
    if options.get("case_insensitive"):
        return by_letters("term", field, re.escape(asked(value)), options)
    return Term(field, value, boost_of(options))


@parser("terms")
def parse_terms(body, path, dialect):
    fields = {key: value for key, value in body.items() if key != "boost"}
    name, values, place = single_field(fields, path)
    if not isinstance(values, list):
        raise ParseError(place, f"[terms] query does not support [{name}]")
    if any(value is None or isinstance(value, (dict, list)) for value in values):
        raise ParseError(place, "No value specified for terms query")

    def find(level):
        most = level.shard.index.number("max_terms_count")
        if len(values) > most:
            raise Refusal(f"The number of terms [{len(values)}] used in the Terms Query request has exceeded the"
                          f" allowed maximum of [{most}]. This maximum can be set by changing the"
                          " [index.max_terms_count] index level setting.")
        column = searchable(level, name)
        return () if column is None else {place for value in values for place in places_of(column, value)}

    wanted = set(map(asked, values))
    described = " ".join(spelt_field(name, value) for value in values)
    return Constant(find, boost_of(body), described, [(name, wanted.__contains__)])


@parser("ids")
def parse_ids(body, path, dialect):
    known = ("values", "boost", "type") if dialect.types else ("values", "boost")
    only_keys("ids", body, path, known)
    values = body.get("values", [])
    values = values if isinstance(values, list) else [values]

    def find(level):
        keys = level.column("_id").keys
        return {place for value in values for place in keys.get(asked(value), ())}

    return Constant(find, boost_of(body), " ".join(spelt_field("_id", value) for value in values))


@parser("range")
def parse_range(body, path, dialect):
    name, options, place = single_field(body, path)
    if not isinstance(options, dict):
        raise ParseError(place, f"[range] query does not support [{name}]")
    only_keys("range", options, place, ("gt", "gte", "lt", "lte", "format", "time_zone", "relation", "boost"))
    if str(options.get("relation", "intersects")).lower() != "intersects":
        raise ParseError(place, f"[range] query does not support relation [{options['relation']}]")
    if not all(isinstance(options.get(key, ""), str) for key in ("format", "time_zone")):
        raise ParseError(place, "[range] format and time_zone are texts")

    def either(open_key, key):
        is_open = options.get(open_key) is not None
        return options[open_key] if is_open else options.get(key), is_open

    (low, low_open), (high, high_open) = either("gt", "gte"), either("lt", "lte")
    bounds = Bounds(low, high, low_open, high_open, options.get("format"), options.get("time_zone"))

    def find(level):
        column = searchable(level, name)
        if column is None:
            return ()
        if low is None and high is None:
            return column.values
        span = column.field.span(bounds)
        if span is None:
            return ()
        return overlapping(column, *span) if isinstance(column.field, Range) else column.between(*span)

    return Constant(find, boost_of(options), f"{name}:range")


@parser("exists")
def parse_exists(body, path, dialect):
    only_keys("exists", body, path, ("field", "boost"))
    if not isinstance(body.get("field"), str):
        raise ParseError(path, "[exists] must be provided with a [field]")
    name = body["field"]

    def find(level):
        mapping = level.mapping
        within = [path for path in mapping.fields if path.startswith(f"{name}.")]
        columns = [column for column in map(level.column, within if name in mapping.objects else [name]) if column]
        return {place for column in columns for place in column.values}

    return Constant(find, boost_of(body), f"DocValuesFieldExistsQuery [field={name}]")


def by_letters(query, name, expression, options):
    """The query for keys that the regular expression fits."""
    fits = re.compile(expression, re.DOTALL | (re.IGNORECASE if options.get("case_insensitive") else 0)).fullmatch

    def find(level):
        column = searchable(level, name)
        if column is None:
            return ()
        column.field.check_text(query)
        return {place for key in column.keys if fits(key) for place in column.keys[key]}

    return Constant(find, boost_of(options), f"{name}:{expression}", [(name, fits)])


@parser("prefix")
def parse_prefix(body, path, dialect):
    known = ("value", "boost", "rewrite", *case_options(dialect))
    field, value, options = value_and_options(body, path, "value", known)
    return by_letters("prefix", field, re.escape(asked(value)) + ".*", options)


@parser("wildcard")
def parse_wildcard(body, path, dialect):
    field, given, place = single_field(body, path)
    key = "wildcard" if isinstance(given, dict) and "wildcard" in given else "value"
    known = (key, "boost", "rewrite", *case_options(dialect))
    field, value, options = value_and_options(body, path, key, known)
    signs = re.findall(r"\\?.", asked(value), re.DOTALL)
    return by_letters("wildcard", field, "".join(
        {"*": ".*", "?": "."}.get(sign) or re.escape(sign[-1]) for sign in signs), options)
