"""Documents in memory, with each field indexed when a query first asks for it (full text by SQLite FTS5)."""

import base64
import fnmatch
import functools
import hashlib
import json
import sqlite3
import threading

from .analysis import flatten, is_number, term_key, tokens
from .errors import index_not_found, not_a_number, typed
from .scroll import Scrolls


class Document:
    """One document: `raw` is the source text as it was given, `source` its value."""

    def __init__(self, doc_id, raw, source, shard):
        self.id = doc_id
        self.raw = raw
        self.source = source
        self.shard = shard  # its number within the index
        self.version = 1

    @functools.cached_property
    def leaves(self):
        return flatten(self.source)

    def values(self, path):
        """The scalars of the field; "title.keyword" is "title" again, compared as a whole."""
        if path == "_id":
            return [self.id]
        found = self.leaves.get(path)
        if found is None and path.endswith(".keyword"):
            found = self.leaves.get(path[:-len(".keyword")])
        return found or []


class Field:
    """The values of one field, by document and by term."""

    def __init__(self, path, table):
        self.path = path
        self.table = table  # of its full text, once there is one
        self.values = {}
        self.terms = {}
        self.numeric = False
        self.indexed = 0

    def add(self, place, values):
        # A string stands under its whole text and under each of its tokens: a term query thus finds
        # the exact value of a short label as well as a word of a long text, and no mapping is needed.
        self.values[place] = values
        keys = {term_key(value) for value in values}
        if self.path != "_id" and not self.path.endswith(".keyword"):
            for value in values:
                if isinstance(value, str):
                    keys.update(tokens(value))
        self.numeric = self.numeric or any(map(is_number, values))
        for key in keys:
            self.terms.setdefault(key, []).append(place)

    def key(self, value):
        """The term to look up for a query's value; a field of numbers takes nothing but numbers."""
        return term_key(self.number(value) if self.numeric else value)

    def number(self, value):
        """The value as a number; ShardFailure when it is none."""
        if is_number(value):
            return value
        try:
            return float(value) if isinstance(value, str) else int(value)
        except (TypeError, ValueError):
            raise not_a_number(value)


class Index:
    """One index. A document's place, its number in order of arrival, is what queries work with."""

    def __init__(self, name, shards):
        self.name = name
        self.shards = shards
        self.uuid = base64.urlsafe_b64encode(hashlib.md5(name.encode()).digest()).decode()[:22]
        self.documents = {}
        self.places = {}
        self.next_place = 0
        self.forget_fields()

    def forget_fields(self):
        self.fields = {}
        self.text = sqlite3.connect(":memory:", check_same_thread=False)

    def put(self, doc_id, source):
        """Stores a document (dict, or JSON text that is kept as it is); one of the same id gives way."""
        raw = source if isinstance(source, str) else json.dumps(source, ensure_ascii=False)
        try:
            value = json.loads(raw)
        except ValueError:
            value = None
        if not isinstance(value, dict):
            raise typed(400, "mapper_parsing_exception", "failed to parse",
                        {"type": "not_x_content_exception", "reason": "the source is not a JSON object"})
        document = Document(doc_id, raw, value, self.next_place % self.shards)
        if doc_id in self.places:
            document.version += self.documents.pop(self.places[doc_id]).version
            self.forget_fields()
        self.places[doc_id] = self.next_place
        self.documents[self.next_place] = document
        self.next_place += 1
        return document

    def field(self, path):
        """The field, brought up to date with the documents that came since the last query."""
        field = self.fields.get(path)
        if field is None:
            field = self.fields[path] = Field(path, f"text{len(self.fields)}")
            # The bodies themselves are kept once, in the documents: FTS5 keeps only the word lists.
            self.text.execute(f"CREATE VIRTUAL TABLE {field.table} USING fts5(body, content='',"
                              " tokenize='unicode61 remove_diacritics 0')")
        for place in range(field.indexed, self.next_place):
            values = place in self.documents and self.documents[place].values(path)
            if values:
                field.add(place, values)
                body = " ".join(word for value in values if isinstance(value, str) for word in tokens(value))
                if body:
                    self.text.execute(f"INSERT INTO {field.table}(rowid, body) VALUES (?, ?)", (place, body))
        field.indexed = self.next_place
        return field

    def search_text(self, path, wanted, operator):
        """{place: score} of the documents that hold any ("OR") or all ("AND") of the tokens in the field."""
        table = self.field(path).table
        expression = f" {operator} ".join(f'"{word}"' for word in wanted)
        statement = f"SELECT rowid, -bm25({table}) FROM {table} WHERE {table} MATCH ?"
        return dict(self.text.execute(statement, (expression,)))


class Cluster:
    """All indices by name and all scroll contexts; whoever reads or changes them holds `lock`.

    `partial` is the Partial that befalls its answers, or None.
    """

    def __init__(self):
        self.indices = {}
        self.scrolls = Scrolls()
        self.partial = None
        self.lock = threading.RLock()

    def create(self, name, shards=1):
        """The index of that name, made of so many shards when it is new."""
        if name not in self.indices:
            self.indices[name] = Index(name, shards)
        return self.indices[name]

    def select(self, names):
        """The indices of a comma-separated list with wildcards; SearchError 404 for a missing name."""
        found = {}
        for name in (names or "_all").split(","):
            if name == "_all" or "*" in name:
                pattern = "*" if name == "_all" else name
                found.update((known, self.indices[known]) for known in self.indices
                             if fnmatch.fnmatchcase(known, pattern))
            elif name in self.indices:
                found[name] = self.indices[name]
            else:
                raise index_not_found(name)
        return list(found.values())
