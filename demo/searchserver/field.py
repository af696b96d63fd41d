"""What all types of fields have in common: values go in by documents, keys are looked up by queries."""

from collections import namedtuple

from .errors import Refusal, ShardFailure, illegal_on_shard

# The bounds of a range query as they were given; None where there is none.
Bounds = namedtuple("Bounds", "low high low_open high_open format zone")

FIELD_DATA_ON_TEXT = (
    "Text fields are not optimised for operations that require per-document field data like aggregations and sorting,"
    " so these operations are disabled by default. Please use a keyword field instead. Alternatively, set"
    " fielddata=true on [{}] in order to load field data by uninverting the inverted index. Note that this can use"
    " significant memory.")


class Field:
    """One field of a mapping.

    A document's value becomes any number of stored values, which have the keys by which they are found and sorted. A
    field of `terms` has strings for keys and is scored by how rare they are; all others have whole numbers.
    """

    terms = True
    keeps_objects = False  # it takes objects and arrays as they are
    order_missing = (None, None)  # what a sort shows for documents without a value: when they come last, when first

    def __init__(self, path, options, analysis):
        self.path = path
        self.kind = options["type"]
        self.options = options
        self.null_value = options.get("null_value")
        self.indexed = options.get("index", True)
        self.doc_values = options.get("doc_values", True)
        self.parts = []  # the fields that take the same values
        self.set_up(options, analysis)

    def set_up(self, options, analysis):
        """What a type of fields makes of its options."""

    # Documents

    def stored(self, value):
        """What is stored for a value of a document, a list; or Refusal."""
        return [value]

    def keys(self, stored):
        """The keys under which a stored value is found, a list."""
        return [stored]

    def key(self, stored):
        """The key by which a stored value is sorted and counted."""
        return stored

    def show(self, stored):
        """A stored value as responses show it where they tell the values of fields."""
        return stored

    def show_key(self, key):
        """(a key as a bucket shows it, how it is spelt or None)."""
        return key, None

    def sort_value(self, key):
        """A key as the sort values of hits show it."""
        return key

    # Queries

    def check_searchable(self, dialect):
        if not self.indexed and not (dialect.doc_value_queries and self.doc_values):
            reason = "it is not indexed" + (" nor has doc values" if dialect.doc_value_queries else "")
            raise Refusal(f"Cannot search on field [{self.path}] since {reason}.")

    def check_column(self):
        """ShardFailure when the field's values cannot be sorted and counted."""
        if not self.doc_values:
            raise illegal_on_shard(f"Can't load fielddata on [{self.path}] because fielddata is unsupported on fields"
                                   f" of type [{self.kind}]. Use doc values instead.")

    def span(self, bounds):
        """(first key, key after the last) that a range query finds, None where there is no bound; or Refusal."""
        raise NotImplementedError

    def check_text(self, query):
        """ShardFailure when the field takes no queries by the letters of its values."""
        raise ShardFailure("query_shard_exception", f"Can only use {query} queries on keyword and text fields - not"
                                                    f" on [{self.path}] which is of type [{self.kind}]")


class Point(Field):
    """A field whose keys are whole numbers; `minimum` and `maximum` are the first and the last there can be."""

    terms = False
    minimum = maximum = None

    def low(self, bounds):
        """The lowest key within the bounds."""
        if bounds.low is None:
            return self.minimum
        return self.bound(bounds.low) + bounds.low_open

    def high(self, bounds):
        if bounds.high is None:
            return self.maximum
        return self.bound(bounds.high) - bounds.high_open

    def bound(self, value):
        """The key of a bound's value."""
        raise NotImplementedError

    def span(self, bounds):
        return self.low(bounds), self.high(bounds) + 1

    def term(self, value):
        """(first key, key after the last) that a term query finds, or None when it finds nothing; or Refusal."""
        key = self.bound(value)
        return key, key + 1


class Unsearchable(Field):
    """A field that is found by `exists` only."""

    REASONS = {"binary": "Binary fields do not support searching",
               "geo_point": "Geo fields do not support exact searching, use dedicated geo queries instead: [{}]",
               "geo_shape": "Geo fields do not support exact searching, use dedicated geo queries instead: [{}]"}
    keeps_objects = True

    def keys(self, stored):
        return []

    def term(self, value):
        raise Refusal(self.REASONS.get(self.kind, "Field [{}] does not support searching").format(self.path))

    span = lookup = term

    def check_column(self):
        raise illegal_on_shard(f"can't sort or aggregate on field [{self.path}] of type [{self.kind}]")
