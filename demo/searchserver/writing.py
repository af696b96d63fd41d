"""The endpoints that change documents."""

import time
import uuid

from . import jsontext
from .errors import SearchError, illegal_argument, invalid
from .exchange import INDEX_OPTIONS, response, endpoint

SHARDS = {"total": 1, "successful": 1, "failed": 0}


def written(exchange, document, result):
    """What the interface tells of a document that was stored or deleted."""
    index = document.shard.index
    return {"_index": index.name, **({"_type": "_doc"} if exchange.dialect.types else {}), "_id": document.id,
            "_version": document.version, "result": result, "_shards": SHARDS, "_seq_no": index.writes - 1,
            "_primary_term": 1}


def stored(exchange, document):
    """(what is told of a document that was stored, status)."""
    is_new = document.version == 1
    return written(exchange, document, "created" if is_new else "updated"), 201 if is_new else 200


@endpoint("refresh", "op_type")
def put_document(exchange, name, doc_id=None):
    _, text = jsontext.read(exchange.body)
    document = exchange.cluster.for_writing(name).put(doc_id or new_id(), text)
    return response(*stored(exchange, document))


@endpoint("refresh")
def delete_document(exchange, name, doc_id):
    index, = exchange.select(name)
    document = index.delete(doc_id)
    if document is None:
        return response({"_index": index.name, "_id": doc_id, "result": "not_found", "_shards": SHARDS}, 404)
    index.writes += 1
    document.version += 1
    return response(written(exchange, document, "deleted"))


@endpoint("refresh")
def bulk(exchange, name=None):
    started, items = time.monotonic(), []
    for action, target, doc_id, source in bulk_actions(exchange.body.decode("utf-8"), name):
        try:
            told, status = stored(exchange, exchange.cluster.for_writing(target).put(doc_id, source))
        except SearchError as error:
            cause, = error.body["error"]["root_cause"]
            told, status = {"_index": target, "_id": doc_id, "error": cause}, error.status
        items.append({action: {**told, "status": status}})
    failed = any("error" in told for item in items for told in item.values())
    return response({"took": int((time.monotonic() - started) * 1000), "errors": failed, "items": items})


def new_id():
    return uuid.uuid4().hex[:20]


def bulk_actions(text, name=None):
    """(action, index, id, source text) of each document in newline-delimited JSON; or SearchError."""
    if text and not text.endswith("\n"):
        raise illegal_argument("The bulk request must be terminated by a newline [\\n]")
    lines = enumerate((line for line in text.split("\n") if line.strip()), 1)
    for number, line in lines:
        (action, about), = jsontext.read_text(line).items()
        if action not in ("index", "create"):
            raise illegal_argument(f"Malformed action/metadata line [{number}], expected one of"
                                   f" [create, index] but found [{action}]")
        target = about.get("_index", name)
        if target is None:
            raise invalid("index is missing")
        _, source = next(lines, (0, ""))
        yield action, target, str(about.get("_id") or new_id()), source


@endpoint(*INDEX_OPTIONS)
def refresh(exchange, names="_all"):
    exchange.select(names)  # nothing to do: what is written is found at once
    return response({"_shards": SHARDS})
