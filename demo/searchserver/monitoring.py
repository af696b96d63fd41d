"""The endpoints that tell how the server fares, and what it makes of names and texts."""

import json
import time

from . import names
from .analysis import Analyzer
from .errors import NODE, illegal_argument, index_closed, index_not_found
from .exchange import INDEX_OPTIONS, response, endpoint
from .strings import Text

ANY = names.Wishes(False, True, ("open", "closed"), True)
CLUSTER = "bundled-search-server"
INDEX_COLUMNS = "health,status,index,uuid,pri,rep,docs.count,docs.deleted,store.size,pri.store.size"


@endpoint()
def info(exchange):
    dialect = exchange.dialect
    about = {"name": "bundled", "cluster_name": CLUSTER, "cluster_uuid": "bundledSearchServer001",
             "version": {"number": dialect.number, "build_flavor": "unknown", "build_type": "unknown",
                         "build_hash": "unknown", "build_date": "unknown", "build_snapshot": True,
                         "lucene_version": dialect.lucene, "minimum_wire_compatibility_version": dialect.oldest_peer,
                         "minimum_index_compatibility_version": dialect.oldest_index},
             "tagline": "A stand-in for tests and demonstrations"}
    return 200, json.dumps(about, indent=2, separators=(",", " : ")) + "\n"


def table(exchange, rows, columns):
    """Rows as the wanted columns of a table: JSON, or lines of text."""
    wanted = exchange.parameters.get("h", columns).split(",")
    shown = [{name: row[name] for name in wanted if name in row} for row in rows]
    if exchange.parameters.get("format") == "json":
        return response(shown)
    lines = ([list(shown[0])] if shown and exchange.flag("v") else []) + [list(row.values()) for row in shown]
    return 200, "".join(" ".join("" if value is None else value for value in line) + "\n" for line in lines)


@endpoint("format", "h", "v", "s", "bytes", *INDEX_OPTIONS)
def cat_indices(exchange, expression="_all"):
    rows = []
    for index in exchange.select(expression, ANY):
        documents = None if index.closed else str(index.count())
        size = None if index.closed else f"{sum(len(document.raw) for document in index.documents.values())}b"
        rows.append({"health": "green", "status": "close" if index.closed else "open", "index": index.name,
                     "uuid": index.uuid, "pri": str(len(index.shards)),
                     "rep": index.settings.get("number_of_replicas", "1"), "docs.count": documents,
                     "docs.deleted": None if index.closed else "0", "store.size": size, "pri.store.size": size})
    return table(exchange, rows, INDEX_COLUMNS)


@endpoint("format", "h", "v", "s", "expand_wildcards")
def cat_aliases(exchange, pattern="*"):
    test = names.matcher(pattern)
    rows = [{"alias": alias, "index": member, "filter": "-", "routing.index": "-", "routing.search": "-",
             "is_write_index": "-"}
            for alias, members in sorted(exchange.cluster.aliases.items()) if test(alias) for member in members]
    return table(exchange, rows, "alias,index,filter,routing.index,routing.search,is_write_index")


@endpoint("timeout", "wait_for_status", "level", *INDEX_OPTIONS)
def health(exchange, expression="_all"):
    shards = sum(len(index.shards) for index in exchange.select(expression, ANY))
    return response({
        "cluster_name": CLUSTER, "status": "green", "timed_out": False, "number_of_nodes": 1,
        "number_of_data_nodes": 1, "active_primary_shards": shards, "active_shards": shards, "relocating_shards": 0,
        "initializing_shards": 0, "unassigned_shards": 0, "delayed_unassigned_shards": 0,
        "number_of_pending_tasks": 0, "number_of_in_flight_fetch": 0, "task_max_waiting_in_queue_millis": 0,
        "active_shards_percent_as_number": 100.0})


@endpoint()
def node_stats(exchange, metric="indices", part=None):
    scrolls = exchange.cluster.scrolls
    open_contexts = scrolls.on_shards()
    counts = {"open_contexts": open_contexts, "query_total": exchange.cluster.searches, "query_time_in_millis": 0,
              "query_current": 0, "fetch_total": exchange.cluster.searches, "fetch_time_in_millis": 0,
              "fetch_current": 0, "scroll_total": scrolls.next_number - 1 - open_contexts,
              "scroll_time_in_millis": 0, "scroll_current": open_contexts, "suggest_total": 0,
              "suggest_time_in_millis": 0, "suggest_current": 0}
    node = {"timestamp": int(time.time() * 1000), "name": "bundled", "transport_address": "127.0.0.1:9300",
            "host": "127.0.0.1", "ip": "127.0.0.1:9300", "roles": ["data", "ingest", "master"],
            "indices": {"search": counts}}
    return response({"_nodes": {"total": 1, "successful": 1, "failed": 0}, "cluster_name": CLUSTER,
                   "nodes": {NODE: node}})


@endpoint("expand_wildcards")
def resolve(exchange, expression):
    cluster, wanted = exchange.cluster, names.any_of(expression)
    hidden = "hidden" in exchange.parameters.get("expand_wildcards", "")

    streams = {member: name for name, members in cluster.streams.items() for member in members}
    indices = []
    for name, index in sorted(cluster.indices.items()):
        if not wanted(name) or (index.hidden and not hidden and "*" in expression):
            continue
        known = sorted(cluster.aliases_of(index))
        state = ["closed" if index.closed else "open"]
        indices.append({"name": name, **({"aliases": known} if known else {}),
                        "attributes": (["hidden"] if index.hidden else []) + state,
                        **({"data_stream": streams[name]} if name in streams else {})})
    return response({"indices": indices,
                   "aliases": [{"name": name, "indices": sorted(members)}
                               for name, members in sorted(cluster.aliases.items()) if wanted(name)],
                   "data_streams": [{"name": name, "backing_indices": members, "timestamp_field": "@timestamp"}
                                    for name, members in sorted(cluster.streams.items()) if wanted(name)]})


def single_index(cluster, name):
    """The one index of a name, which is no list and no pattern here; SearchError for any other."""
    members = names.groups(cluster).get(name)
    if members is None:
        raise index_not_found(name)
    if len(members) > 1:
        raise illegal_argument(f"alias [{name}] has more than one index associated with it"
                               f" [{', '.join(index.name for index in members)}], can't execute a single index op")
    if members[0].closed:
        raise index_closed(members[0])
    return members[0]


@endpoint()
def analyze(exchange, name):
    body = exchange.json()
    index = single_index(exchange.cluster, name)
    analysis, field = index.mapping.analysis, index.mapping.field(body.get("field", ""))
    if "analyzer" in body:
        analyzer = analysis.named(body["analyzer"])
    elif isinstance(field, Text):
        analyzer = field.analyzer
    elif field and field.kind == "keyword":
        analyzer = Analyzer("keyword", [field.normalize])
    elif field:
        raise illegal_argument(f"Can't process field [{body['field']}], Analysis requests are only supported on"
                               " tokenized fields")
    else:
        analyzer = analysis.named("standard")
    texts = body.get("text")
    if texts is None:
        raise illegal_argument("Validation Failed: 1: text is missing;")
    found = [token for text in ([texts] if isinstance(texts, str) else texts) for token in analyzer.tokens(text)]
    return response({"tokens": [{"token": token.text, "start_offset": token.start, "end_offset": token.end,
                               "type": token.kind, "position": token.position} for token in found]})
