"""All indices, aliases and data streams by name, and all scroll contexts."""

import re
import threading

from . import names
from .errors import illegal_argument, typed
from .index import Index
from .scroll import Scrolls

FORBIDDEN = re.compile(r'[\\/*?"<>| ,#:A-Z]|^[-_+]|^\.{1,2}$')


class Cluster:
    """All there is; whoever reads or changes it holds `lock`.

    `partial` is the Partial that befalls its responses, or None.
    """

    def __init__(self, dialect):
        self.dialect = dialect
        self.indices = {}
        self.aliases = {}  # {name: [names of its indices]}
        self.streams = {}  # {name: [names of its backing indices]}
        self.templates = {}  # {name: what was put}, for data streams
        self.scrolls = Scrolls(dialect)
        self.searches = 0
        self.partial = None
        self.lock = threading.RLock()

    def create(self, name, mappings=None, settings=None):
        """A new index; SearchError when the name is taken or no name."""
        if name in names.groups(self):
            raise typed(400, "resource_already_exists_exception", f"index [{name}] already exists", index=name)
        if FORBIDDEN.search(name):
            raise typed(400, "invalid_index_name_exception", f"Invalid index name [{name}], must be lowercase and"
                        " must not contain the signs of patterns, paths and lists", index=name)
        index = Index(name, settings or {}, self)
        index.mapping.merge(mappings or {})
        self.indices[name] = index
        return index

    def create_stream(self, name, mappings=None, settings=None):
        """A new data stream with one hidden index behind it, which it returns."""
        timestamp = {"properties": {"@timestamp": {"type": "date"}}}
        backing = f".ds-{name}-2024.01.01-000001" if self.dialect.dated_streams else f".ds-{name}-000001"
        index = self.create(backing, timestamp, settings)
        index.mapping.merge(mappings or {})
        self.streams[name] = [index.name]
        return index

    def for_writing(self, name):
        """The index that a document of this name goes to; made when there is none."""
        members = names.groups(self).get(name)
        if members is None:
            return self.create(name)
        if len(members) > 1 and name in self.aliases:
            raise illegal_argument(f"no write index is defined for alias [{name}]. The write index may be explicitly"
                                   " disabled using is_write_index=false or the alias points to multiple indices"
                                   " without one being designated as a write index")
        return members[-1]

    def drop(self, index):
        """Deletes an index, also from its aliases."""
        del self.indices[index.name]
        for named in (self.aliases, self.streams):
            for name in list(named):
                named[name] = [each for each in named[name] if each != index.name]
                if not named[name]:
                    del named[name]

    def add_alias(self, alias, index):
        members = self.aliases.setdefault(alias, [])
        if index.name not in members:
            members.append(index.name)

    def aliases_of(self, index):
        return [alias for alias, members in self.aliases.items() if index.name in members]
