"""The SQL functions of the search wrapper: that they tell what the cluster tells, to those who may know it."""
import contextlib
import itertools
import json
import struct
import threading
import time
from datetime import datetime, timezone

import pytest

from conftest import Database, SearchServer, bodies, every_version, memory, new_database, wait_until
from scriptedserver import hits, named, raw, response, silence
from test_search_server import ask, recording, set_up
from test_search_wrapper import agrees, docs, report  # noqa: F401

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
