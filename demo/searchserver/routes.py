"""The endpoints: which function answers a method and a path, and what it answers."""

import json
import time
import uuid
from urllib.parse import parse_qsl, unquote

from . import jsontext, scroll
from .errors import SearchError, illegal_argument, typed
from .search import SearchRequest

DEPRECATED = ('299 Elasticsearch-7.8.0-bundled "[types removal] Specifying types in search requests'
              ' is deprecated."')
SHARDS = {"total": 1, "successful": 1, "failed": 0}
CONTENT_TYPES = ("application/json", "application/x-ndjson")


class Exchange:
    """One request being answered; handlers may add `headers` to the answer."""

    def __init__(self, cluster, dialect, request):
        self.cluster = cluster
        self.dialect = dialect
        self.method = request.method
        self.path, _, query_string = request.path.partition("?")
        self.parameters = dict(parse_qsl(query_string, keep_blank_values=True))
        self.body = request.body
        self.content_type = dict((name.lower(), value) for name, value in request.headers).get("content-type")
        self.headers = []

    def flag(self, name):
        return self.parameters.get(name) in ("", "true")


def respond(cluster, dialect, request):
    """(status, headers, text) of the answer to a request."""
    exchange = Exchange(cluster, dialect, request)
    try:
        handler, parts = find(exchange)
        content_type = (exchange.content_type or "").partition(";")[0].strip().lower()
        if exchange.body and content_type not in CONTENT_TYPES:
            said = f"[{exchange.content_type}] is not supported" if exchange.content_type else "is missing"
            raise SearchError(406, {"error": f"Content-Type header {said}", "status": 406})
        known = set(handler.parameters) - (set() if dialect.ids_in_urls else {"scroll_id"})
        unknown = next((name for name in exchange.parameters if name not in known), None)
        if unknown is not None:
            raise illegal_argument(f"request [{exchange.path}] contains unrecognized parameter: [{unknown}]")
        with cluster.lock:
            status, text = handler(exchange, *parts)
    except SearchError as error:
        status, text = error.status, jsontext.write(error.body)
    except Exception as error:  # whatever goes wrong here, the client is owed an answer
        failure = typed(500, "exception", f"{type(error).__name__}: {error}")
        status, text = failure.status, jsontext.write(failure.body)
    return status, exchange.headers, text


def endpoint(*parameters):
    """Marks a handler with the URL parameters it knows."""
    def marked(handler):
        handler.parameters = parameters
        return handler
    return marked


def find(exchange):
    """The handler of a request and the variable parts of its path; SearchError when there is none."""
    segments = [unquote(part) for part in exchange.path.split("/") if part]
    refused = exchange.dialect.empty_type == "refused" and "//" in exchange.path
    for pattern, methods in () if refused else ROUTES:
        parts = match(pattern, segments)
        if parts is None:
            continue
        if exchange.method not in methods:
            raise SearchError(405, {
                "error": f"Incorrect HTTP method for uri [{exchange.path}] and method [{exchange.method}],"
                         f" allowed: [{', '.join(methods)}]", "status": 405})
        return methods[exchange.method], parts
    raise SearchError(400, {
        "error": f"no handler found for uri [{exchange.path}] and method [{exchange.method}]"})


def match(pattern, segments):
    """The segments that stand at the stars of the pattern, or None when the rest differs."""
    if len(pattern) != len(segments):
        return None
    if any(wanted not in ("*", given) for wanted, given in zip(pattern, segments)):
        return None
    return [given for wanted, given in zip(pattern, segments) if wanted == "*"]


@endpoint()
def info(exchange):
    number = exchange.dialect.number
    about = {"name": "bundled", "cluster_name": "bundled-search-server",
             "cluster_uuid": "bundledSearchServer001",
             "version": {"number": number, "build_flavor": "unknown", "build_type": "unknown",
                         "build_hash": "unknown", "build_date": "unknown", "build_snapshot": True,
                         "lucene_version": exchange.dialect.lucene, "minimum_wire_compatibility_version": number,
                         "minimum_index_compatibility_version": number},
             "tagline": "A stand-in for tests and demonstrations"}
    return 200, json.dumps(about, indent=2, separators=(",", " : ")) + "\n"


@endpoint("rest_total_hits_as_int", "scroll")
def search(exchange, names="_all"):
    started = time.monotonic()
    keep_alive = scroll.seconds(exchange.parameters["scroll"]) if "scroll" in exchange.parameters else None
    request = SearchRequest(exchange.body, exchange.dialect, keep_alive)
    if exchange.path.rstrip("/").endswith("//_search") and exchange.dialect.empty_type == "deprecated":
        exchange.headers.append(("warning", DEPRECATED))
    found = request.find(exchange.cluster.select(names))
    partial = exchange.cluster.partial
    if partial and partial.page == 1:
        found = partial.cut(found)
    if keep_alive is None:
        scroll_id, hits = None, found.hits[request.start:request.start + request.size]
    else:
        scroll_id, hits = exchange.cluster.scrolls.open(request, found, keep_alive)
    plain = exchange.flag("rest_total_hits_as_int")
    return 200, request.write(found, hits, plain, started, scroll_id)


def scroll_members(exchange):
    body = jsontext.read(exchange.body)[0] if exchange.body else {}
    if not isinstance(body, dict):
        raise illegal_argument("Malformed content, must start with an object")
    return scroll.members(exchange.parameters, body)


@endpoint("rest_total_hits_as_int", "scroll", "scroll_id")
def next_page(exchange):
    started = time.monotonic()
    (scroll_id, *_), time_value = scroll_members(exchange)
    keep_alive = None if time_value is None else scroll.seconds(time_value)
    context, hits = exchange.cluster.scrolls.next_page(scroll_id, keep_alive)
    found, partial = context.found, exchange.cluster.partial
    if partial and partial.page == context.page:
        found, hits = partial.cut_page(found, hits)
    plain = exchange.flag("rest_total_hits_as_int")
    return 200, context.request.write(found, hits, plain, started,
                                      None if keep_alive is None else scroll_id, later_page=True)


@endpoint("scroll_id")
def delete_scroll(exchange):
    freed = exchange.cluster.scrolls.delete(scroll_members(exchange)[0])
    return 200 if freed else 404, jsontext.write({"succeeded": True, "num_freed": freed})


def written(exchange, index, document):
    """What the interface tells of a document that was stored."""
    return {"_index": index.name, **({"_type": "_doc"} if exchange.dialect.types else {}), "_id": document.id,
            "_version": document.version, "result": "created" if document.version == 1 else "updated",
            "_shards": SHARDS, "_seq_no": index.next_place - 1, "_primary_term": 1}


def status_of(document):
    return 201 if document.version == 1 else 200


@endpoint("refresh")
def put_document(exchange, name, doc_id):
    _, text = jsontext.read(exchange.body)
    index = exchange.cluster.create(name)
    document = index.put(doc_id, text)
    return status_of(document), jsontext.write(written(exchange, index, document))


@endpoint("refresh")
def bulk(exchange, name=None):
    started = time.monotonic()
    items = []
    for action, target, doc_id, source in bulk_actions(exchange.body.decode("utf-8"), name):
        index = exchange.cluster.create(target)
        document = index.put(doc_id, source)
        items.append({action: {**written(exchange, index, document), "status": status_of(document)}})
    took = int((time.monotonic() - started) * 1000)
    return 200, jsontext.write({"took": took, "errors": False, "items": items})


def bulk_actions(text, name=None):
    """(action, index, id, source text) of each document in newline-delimited JSON; or SearchError."""
    if text and not text.endswith("\n"):
        raise illegal_argument("The bulk request must be terminated by a newline [\\n]")
    lines = enumerate((line for line in text.split("\n") if line.strip()), 1)
    for number, line in lines:
        (action, about), = jsontext.read(line.encode())[0].items()
        if action not in ("index", "create"):
            raise illegal_argument(f"Malformed action/metadata line [{number}], expected one of"
                                   f" [create, index] but found [{action}]")
        target = about.get("_index", name)
        if target is None:
            raise typed(400, "action_request_validation_exception", "Validation Failed: 1: index is missing;")
        _, source = next(lines, (0, ""))
        yield action, target, str(about.get("_id") or uuid.uuid4().hex[:20]), source


@endpoint()
def refresh(exchange, names="_all"):
    exchange.cluster.select(names)  # nothing to do: what is written is found at once
    return 200, jsontext.write({"_shards": SHARDS})


SEARCH = {"POST": search, "GET": search}
ROUTES = [
    ((), {"GET": info, "HEAD": info}),
    (("_search",), SEARCH),
    (("_search", "scroll"), {"POST": next_page, "GET": next_page, "DELETE": delete_scroll}),
    (("_bulk",), {"POST": bulk, "PUT": bulk}),
    (("_refresh",), {"POST": refresh, "GET": refresh}),
    (("*", "_search"), SEARCH),
    (("*", "_bulk"), {"POST": bulk, "PUT": bulk}),
    (("*", "_refresh"), {"POST": refresh, "GET": refresh}),
    (("*", "_doc", "*"), {"PUT": put_document, "POST": put_document}),
]
