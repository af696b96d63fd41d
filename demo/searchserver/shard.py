"""Shards: documents in their order, and their fields, each of which is indexed when a query first asks for it."""

from bisect import bisect_left
from functools import cached_property

from .jsontext import read_text
from .scoring import Rarity, kept_length


class Document:
    """One document, or an object within a nested field: `raw` is the source text as it was given."""

    __slots__ = ("id", "raw", "inner_source", "values", "ignored", "shard", "version", "place", "inner", "parent",
                 "path", "offset")

    def __init__(self, doc_id, raw, reading, shard):
        self.id = doc_id
        self.raw = raw
        self.inner_source = reading.source if raw is None else None
        self.values = reading.values
        self.ignored = reading.ignored
        self.shard = shard
        self.version = 1
        self.place = None  # its number within the shard; inner documents have those before it
        self.inner = []
        self.parent = self.path = self.offset = None  # of an inner document

    @property
    def source(self):
        """The source's value."""
        return self.inner_source if self.raw is None else read_text(self.raw)


class Column:
    """The values of one field in one shard, by document and by key."""

    def __init__(self, field):
        self.field = field
        self.seen = 0  # documents before this place are in
        self.values = {}
        self.keys = {}  # {key: {place: how often}}
        self.lengths = {}
        self.words = 0

    def add(self, place, stored):
        self.values[place] = stored
        found = [key for each in stored for key in self.field.keys(each)]
        if not self.analyzed:
            found = set(found)
        for key in found:
            counts = self.keys.setdefault(key, {})
            counts[place] = counts.get(place, 0) + 1
        if found:
            self.lengths[place] = kept_length(len(found)) if self.analyzed else 1
            self.words += len(found)
            self.__dict__.pop("in_order", None)

    @cached_property
    def analyzed(self):
        return hasattr(self.field, "analyzer")

    @cached_property
    def in_order(self):
        return sorted(self.keys)

    def between(self, first, beyond):
        """The places of documents with a key from `first` to before `beyond`, None where there is no bound."""
        if isinstance(first, int) and beyond == first + 1:
            return self.keys.get(first, ())
        start = 0 if first is None else bisect_left(self.in_order, first)
        end = len(self.in_order) if beyond is None else bisect_left(self.in_order, beyond)
        return {place for key in self.in_order[start:end] for place in self.keys[key]}

    def rarity(self, key, boost):
        return Rarity(len(self.keys[key]), len(self.lengths), self.words, boost)

    def scores(self, key, boost):
        """{place: score} of the documents that have the key."""
        counts = self.keys.get(key)
        if not counts:
            return {}
        score, lengths = self.rarity(key, boost).score, self.lengths
        return {place: score(count, lengths[place]) for place, count in counts.items()}

    def explain(self, key, place, boost):
        return self.rarity(key, boost).explain(f"{self.field.path}:{key}", place, self.keys[key][place],
                                               self.lengths[place])

    def sorted_keys(self, place):
        """The keys of a document's values in order, each once unless the field is one of numbers."""
        keys = sorted(self.field.key(stored) for stored in self.values.get(place, ()))
        return list(dict.fromkeys(keys)) if self.field.terms else keys


class Level:
    """The documents of a shard, or the inner documents of one nested path: what a query is asked about."""

    def __init__(self, shard, path):
        self.shard = shard
        self.path = path
        self.documents = {}  # {place: Document}
        self.columns = {}

    @property
    def mapping(self):
        return self.shard.index.mapping

    def column(self, name):
        """The column of a field, brought up to date with the documents that came since the last query; or None."""
        field = self.mapping.field(name)
        if field is None:
            return None
        column = self.columns.get(field.path)
        if column is None:
            column = self.columns[field.path] = Column(field)
        if column.seen < self.shard.next_place:
            for place in self.new_places(column.seen):
                stored = self.values(self.documents[place], field)
                if stored:
                    column.add(place, stored)
            column.seen = self.shard.next_place
        return column

    def new_places(self, seen):
        if not seen:
            return list(self.documents)
        return [place for place in range(seen, self.shard.next_place) if place in self.documents]

    @staticmethod
    def values(document, field):
        if field.path == "_id":
            return [document.id]
        root = field.options.get("root")
        return document.values.get(root.path if root else field.path)


class Shard:
    """One shard of an index. A document's place is its number in order of arrival; inner documents count, too."""

    def __init__(self, index, number):
        self.index = index
        self.number = number
        self.next_place = 0
        self.levels = {}
        self.level("")

    def level(self, path):
        if path not in self.levels:
            self.levels[path] = Level(self, path)
        return self.levels[path]

    @property
    def documents(self):
        return self.levels[""].documents

    def add(self, document, reading):
        """Stores a document after its inner documents."""
        self.add_inner(document, reading)
        self.place(document, "")

    def add_inner(self, parent, reading):
        for path, offset, inner in reading.inner:
            child = Document(parent.id, None, inner, self)
            child.parent, child.path, child.offset = parent, path, offset
            parent.inner.append(child)
            self.add_inner(child, inner)
            self.place(child, path)

    def place(self, document, path):
        document.place = self.next_place
        self.level(path).documents[self.next_place] = document
        self.next_place += 1

    def remove(self, document):
        """Forgets a document. The columns are made anew: they cannot tell what came from it."""
        for child in document.inner:
            self.remove(child)
        del self.level(document.path or "").documents[document.place]
        for level in self.levels.values():
            level.columns.clear()

    def count(self):
        """How many documents there are, inner ones among them."""
        return sum(len(level.documents) for level in self.levels.values())
