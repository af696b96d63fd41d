"""The SQL functions of the search wrapper: that they tell what the cluster tells, to those who may know it."""
import contextlib
import itertools
import json
import struct
from datetime import datetime, timezone

import pytest

from conftest import Database, SearchServer, every_version
from test_search_server import ask, recording, set_up
from test_search_wrapper import report

COUNT, DUST = 300, 10_200
NAMES = ["plain", 'quo"te', "back\\slash", "\u00fcn\u00ef \u6f22", "\U0001f40b", "it's", "a b", "{}", "%s", "\u2028"]
KINDS = {"kw": "keyword", "n": "long", "day": "date", "ok": "boolean", "ip": "ip"}
MAPPING = {"properties": {**{name: {"type": kind} for name, kind in KINDS.items()}, "title": {"type": "text"},
                          "odd": {"enabled": False},
                          "parts": {"type": "nested", "properties": {"n": {"type": "integer"}}}}}


def document(number):
    """One of those that are searched: values missing, several, and odd."""
    found = {"kw": [NAMES[number % 10], NAMES[number % 7]][:1 + number % 2], "n": number * 2 ** 40 // 7, "ok": number % 3 == 0,
             "day": f"2024-0{1 + number % 9}-01", "ip": f"10.0.0.{number % 5}", "title": "whale " * (number % 4) + "sea",
             "parts": [{"n": number % 6}, {"n": number % 4}], "odd": {"a.b": [1.50, None, NAMES[number % 10]]}}
    return {name: value for place, (name, value) in enumerate(found.items()) if (number + place) % 11}


DOCUMENTS = {f"{NAMES[number % 10]}-{number}": document(number) for number in range(COUNT)}


@pytest.fixture(scope="module")
def shelves():
    """A search server of each version with the documents in two indices, of three shards and of one."""
    with contextlib.ExitStack() as stack:
        servers = {version: stack.enter_context(SearchServer(version)) for version in (6, 7, 8, 9)}
        for server in servers.values():
            for place, name in enumerate(("shelf", "sh\u00ebl\U0001f40b")):
                server.create_index(name, 3 - 2 * place, MAPPING)
                server.put_many(name, list(DOCUMENTS.items())[place::2])
            server.add_alias("all", "shelf", "sh\u00ebl\U0001f40b")
        yield servers


@pytest.fixture
def shelf(cluster, shelves, versions):
    """A session with the table `docs` on them all; shelf.make(...) makes it anew with other options."""
    db, server = Database(cluster, shelves[versions[0]].port), shelves[versions[0]]

    def make(**options):
        texts = ", ".join(f"{key} '{value}'" for key, value in {"indexlist": "all", **options}.items())
        db.run(f"DROP FOREIGN TABLE IF EXISTS docs; CREATE FOREIGN TABLE docs (docname text) SERVER documents OPTIONS ({texts})")

    db.make, db.search = make, server
    db.make_documents()
    make()
    server.expire_scrolls()
    server.take_journal()
    yield db
    db.connection.close()


def single(number):
    return number if number is None else struct.unpack("f", struct.pack("f", number))[0]


def shown(hit):
    """The row of a hit."""
    return (hit["_index"], hit.get("_id"), single(hit["_score"]), *map(hit.get, ("sort", "_source", "highlight", "fields", "inner_hits")))


def found(db, body, relation="docs"):
    rows = db.run("SELECT * FROM veltranesearch_hits(%s, %s)", (relation, json.dumps(body)))
    return [(*row[:2], single(row[2]), *row[3:]) for row in rows]


def plain(server, body, path="/all/_search"):
    return [shown(hit) for hit in ask(server, path, {"size": 1000 if "from" in body else 10_000, **body})["hits"]["hits"]]


# ---- hits ---------------------------------------------------------------------------------------------------

WHALES = {"query": {"match": {"title": "whale"}}}
BY_N = {"sort": [{"n": {"order": "desc", "missing": "_last"}}, {"kw": "asc"}, {"day": "desc"}]}
AGAIN = {"rescore": {"window_size": 20, "query": {"rescore_query": {"term": {"ok": True}}}}}
BODIES = [{}, WHALES, {**WHALES, "highlight": {"fields": {"title": {}}}}, {**WHALES, "min_score": 0.3}, BY_N,
          {**BY_N, "track_scores": True, "_source": False}, {"docvalue_fields": ["kw", "day"], "_source": ["o*"]},
          {"stored_fields": []}, {"query": {"terms": {"kw": NAMES[1:5]}}}, {"query": {"match_none": {}}},
          {"query": {"nested": {"path": "parts", "query": {"term": {"parts.n": 2}}, "inner_hits": {"_source": False}}}}]
SIZED = [{**WHALES, **AGAIN, "size": 9}, {**BY_N, "from": 5, "size": 7}, {**BY_N, "search_after": [99 << 40, "", 0], "size": 4},
         {"collapse": {"field": "n"}, "size": 5}, {**BY_N, "size": 7, "track_total_hits": False}, {**WHALES, "size": 10_000},
         {**WHALES, **AGAIN}, {**BY_N, "from": 290}, {"size": 0}]


def in_order(rows):
    return sorted(rows, key=repr)


@every_version
def test_hits(shelf):
    """All hits, whatever is shown of them; those that are ordered in their order."""
    for body, batch in itertools.product(BODIES, (7, COUNT - 1, COUNT, 1000)):
        shelf.make(batchsize=batch)
        wanted, rows = plain(shelf.search, body), found(shelf, body)
        assert (rows if "sort" in body else in_order(rows)) == (wanted if "sort" in body else in_order(wanted)), (body, batch)
        assert shelf.search.open_scrolls() == 0
    for body in SIZED:
        shelf.search.take_journal()
        assert found(shelf, body) == plain(shelf.search, body)
        assert len(shelf.search.take_journal()) == 2 - (body.get("size") == 0)
    if shelf.search.version > 7:
        fields = {"fields": ["kw", {"field": "day", "format": "yyyy"}], "_source": False}
        assert in_order(found(shelf, fields)) == in_order(plain(shelf.search, fields))


def purposes(server):
    return "".join("d" if each.method == "DELETE" else "n" if "/scroll" in each.path else "o" if "scroll=" in each.path else "s"
                   for each in server.take_journal())


@pytest.mark.parametrize("batch, size, kinds", [
    (COUNT, None, "s"), (COUNT - 1, None, "sond"), (100, None, "sonnd"), (100, 250, "s"), (100, COUNT, "s"), (1, 10_000, "s"),
    (100, 10_001, "onnd"), (1000, 10_001, "o")])
def test_requests(shelf, batch, size, kinds):
    shelf.make(batchsize=batch)
    body = {} if size is None else {"size": size}
    assert len(found(shelf, body)) == min(size or COUNT, COUNT)
    assert purposes(shelf.search).rstrip("d") == kinds.rstrip("d")
    assert shelf.search.open_scrolls() == 0


def test_many_hits(cluster):
    """Beyond what one search may bring, and the slices of a scroll, which are each document once."""
    with SearchServer(7) as server:
        server.create_index("dust", 3)
        server.put_many("dust", ((f"d{number}", "{}") for number in range(DUST)))
        db = Database(cluster, server.port)
        db.make_documents()
        db.run("CREATE FOREIGN TABLE dust (docname text) SERVER documents OPTIONS (indexlist 'dust', batchsize '5000')")
        for size in (9_999, 10_000, 10_001, DUST - 1, DUST, DUST + 1, None):
            rows = found(db, {} if size is None else {"size": size}, "dust")
            assert len({row[1] for row in rows}) == len(rows) == min(size or DUST, DUST), size
        sliced = [row[1] for number in range(5) for row in found(db, {"slice": {"id": number, "max": 5}}, "dust")]
        assert len(set(sliced)) == len(sliced) == DUST
        assert len(found(db, {"slice": {"id": 1, "max": 2}, "size": 7}, "dust")) == 7
        body = {"query": {"ids": {"values": ["d1", "d2"]}}, "slice": {"id": 0, "max": 2}}
        assert len(found(db, body, "dust")) + len(found(db, {**body, "slice": {"id": 1, "max": 2}}, "dust")) == 2
        assert server.open_scrolls() == 0
        db.connection.close()


# ---- aggregations -------------------------------------------------------------------------------------------

def values(source, name):
    """The distinct values of a field of a document."""
    value = source.get(name, [])
    return set(value) if isinstance(value, list) else {value}


def milliseconds(day):
    return int(datetime.fromisoformat(day).replace(tzinfo=timezone.utc).timestamp() * 1000)


SPELT = {"kw": str, "ip": str, "n": str, "ok": lambda value: str(value).lower(), "day": lambda value: value + "T00:00:00.000Z"}


@every_version
def test_terms(shelf):
    """Like a GROUP BY of a local copy, of all documents and of those that a query finds."""
    for query, chosen in (("{\"match_all\":{}}", list(DOCUMENTS.values())),
                          ("{\"term\":{\"ok\":true}}", [each for each in DOCUMENTS.values() if each.get("ok")])):
        wanted = {}
        for source, name in itertools.product(chosen, SPELT):
            for value in values(source, name):
                wanted[name, SPELT[name](value)] = wanted.get((name, SPELT[name](value)), 0) + 1
        rows = shelf.run("SELECT * FROM veltranesearch_terms('docs', %s, %s, 1000)", (list(SPELT), query))
        assert {row[:2]: row[2] for row in rows} == wanted and len(rows) == len(wanted)
        best = shelf.run("SELECT value, documents FROM veltranesearch_terms('docs', '{kw}', %s, 3)", (query,))
        assert best == sorted(((value, count) for (name, value), count in wanted.items() if name == "kw"),
                              key=lambda row: (-row[1], row[0].encode()))[:3]
    assert shelf.run("SELECT * FROM veltranesearch_terms('docs', '{none,ok,none}', size => 1)") == [
        ("ok", "false", sum(each.get("ok") is False for each in DOCUMENTS.values()))]
    assert shelf.run("SELECT * FROM veltranesearch_terms('docs', '{}')") == [] and not shelf.connection.notices


def month(day):
    return milliseconds(day[:7] + "-01")


# Sources, and what they make of a document's values; None of one without.
SOURCES = [([{"k": {"terms": {"field": "kw"}}}], [("kw", str)]),
           ([{"n": {"terms": {"field": "n", "order": "desc"}}}], [("n", int)]),
           ([{"o": {"terms": {"field": "ok", "missing_bucket": True}}}, {"i": {"terms": {"field": "ip"}}}],
            [("ok", lambda value: value), ("ip", str)]),
           ([{"d": {"terms": {"field": "day"}}}, {"k": {"terms": {"field": "kw", "missing_bucket": True, "order": "desc"}}}],
            [("day", milliseconds), ("kw", lambda value: value)]),
           ([{"m": {"date_histogram": {"field": "day", "INTERVAL": "1M"}}}, {"h": {"histogram": {"field": "n", "interval": 2 ** 43}}}],
            [("day", month), ("n", lambda number: number // 2 ** 43 * 2 ** 43)])]


def grouped(sources, readers):
    """{members of a key: (documents, greatest n)} of a local copy."""
    names, groups = [next(iter(each)) for each in sources], {}
    missing = ["missing_bucket" in str(each) for each in sources]
    for source in DOCUMENTS.values():
        parts = [{read(value) for value in values(source, field)} or ({None} if takes else set())
                 for (field, read), takes in zip(readers, missing)]
        for key in itertools.product(*parts):
            groups.setdefault(frozenset(zip(names, key)), []).append(source.get("n"))
    return {key: (len(found), max((n for n in found if n is not None), default=None)) for key, found in groups.items()}


@every_version
def test_buckets(shelf):
    """Like a GROUP BY, each key once and in order, however many come at a time."""
    interval = "interval" if shelf.search.version == 6 else "calendar_interval"
    for (sources, readers), batch in itertools.product(SOURCES, (1, 7, 1000)):
        if batch == 1 and readers[0][0] == "n":
            continue
        shelf.make(batchsize=batch)
        rows = shelf.run("SELECT * FROM veltranesearch_buckets('docs', %s, %s)", (
            json.dumps(sources).replace("INTERVAL", interval), '{"max": {"max": {"field": "n"}}}'))
        wanted = grouped(sources, readers)
        assert len(rows) == len(wanted)
        assert {frozenset(key.items()): (count, aggregations["max"]["value"]) for key, count, aggregations in rows} == wanted
    ordered = [key["n"] for key, _, _ in shelf.run("SELECT * FROM veltranesearch_buckets('docs', %s)", (json.dumps(SOURCES[1][0]),))]
    assert ordered == sorted(ordered, reverse=True)
    few = shelf.run("SELECT * FROM veltranesearch_buckets('docs', %s, query => %s)", (
        json.dumps(SOURCES[0][0]), '{"terms": {"kw": ["plain"]}}'))
    assert max(few, key=lambda row: row[1])[0] == {"k": "plain"} and few[0][2] == {}


@every_version
def test_aggregate(shelf):
    wanted = {"a\"b\u00e9": {"terms": {"field": "kw"}, "aggs": {"s": {"stats": {"field": "n"}}}},
              "days": {"filter": {"term": {"ok": True}}, "aggs": {"none": {"missing": {"field": "n"}}}}}
    for query in ({"match_all": {}}, WHALES["query"]):
        there = ask(shelf.search, "/all/_search", {"size": 0, "query": query, "aggs": wanted})["aggregations"]
        assert shelf.value("SELECT veltranesearch_aggregate('docs', %s, %s)", (json.dumps(wanted), json.dumps(query))) == there


def test_like_the_recordings(cluster):
    """What real clusters responded is what the functions return."""
    with SearchServer(7) as server:
        set_up(server)
        db = Database(cluster, server.port)
        db.make_documents()
        db.run("CREATE FOREIGN TABLE typed (docname text) SERVER documents OPTIONS (indexlist 'typed', batchsize '2')")

        def told(name):
            return json.loads(recording(name)["response"]), json.loads(recording(name)["request"]["body"])

        pages = [told(f"aggregation-composite-{page}") for page in (1, 2, 3, 4)]
        rows = db.run("SELECT * FROM veltranesearch_buckets('typed', %s)", (json.dumps(pages[0][1]["aggs"]["c"]["composite"]["sources"]),))
        assert [row[:2] for row in rows] == [(each["key"], each["doc_count"]) for page, _ in pages for each in page["aggregations"]["c"]["buckets"]]
        response_, body = told("analyze-field")
        assert db.run("SELECT term, start_offset, end_offset, type, position FROM veltranesearch_analyze('typed', %(field)s, %(text)s)", body) == [
            tuple(each[name] for name in ("token", "start_offset", "end_offset", "type", "position")) for each in response_["tokens"]]
        response_, body = told("inner-hits")
        assert found(db, body, "typed") == [shown(hit) for hit in response_["hits"]["hits"]]
        response_, body = told("explain-in-search")
        hit, = response_["hits"]["hits"]
        query = json.dumps(body["query"]["bool"]["must"][0])
        (index, score, explanation), = db.run("SELECT * FROM veltranesearch_explain('typed', 'all', %s)", (query,))
        assert (index, single(score), explanation["details"][0]) == ("typed", single(hit["_score"]), hit["_explanation"]["details"][0])
        (message,) = [report(db, "SELECT * FROM veltranesearch_terms('typed', '{txt}')")[2]]
        assert "Text fields are not optimised" in message
        db.connection.close()


@every_version
def test_explain(shelf):
    """The score is that of the search; a document that the query does not find has no row."""
    scores = {row[1]: row[:3] for row in found(shelf, WHALES)}
    for name in list(DOCUMENTS)[:40]:
        rows = shelf.run("SELECT * FROM veltranesearch_explain('docs', %s, %s)", (name, json.dumps(WHALES["query"])))
        assert [(index, name, single(score)) for index, score, _ in rows] == ([scores[name]] if name in scores else [])
        assert all(single(explanation["value"]) == single(score) for _, score, explanation in rows)
    shelf.make(indexlist="shelf,all")
    assert len(shelf.run("SELECT * FROM veltranesearch_explain('docs', 'plain-10', '{\"match_all\":{}}')")) == 1


def test_analyze(shelf):
    shelf.make(indexlist="shelf")
    told = shelf.run("SELECT * FROM veltranesearch_analyze('docs', %s, %s)", ("title", "The \"Whale\" \U0001f40b \u6f22"))
    assert [row[0] for row in told] == ["the", "whale", "\U0001f40b", "\u6f22"] and told[1] == ("whale", 1, 5, 10, "<ALPHANUM>")
    assert shelf.run("SELECT * FROM veltranesearch_analyze('docs', 'title', '')") == []
    for field, indices, hint in (("n", "shelf", "tokenized"), ("title", "all", "more than one index"), ("title", "sh*", "no such index")):
        shelf.make(indexlist=indices)
        assert hint in report(shelf, f"SELECT * FROM veltranesearch_analyze('docs', '{field}', 'x')")[2]
