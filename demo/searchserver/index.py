"""One index: its settings, its mapping and the shards that its documents are spread over."""

import base64
import hashlib
import json
import re
import time

from .errors import SearchError, typed
from .jsontext import read_text
from .mapping import Mapping
from .reader import Reader
from .routing import shard_of
from .shard import Document, Shard

DEFAULTS = {"number_of_shards": "1", "number_of_replicas": "1", "max_result_window": "10000",
            "max_terms_count": "65536"}


def flat(settings, path=""):
    """Settings by dotted names without "index."; their values as text. The analysis stays as it is."""
    found = {}
    for name, value in settings.items():
        place = f"{path}.{name}" if path else name
        if place == "index" and isinstance(value, dict):
            found.update(flat(value))
        elif place in ("analysis", "index.analysis"):
            found["analysis"] = value
        elif isinstance(value, dict):
            found.update(flat(value, place))
        else:
            spelt = str(value).lower() if isinstance(value, bool) else str(value)
            found[re.sub("^index[.]", "", place)] = spelt
    return found


class Index:
    """One index; `hidden` ones are left out by patterns, `closed` ones give nothing."""

    def __init__(self, name, settings, cluster):
        self.name = name
        self.cluster = cluster
        self.uuid = base64.urlsafe_b64encode(hashlib.md5(name.encode()).digest()).decode()[:22]
        self.settings = flat(settings)
        self.created = int(time.time() * 1000)
        self.closed = False
        self.hidden = name.startswith(".") or self.settings.get("hidden") == "true"
        self.mapping = Mapping(self.settings.get("analysis", {}))
        self.shards = [Shard(self, number) for number in range(self.number("number_of_shards"))]
        self.documents = {}  # {id: Document}
        self.writes = 0

    def number(self, setting):
        """A setting that is a number."""
        text = self.settings.get(setting, DEFAULTS[setting])
        try:
            return int(text)
        except ValueError:
            raise typed(400, "illegal_argument_exception",
                        f"Failed to parse value [{text}] for setting [index.{setting}]")

    def put(self, doc_id, source):
        """Stores a document (dict, or JSON text that is kept as it is); one of the same id gives way."""
        raw = source if isinstance(source, str) else json.dumps(source, ensure_ascii=False)
        try:
            value = read_text(raw)
        except SearchError as error:
            raise typed(400, "mapper_parsing_exception", "failed to parse", error.body["error"]["root_cause"][0])
        if not isinstance(value, dict):
            raise typed(400, "mapper_parsing_exception", "failed to parse",
                        {"type": "not_x_content_exception", "reason": "the source is not a JSON object"})
        reading = Reader(self.mapping, doc_id).read(value)
        document = Document(doc_id, raw, reading, self.shards[shard_of(doc_id, len(self.shards))])
        if doc_id in self.documents:
            document.version += self.documents[doc_id].version
            self.delete(doc_id)
        self.documents[doc_id] = document
        document.shard.add(document, reading)
        self.writes += 1
        return document

    def delete(self, doc_id):
        """Forgets a document and returns it; None when there is none."""
        document = self.documents.pop(doc_id, None)
        if document:
            document.shard.remove(document)
        return document

    def count(self):
        """How many documents the shards hold, those within nested fields among them."""
        return sum(shard.count() for shard in self.shards)
