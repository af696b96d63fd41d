"""Which function responds to a method and a path."""

from urllib.parse import unquote

from . import administration as admin
from . import jsontext
from . import monitoring as monitor
from . import searching, writing
from .errors import SearchError, typed
from .exchange import Exchange


def respond(cluster, request):
    """(status, headers, text, documents shown) of the response to a request."""
    exchange = Exchange(cluster, request)
    try:
        handler, parts = find(exchange)
        exchange.check(handler.parameters - (set() if exchange.dialect.ids_in_urls else {"scroll_id"}))
        with cluster.lock:
            status, text = handler(exchange, *parts)
    except SearchError as error:
        status, text = error.status, jsontext.write(error.body)
    except RecursionError:
        failure = typed(400, "illegal_argument_exception", "The query is nested too deeply")
        status, text = failure.status, jsontext.write(failure.body)
    except Exception as error:  # whatever goes wrong here, the client is owed a response
        failure = typed(500, "exception", f"{type(error).__name__}: {error}")
        status, text = failure.status, jsontext.write(failure.body)
    return status, exchange.headers, text, exchange.hits


# What came in the course of version 7 with data streams.
NEWER = (("_resolve",), ("_data_stream",), ("_index_template",))


def find(exchange):
    """The handler of a request and the variable parts of its path; SearchError when there is none."""
    segments = [unquote(part) for part in exchange.path.split("/") if part]
    refused = exchange.dialect.empty_type == "refused" and "//" in exchange.path
    for pattern, methods in () if refused else ROUTES:
        parts = match(pattern, segments)
        if parts is None or (pattern[0:1] in NEWER and not exchange.dialect.resolves):
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
    if pattern[:1] == ("*",) and segments[0].startswith("_") and segments[0] != "_all":
        return None
    if any(wanted not in ("*", given) for wanted, given in zip(pattern, segments)):
        return None
    return [given for wanted, given in zip(pattern, segments) if wanted == "*"]


def either(*methods):
    """The same handler, the last of the arguments, for several methods."""
    return dict.fromkeys(methods[:-1], methods[-1])


def route(path, **methods):
    return tuple(path.split("/")) if path else (), methods


SEARCH = either("POST", "GET", searching.search)
COUNT = either("POST", "GET", searching.count)
REFRESH = either("POST", "GET", writing.refresh)
BULK = either("POST", "PUT", writing.bulk)
MAPPING = {"GET": admin.mappings, **either("PUT", "POST", admin.put_mapping)}
ALIAS = {"GET": admin.aliases, **either("PUT", "POST", admin.put_alias), "DELETE": admin.delete_alias}
ROUTES = [
    route("", **either("GET", "HEAD", monitor.info)),
    route("_search", **SEARCH),
    route("_search/scroll", **either("POST", "GET", searching.next_page), DELETE=searching.delete_scroll),
    route("_search/scroll/_all", DELETE=searching.delete_all_scrolls),
    route("_count", **COUNT),
    route("_bulk", **BULK),
    route("_refresh", **REFRESH),
    route("_mapping", GET=admin.mappings),
    route("_settings", GET=admin.settings),
    route("_aliases", GET=admin.aliases, POST=admin.change_aliases),
    route("_alias", GET=admin.aliases),
    route("_alias/*", GET=admin.all_aliases_named),
    route("_data_stream", GET=admin.streams),
    route("_data_stream/*", GET=admin.streams, PUT=admin.put_stream),
    route("_index_template/*", PUT=admin.put_template),
    route("_cat/indices", GET=monitor.cat_indices),
    route("_cat/indices/*", GET=monitor.cat_indices),
    route("_cat/aliases", GET=monitor.cat_aliases),
    route("_cat/aliases/*", GET=monitor.cat_aliases),
    route("_cluster/health", GET=monitor.health),
    route("_cluster/health/*", GET=monitor.health),
    route("_nodes/stats", GET=monitor.node_stats),
    route("_nodes/stats/indices", GET=monitor.node_stats),
    route("_nodes/stats/indices/search", GET=monitor.node_stats),
    route("_resolve/index/*", GET=monitor.resolve),
    route("*", PUT=admin.create_index, DELETE=admin.delete_index, HEAD=admin.has_index, GET=admin.whole_index),
    route("*/_search", **SEARCH),
    route("*/_count", **COUNT),
    route("*/_bulk", **BULK),
    route("*/_refresh", **REFRESH),
    route("*/_mapping", **MAPPING),
    route("*/_mapping/*", PUT=admin.put_mapping),
    route("*/_settings", GET=admin.settings),
    route("*/_settings/*", GET=admin.settings),
    route("*/_alias", GET=admin.aliases),
    route("*/_alias/*", **ALIAS),
    route("*/_aliases/*", **ALIAS),
    route("*/_close", POST=admin.close_index),
    route("*/_open", POST=admin.open_index),
    route("*/_analyze", **either("GET", "POST", monitor.analyze)),
    route("*/_doc", POST=writing.put_document),
    route("*/_doc/*", **either("PUT", "POST", writing.put_document), DELETE=writing.delete_document),
]
