"""The search server as a Python object: start and stop, documents and indices, faults on demand, the journal."""

import json
import threading
from contextlib import contextmanager

from .cluster import Cluster
from .dialect import DIALECTS
from .listener import Listener
from .partial import Partial
from .writing import bulk_actions


class SearchServer:
    """A search server on 127.0.0.1, run in a background thread while the object is used in `with`.

    `version` is the major version whose dialect it speaks, one of DIALECTS.
    Port 0 takes a free one; `port` holds the one in use from the start of `with`.
    `seconds_per_document` is how long every document that a response shows keeps it waiting; with `compresses`,
    responses are compressed for clients that take it. Both may be set at any time.
    """

    def __init__(self, version=7, port=0):
        self.version = version
        self.dialect = DIALECTS[version]
        self.port = port
        self.seconds_per_document = 0
        self.compresses = False
        self.journal = []
        self.cluster = Cluster(self.dialect)
        self.nodes = []  # each a listener and its thread

    def __enter__(self):
        self.port = self.add_node(self.port)
        return self

    def __exit__(self, *exception):
        for listener, thread in self.nodes:
            listener.shutdown()
            listener.server_close()
            listener.hang_up()
            thread.join()
        self.nodes.clear()

    def add_node(self, port=0):
        """Listens on one more port, as another node of the same cluster does; returns it."""
        listener = Listener(port, self)
        thread = threading.Thread(target=listener.serve_forever, args=(0.02,), daemon=True)
        thread.start()
        self.nodes.append((listener, thread))
        return listener.server_address[1]

    # Indices and documents

    def create_index(self, name, shards=1, mappings=None, settings=None):
        """Makes an empty index. Its documents go to the shards by the hashes of their ids, as with a real server; the
        more shards, the longer a scroll id. `mappings` and `settings` are as in "PUT /name"."""
        with self.cluster.lock:
            self.cluster.create(name, mappings, {**(settings or {}), "number_of_shards": shards})

    def create_data_stream(self, name, shards=1, mappings=None):
        """Makes an empty data stream, with a hidden index behind it."""
        with self.cluster.lock:
            self.cluster.create_stream(name, mappings, {"number_of_shards": shards})

    def add_alias(self, alias, *names):
        """Gives indices another name, which they may share."""
        with self.cluster.lock:
            for name in names:
                self.cluster.add_alias(alias, self.cluster.indices[name])

    def close_index(self, name):
        """Closes an index: it keeps its documents but is not searched."""
        self.cluster.indices[name].closed = True

    def open_index(self, name):
        self.cluster.indices[name].closed = False

    def put(self, index, doc_id, source):
        """Stores one document: a dict, or JSON text that comes back byte for byte."""
        self.put_many(index, [(doc_id, source)])

    def put_many(self, index, documents):
        """Stores (id, source) pairs in an index, which is made when it is new."""
        with self.cluster.lock:
            target = self.cluster.for_writing(index)
            for doc_id, source in documents:
                target.put(doc_id, source)

    def load(self, text, index):
        """Stores the documents of a bulk file's text, those without an index of their own in `index`."""
        with self.cluster.lock:
            for _, name, doc_id, source in bulk_actions(text, index):
                self.cluster.for_writing(name).put(doc_id, source)

    # Scroll contexts

    @property
    def max_scroll_contexts(self):
        """How many scroll contexts may be open; a scroll has one on each of its shards."""
        return self.cluster.scrolls.most

    @max_scroll_contexts.setter
    def max_scroll_contexts(self, most):
        self.cluster.scrolls.most = most

    @property
    def opened_scrolls(self):
        """How many scrolls were ever opened."""
        return self.cluster.scrolls.opened

    def open_scrolls(self):
        """How many scrolls are open."""
        with self.cluster.lock:
            self.cluster.scrolls.drop_expired()
            return len(self.cluster.scrolls.contexts)

    def open_scroll_contexts(self):
        """How many scroll contexts are open on shards."""
        with self.cluster.lock:
            return self.cluster.scrolls.on_shards()

    def expire_scrolls(self):
        """Drops all scroll contexts, as if their time had run out."""
        with self.cluster.lock:
            self.cluster.scrolls.contexts.clear()

    # Faults and the journal

    @contextmanager
    def partial_responses(self, page=1, failed=0, unassigned=0, timed_out=False):
        """While in `with`, the responses of a search's `page` are partial as Partial tells; some shard must be left."""
        self.cluster.partial = Partial(page, failed, unassigned, timed_out)
        try:
            yield
        finally:
            self.cluster.partial = None

    def take_journal(self):
        """The requests that came since the last call."""
        taken, self.journal = self.journal, []
        return taken

    def journal_text(self, method):
        """The journal as JSON; DELETE empties it."""
        requests = self.take_journal() if method == "DELETE" else self.journal
        return json.dumps([{**request._asdict(), "body": request.body.decode("utf-8", "replace"),
                            "connection": request.connection} for request in requests], ensure_ascii=False)
