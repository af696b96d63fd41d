"""The endpoints that search: _search, _count and the pages of a scroll."""

import time

from . import scroll
from .response import Response
from .exchange import INDEX_OPTIONS, response, endpoint
from .execution import run
from .search import SearchRequest, read_body

DEPRECATED = ('299 Elasticsearch-7.8.0-bundled "[types removal] Specifying types in search requests'
              ' is deprecated."')
# Known, and without effect on a single node that has no caches.
TUNING = ("preference", "request_cache", "batched_reduce_size", "max_concurrent_shard_requests", "search_type",
          "pre_filter_shard_size", "ignore_throttled", "ccs_minimize_roundtrips")


@endpoint("rest_total_hits_as_int", "scroll", "allow_partial_search_results", "size", "from", *TUNING, *INDEX_OPTIONS)
def search(exchange, names="_all"):
    started, cluster = time.monotonic(), exchange.cluster
    keep_alive = scroll.seconds(exchange.parameters["scroll"]) if "scroll" in exchange.parameters else None
    request = SearchRequest(exchange.body, exchange.dialect, keep_alive, exchange.parameters)
    if exchange.path.rstrip("/").endswith("//_search") and exchange.dialect.empty_type == "deprecated":
        exchange.headers.append(("warning", DEPRECATED))
    shards = [shard for index in exchange.select(names) for shard in index.shards]
    partial = cluster.partial if cluster.partial and cluster.partial.page == 1 else None
    room = None if keep_alive is None else cluster.scrolls.most - cluster.scrolls.on_shards()
    outcome = run(request, shards, partial, room)
    if keep_alive is None:
        scroll_id, hits = None, outcome.hits[request.start:request.start + request.size]
    else:
        scroll_id, hits = cluster.scrolls.open(request, outcome, keep_alive)
    cluster.searches += len(outcome.shards)
    exchange.hits = len(hits)
    return 200, Response(request, outcome, started).write(hits, scroll_id)


def scroll_members(exchange):
    return scroll.members(exchange.parameters, exchange.json())


@endpoint("rest_total_hits_as_int", "scroll", "scroll_id")
def next_page(exchange):
    started = time.monotonic()
    (scroll_id, *_), time_value = scroll_members(exchange)
    keep_alive = None if time_value is None else scroll.seconds(time_value)
    context, hits = exchange.cluster.scrolls.next_page(scroll_id, keep_alive)
    request, outcome, partial = context.request, context.outcome, exchange.cluster.partial
    if partial and partial.page == context.page:
        outcome, hits = partial.cut(outcome), partial.cut(outcome._replace(hits=hits)).hits
    exchange.hits = len(hits)
    request.plain_total = exchange.dialect.plain_total or exchange.flag("rest_total_hits_as_int")
    return 200, Response(request, outcome, started).write(hits, None if keep_alive is None else scroll_id,
                                                        request.ends_early(outcome))


@endpoint("scroll_id")
def delete_scroll(exchange):
    freed = exchange.cluster.scrolls.delete(scroll_members(exchange)[0])
    return response({"succeeded": True, "num_freed": freed}, 200 if freed else 404)


@endpoint()
def delete_all_scrolls(exchange):
    freed = exchange.cluster.scrolls.delete(list(exchange.cluster.scrolls.contexts))
    return response({"succeeded": True, "num_freed": freed})


@endpoint("preference", *INDEX_OPTIONS)
def count(exchange, names="_all"):
    read_body(exchange.body, ("query",), lambda body: None)
    request = SearchRequest(exchange.body, exchange.dialect)
    shards = [shard for index in exchange.select(names) for shard in index.shards]
    outcome = run(request, shards, None, None)
    return response({"count": outcome.count, "_shards": outcome.account.as_json()})
