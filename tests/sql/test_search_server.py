"""The bundled search server: its responses against recorded exchanges, and what no recording tells."""

import contextlib
import gzip
import http.client
import json
import re
import time

import pytest

from conftest import ROOT, SearchServer

pytestmark = pytest.mark.unsanitized

RECORDINGS = ROOT / "tests" / "data" / "recordings"
JSON = {"Content-Type": "application/json"}


def send(server, path, body=None, method="POST", headers=JSON):
    """(status, headers, text) of one exchange; a body that is no text is sent as JSON."""
    connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=20)
    with contextlib.closing(connection):
        data = body if body is None or isinstance(body, (str, bytes)) else json.dumps(body)
        connection.request(method, path, data.encode() if isinstance(data, str) else data, headers)
        response = connection.getresponse()
        data = response.read()
        assert int(response.headers["content-length"]) == len(data)
        packed = response.headers["content-encoding"] == "gzip"
        return response.status, response.headers, (gzip.decompress(data) if packed else data).decode()


def ask(server, path, body=None):
    """The response to a request as JSON."""
    return json.loads(send(server, path, body, *(("GET", {}) if body is None else ("POST", JSON)))[2])


def look(value, path):
    """What is at a path such as "hits.hits.*._id" in a response; None for what is not there."""
    step, _, rest = path.partition(".")
    if step == "*":
        return value and [look(inner, rest) for inner in value]
    found = value[int(step)] if isinstance(value, list) else (value or {}).get(step)
    return look(found, rest) if rest else found


# Recorded exchanges

def recording(name):
    return json.loads((RECORDINGS / f"{name}.json").read_text(encoding="utf-8"))


def recorded_sources(name):
    """{id: raw source} of a recorded response."""
    text, found = recording(name)["response"], {}
    for place in re.finditer(r'"_id":("(?:[^"\\]|\\.)*"),"_score":[^,]*,"_source":', text):
        end = json.JSONDecoder().raw_decode(text, place.end())[1]
        found[json.loads(place[1])] = text[place.end():end]
    return found


def set_up(server):
    """Stores the recorded documents, and those that were there according to the recordings."""
    books, known = recorded_sources("search-large"), recorded_sources("scroll-wide-1")
    typed, both = (json.loads(recording(f"{name}-mapping")["response"]) for name in ("typed", "alias"))
    settings = json.loads(recording("typed-settings")["response"])["typed"]["settings"]["index"]
    made_up = {"title": "Dynamic", "year": 1, "price": 1.5, "ok": True, "when": "2020-02-29", "tags": ["a"],
               "who": {"name": "x"}, "long": "y" * 300}
    for name, shards, kinds, documents in (
            ("books", 2, {"type": "keyword", "year": "integer"}, books),
            ("notes", 2, {"year": "integer"}, {f"n{place}": raw for place, raw in zip(range(50), books.values())}),
            ("oldbooks", 2, {"year": "keyword"}, recorded_sources("partial-shard-failure")),
            ("emoji", 2, {}, recorded_sources("ids-emoji")), ("big", 1, {}, {}),
            ("wide", 60, {}, {**{f"w{number}": "{}" for number in range(120)}, **known}),
            ("plain", 1, {}, {"0": made_up, "1": {"title": "other"}})):
        server.create_index(name, shards, {"properties": {field: {"type": kind} for field, kind in kinds.items()}})
        server.put_many(name, documents.items())
    server.create_index("typed", 3, typed["typed"]["mappings"], {
        key: settings[key] for key in ("analysis", "max_result_window", "max_terms_count", "number_of_replicas")})
    server.put_many("typed", recorded_sources("typed-all").items())
    server.create_index("typed2", 1, both["typed2"]["mappings"])
    server.add_alias("both", "typed", "typed2")
    server.add_alias("bigalias", "books", "big")


# What must have happened before a recording, and recordings that come after all others.
BEFORE = {"closed-index": lambda server: server.close_index("plain"),
          "limit-contexts-1": lambda server: (server.expire_scrolls(), setattr(server, "max_scroll_contexts", 7)),
          "source-disabled": lambda server: server.put("nosource", "1", {"a": 1})}
LAST = re.compile("closed-|limit-contexts-|scroll-after-|source-disabled$")
NOT_REPLAYED = {"v8-limit-contexts-3"}  # which of the shards get the last contexts was chance
# What a server makes up, and texts of its libraries.
MADE_UP = [(r'"(took|_?node|index_uuid|uuid|creation_date|_scroll_id)":("[^"]*"|\d+)', r'"\1":0'),
           (r'"(name|cluster_name|cluster_uuid|tagline)" : "[^"]*"', r'"\1"'), (r"for id \[\d+\]", "for id []"),
           (r'(?<="type":")((?:json_|array_index_|input_)\w+","reason":")(?:[^"\\]|\\.)*', r"\1")]


def comparable(path, text):
    """A response without what a server makes up; members in order where that is no more than a hash table's."""
    for pattern, replacement in MADE_UP:
        text = re.sub(pattern, replacement, text)
    if not re.search("_mapping|_settings|_cat/", path):
        return text
    return json.dumps(sorted(json.loads(text), key=str) if text[0] == "[" else json.loads(text), sort_keys=True)


@pytest.mark.parametrize("version", [7, 8])
def test_responses_like_the_recordings(version):
    names = {path.stem for path in RECORDINGS.glob("*.json")} - NOT_REPLAYED
    differences, scroll_ids = [], {}
    with SearchServer(version) as server:
        set_up(server)
        for name in sorted(names, key=lambda name: (bool(LAST.match(name)), name)):
            recorded = recording(name)
            path, body, method = (recorded["request"][key] for key in ("path", "body", "method"))
            if name.startswith("v8-") != (version == 8):
                continue
            BEFORE.get(name, str)(server)
            if name.endswith("scroll-body-2"):  # no recording tells how this one began: ten hits were left
                scroll_ids[json.loads(body)["scroll_id"]] = ask(
                    server, "/books/_search?scroll=1m", {"size": 240})["_scroll_id"]
            for theirs, ours in scroll_ids.items():
                path, body = path.replace(theirs, ours), body and body.replace(theirs, ours)
            told = {key: value for key, value in recorded["headers"].items() if key == "x-opaque-id"}
            status, headers, text = send(server, path, body, method, {**told, **(JSON if body else {})})
            ids = [re.findall(r'"_scroll_id":"([^"]*)', each) for each in (recorded["response"], text)]
            scroll_ids.update(zip(*ids))
            ours = (status, comparable(path, text), [each[:20] + str(len(each)) for each in ids[1]],
                    {key: headers[key] for key in ("content-type", *told)}, "warning" in headers)
            theirs = (recorded["status"], comparable(path, recorded["response"]),
                      [each[:20] + str(len(each)) for each in ids[0]],
                      {key: recorded["headers"][key] for key in ("content-type", *told)},
                      "warning" in recorded["headers"])
            if ours != theirs:
                differences.append((name, ours, theirs))
    assert differences == []


# What no recording tells

MAPPING = {"properties": {
    "n": {"type": "byte"}, "u": {"type": "unsigned_long"}, "part": {"type": "scaled_float", "scaling_factor": 10},
    "flat": {"type": "flattened"}, "same": {"type": "constant_keyword", "value": "all"},
    "span": {"type": "integer_range"}, "odd": {"type": "integer", "ignore_malformed": True},
    "deep": {"type": "nested", "properties": {"i": {"type": "nested"}}}}, "runtime": {"late": {"type": "keyword"}}}
RAW = ('{ "text" : "A whale, a whale! The sea hid\\u0020the Whale.",\t"n":5.70, "u": 18446744073709551615, "part":'
       ' 1.26, "flat": {"k": "v", "m": {"n": [1, 2]}}, "late": "x", "when": "2024-01-31T12:00:00+02:00"}')
DOCUMENTS = {"a": RAW, "c": {"tag": "two*words", "n": None, "when": "2024-02-01"}, "b": {
    "text": "No whale was seen in it; don't shout 漢字.", "tag": "Two Words", "n": "-5", "u": 1, "part": 1.24,
    "span": {"gte": 1, "lt": 5}, "odd": "x", "deep": [{"i": {"x": 1}}, {}]}}
WHALE, TAGS = {"match": {"text": "whale"}}, {"terms": {"field": "tag.keyword", "order": {"_key": "desc"}, "size": 1}}
BY_N = {"sources": [{"n": {"terms": {"field": "n", "missing_bucket": True, "order": "desc"}}}], "after": {"n": 5}}
DAYS = {"date_histogram": {"field": "when", "fixed_interval": "1d"}, "aggs": {"m": {"stats": {"field": "part"}}}}
CASE = {"query": {"prefix": {"tag": {"value": "TW", "case_insensitive": True}}}}
# A query, and the ids of what it finds in order.
QUERIES = [
    (WHALE, "ab"), ({"match": {"text": {"query": "WHALE don't 漢", "operator": "and"}}}, "b"),
    ({"match": {"text": {"query": "sea whale no", "minimum_should_match": 2}}}, "ab"), ({"match": {"n": 5}}, "a"),
    ({"multi_match": {"query": "hid two", "fields": ["te*", "tag^9"]}}, "cba"), ({"term": {"n": 300}}, ""),
    ({"wildcard": {"tag.keyword": "T?o*"}}, "b"), ({"wildcard": {"tag.keyword": "two\\*w*"}}, "c"),
    ({"range": {"tag.keyword": {"gt": "Two Words", "lt": "twp"}}}, "c"), ({"range": {"n": {"gt": -5.5}}}, "ab"),
    ({"range": {"u": {"gte": -3, "lt": 2 ** 70}}}, "ab"), ({"range": {"part": {"gt": 1.2, "lt": 1.4}}}, "a"),
    ({"term": {"flat.m.n": "2"}}, "a"), ({"term": {"same": "all"}}, "acb"), ({"term": {"late": "x"}}, "a"),
    ({"term": {"span": 4}}, "b"), ({"range": {"span": {"gte": 5}}}, ""), ({"exists": {"field": "odd"}}, ""),
    ({"term": {"when": "2024-01-31||/M"}}, "a"), ({"range": {"when": {"gt": "2024-01-31||+1d/d"}}}, ""),
    ({"range": {"when": {"gte": "2024-01-31T11", "lt": "2024-01-31T12", "time_zone": "+01:00"}}}, "a"),
    ({"nested": {"path": "deep", "query": {"nested": {"path": "deep.i", "query": {"term": {"deep.i.x": 1}}}}}}, "b"),
    ({"bool": {"filter": WHALE, "should": {"term": {"u": 1}}}}, "ba"), ({"range": {"when": {"lt": "now"}}}, "ac")]
# A path, a body, where to look in the response, and what is there; a tuple has it for the versions 6, 7, 8 and 9.
EXCHANGES = [
    ("books", {"_source": {"includes": ["f*"], "excludes": ["flat.m"]}}, "hits.hits.0._source", {"flat": {"k": "v"}}),
    ("books", {"sort": {"part": "desc"}}, "hits.hits.*.sort", [[1.3], [1.2], ["-Infinity"]]),
    ("books", {"sort": ["n", "_score"], "search_after": [-5, 1]}, "hits.hits.*._id", ["a", "c"]),
    ("books", {"docvalue_fields": [{"field": "when", "format": "d.M.y"}]}, "hits.hits.1.fields.when", ["1.2.2024"]),
    ("books", {"query": WHALE, "rescore": {"query": {"rescore_query": {"term": {"u": 1}}}}}, "hits.hits.0._id", "b"),
    ("books", {"collapse": {"field": "n"}, "sort": "_doc"}, "hits.hits.*.fields.n", [[5], None, [-5]]),
    ("books", {"aggs": {"x": TAGS}}, "aggregations.x.buckets", [{"key": "two*words", "doc_count": 1}]),
    ("books", {"aggs": {"x": DAYS}}, "aggregations.x.buckets.*.m.avg", (None, *[[1.3, None]] * 3)),
    ("books", {"aggs": {"x": {"composite": BY_N}}}, "aggregations.x.buckets.*.key.n", [-5, None]),
    ("books", {"aggs": {"x": {"composite": {**BY_N, "after": {"m": 5}}}}}, "status", 400),
    ("books", {"aggs": {"x": {"composite": {**BY_N, "size": 65537}}}}, "status", (None, 503, 400, 400)),
    ("books", {"aggs": {"x": {"terms": {"field": "n", "size": 0}}}}, "status", 400),
    *[(name, {"aggs": {"x": {"terms": {"field": "n", "size": 1, "shard_size": size, "order": order}}}},
       "aggregations.x.doc_count_error_upper_bound", bound) for name, size, order, bound in (
           ("books", 1, {"_count": "desc"}, 0), (".spread", 3, {"_count": "desc"}, 4),
           (".spread", 4, {"_count": "desc"}, 0), (".spread", 1, {"_key": "asc"}, 0),
           (".spread", 1, {"_count": "asc"}, -1))],
    *[("../books/_search?scroll=1m", {"sort": "_doc", **more}, "error.type", kind) for more, kind in (
        ({"from": 1}, "action_request_validation_exception"), ({"search_after": [1]}, "illegal_argument_exception"),
        ({"collapse": {"field": "n"}}, "search_phase_execution_exception"),
        ({"rescore": {"query": {"rescore_query": {"match_all": {}}}}}, "action_request_validation_exception"))],
    *[(f"../{name}/_analyze", {"field": field, "text": "Two Words"}, *told) for name, field, told in (
        ("books", "tag.keyword", ("tokens.*.token", ["Two Words"])), ("books", "n", ("status", 400)),
        ("books", "tag", ("tokens.*.token", ["two", "words"])), ("books", "no", ("tokens.*.end_offset", [3, 9])),
        ("many", "tag", ("status", 400)), ("books,notes", "tag", ("status", 404)), ("book*", "tag", ("status", 404)),
        ("shut", "tag", ("status", 400)))],
    ("books", CASE, "hits.hits.*._id", (None, None, ["c", "b"], ["c", "b"])),
    ("books", {"track_total_hits": 2}, "hits.total.relation", (None, "gte", "gte", "gte")),
    ("books/", {}, "hits.hits.0._type", ("_doc", "_doc", None, None)), ("books", b'{"query":"\xff"}', "status", 400),
    ("many", None, "hits.hits.*._id", list("acb2")), ("*,-books", None, "hits.hits.*._id", ["1", "2"]),
    (".h*,stream", None, "hits.hits.1._id", "3"), ("shut", None, "status", 400), ("*", {"o": 1}, "status", 400),
    ("../*/_count?expand_wildcards=open,hidden", None, "count", 18), ("../_search?scroll=2d", None, "status", 400),
    ("../", None, "version.number", ("6.8.0", "7.8.0", "8.0.0", "9.0.0")),
    ("../books/_mapping", None, "books.mappings._doc.properties.when.type", ("date", None, None, None)),
    ("../_resolve/index/*", None, "aliases.0.name", (None, None, "many", "many"))]


@pytest.mark.parametrize("version", [6, 7, 8, 9])
def test_what_no_recording_tells(version):
    with SearchServer(version) as server:
        server.create_index("books", 1, MAPPING)
        server.create_data_stream("stream")
        server.put_many("books", DOCUMENTS.items())
        for name, doc_id in (("stream", "1"), ("notes", "2"), (".hidden", "3"), ("shut", "4")):
            server.put(name, doc_id, {})
        server.add_alias("many", "books", "notes")
        server.close_index("shut")
        server.create_index(".spread", 2)
        server.put_many(".spread", [(str(number), {"n": number % 3}) for number in range(12)])
        asked = [("books", {"query": query}, "hits.hits.*._id", list(found)) for query, found in QUERIES] + EXCHANGES
        for name, body, where, expected in asked:
            path = name[2:] if name.startswith("../") else f"/{name}/_search"
            expected = expected[version - 6] if isinstance(expected, tuple) else expected
            assert (name, body, look(ask(server, path, body), where)) == (name, body, expected)
        assert send(server, "/books/_search")[2].count(f'"_source":{RAW}') == 1


def test_connections_and_contexts(monkeypatch):
    now = 0.0
    monkeypatch.setattr("searchserver.scroll.monotonic", lambda: now)
    with SearchServer() as server:
        server.put_many("books", [(str(number), {}) for number in range(9)])
        server.compresses, server.seconds_per_document = True, 0.01
        packed, body, started = {"Accept-Encoding": "gzip"}, gzip.compress(b'{"size":2}'), time.monotonic()
        packed.update(JSON, **{"Content-Encoding": "gzip"})
        status, headers, text = send(server, "/books/_search?scroll=400ms", body, headers=packed)
        assert (status, headers["content-encoding"]) == (200, "gzip") and time.monotonic() - started > 0.02
        page = {"scroll": "400ms", "scroll_id": json.loads(text)["_scroll_id"]}
        for now, found in ((0.3, ["2", "3"]), (0.6, ["4", "5"]), (1.1, None)):  # each page renews the time
            assert look(ask(server, "/_search/scroll", page), "hits.hits.*._id") == found
        assert look(ask(server, "/_nodes/stats"), "nodes") and server.open_scroll_contexts() == 0
        first, *others = server.take_journal()
        assert [each.connection for each in others] == [2, 3, 4, 5] and ("Accept-Encoding", "gzip") in first.headers
