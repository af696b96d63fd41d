"""The major versions of the search servers: what each of them refuses, and that the option esversion puts it right.

What must be the same with all of them is tested where the tests are marked with every_version.
"""
import contextlib

import pytest

import demo
from conftest import VERSIONS, Database, SearchServer
from queries import TOUR

SCROLL = {"connectortype": "elasticsearchscroll"}
SEARCH = "SELECT docname FROM books WHERE param = 'query={\"match_all\":{}}'"
NAMES = [(f"b{number:03}",) for number in range(250)]
TOO_MANY = "HV000", "es search result bigger than batch size, use a scroll"


@pytest.fixture
def at(db, library):
    """at(version, esversion, ...): moves `books` to the search server of a version, which it returns."""
    def move(version, esversion, **options):
        server = library(version)
        server.expire_scrolls()
        db.make_table(port=server.port, esversion=esversion, **options)
        return server
    return move


NO_HANDLER = '":"no handler found for uri [/books//_search] and method [POST]"}'


@pytest.mark.parametrize("esversion", [None, 6])
@pytest.mark.parametrize("version", [8, 9])
@pytest.mark.parametrize("clause, body", [
    ("param = 'query={\"match\":{\"number\":7}}'", '{"query":{"match":{"number":7}},"size":100,"_source":false}'),
    ("docname = 'b007'", '{"query":{"terms":{"_id":["b007"]}},"size":1,"_source":false}')],
    ids=["search", "look-up"])
def test_a_path_that_is_routed_no_more(db, at, version, esversion, clause, body):
    at(version, esversion)
    db.run(f"PREPARE p AS SELECT docname FROM books WHERE {clause}")
    assert db.failure("EXECUTE p") == ("HV000", "ElasticSearch error")
    db.run("ALTER FOREIGN TABLE books OPTIONS (ADD fullerrormsg 'true')")
    assert db.failure("EXECUTE p") == (
        "HV000", f"ElasticSearch error, query was '{body}', error was '{NO_HANDLER}'")
    db.run(f"ALTER FOREIGN TABLE books OPTIONS ({'SET' if esversion else 'ADD'} esversion '{version}')")
    assert db.run("EXECUTE p") == [("b007",)]


UNKNOWN = "request [/_search/scroll] contains unrecognized parameter: [scroll_id]"
TOO_LONG = "An HTTP line is larger than 4096 bytes."
# index, version, esversion, what is said of the scroll id in the URL
SCROLLS = [
    *[("books", version, esversion, None) for version, esversion in [*VERSIONS, (8, None), (8, 7), (9, 7)]],
    ("books", 9, None, UNKNOWN), ("books", 9, 6, UNKNOWN),
    *[("wide", version, esversion, None if esversion and esversion > 6 else TOO_LONG)
      for version, esversion in [*VERSIONS, (8, None)]],
]


@pytest.mark.parametrize("index, version, esversion, refusal", SCROLLS)
def test_scroll_ids(db, at, index, version, esversion, refusal):
    """An index of many shards has scroll ids that are too long for a URL."""
    server = at(version, esversion, indexlist=index, fullerrormsg="true", **SCROLL)
    if "wide" not in server.cluster.indices:
        server.create_index("wide", 120)
        server.put_many("wide", [(name, {}) for (name,) in NAMES])
    outcome = db.outcome(SEARCH)
    if refusal:
        assert outcome[0] == "HV000" and outcome[1].startswith("ElasticSearch error, query was ''") and (
            refusal in outcome[1])
    else:
        assert sorted(outcome) == NAMES
    # A deletion that is refused fails no query, but the scroll stays open.
    server.expire_scrolls()
    db.connection.autocommit = False
    db.run("DECLARE c CURSOR FOR " + SEARCH)
    assert len(set(db.run("FETCH 100 FROM c"))) == 100
    db.run("CLOSE c")
    assert server.open_scrolls() == (refusal is not None)
    db.connection.rollback()


@pytest.mark.every_version
@pytest.mark.parametrize("generic", [False, True])
def test_prepared_statements(db, search, generic):
    db.make_table("pages", batchsize=20, **SCROLL)
    for table in ("books", "pages"):
        db.run(f"PREPARE search_{table}(text) AS SELECT docname FROM {table} WHERE param = $1")
        db.run(f"PREPARE look_up_{table}(text[]) AS SELECT docname FROM {table} WHERE docname = ANY($1)")
        if generic:
            db.make_generic(f"EXECUTE search_{table}('x'); EXECUTE look_up_{table}('{{}}')")
        for _ in range(2):
            for least in (200, 240):
                assert db.run(f"EXECUTE search_{table}(%s)", (
                    f'query={{"range":{{"number":{{"gte":{least}}}}}}}',)) == NAMES[least:]
            wanted = [name for (name,) in NAMES[:230]]
            assert db.run(f"EXECUTE look_up_{table}(%s)", (wanted + ["no"],)) == NAMES[:230]


@pytest.mark.every_version
def test_more_hits_than_are_counted(db, versions):
    """Servers count up to 10,000 hits unless they are told to go on: one more must not get lost unnoticed."""
    version, esversion = versions
    names = [f"{number:05}" for number in range(10_000)]
    look_up = "SELECT count(*) FROM books WHERE docname = ANY(%s)"
    with SearchServer(version) as server:
        server.put_many("many", [(name, {}) for name in names])
        server.put("more", names[-1], {})
        for index in ("many", "many,more"):
            db.make_table(port=server.port, esversion=esversion, indexlist=index, batchsize=10_000)
            for statement, values in ((SEARCH.replace("docname", "count(*)"), None), (look_up, (names,))):
                assert db.outcome(statement, values) == ([(10_000,)] if index == "many" else TOO_MANY)
        db.make_table(port=server.port, esversion=esversion, indexlist="many,more", batchsize=10_000, **SCROLL)
        assert db.run(look_up, (names,)) == db.run(SEARCH.replace("docname", "count(*)")) == [(10_001,)]


@pytest.mark.every_version
def test_partial_answers(db, search):
    """The hits of shards that fail or do not answer are missing from a search, and from one page of a scroll."""
    if "four" not in search.cluster.indices:
        search.create_index("four", 4)
        search.put_many("four", [(name, {}) for (name,) in NAMES[:40]])
    held = [[(document.id,) for document in shard.documents.values()] for shard in search.cluster.indices["four"].shards]
    names = sum(held, [])
    left = [name for number, name in enumerate(names) if number // 15 != 1 or name not in held[0] + held[1]]
    for partial, options, rows, message in (
            ({"failed": 2, "unassigned": 1, "timed_out": True}, {}, held[3],
             "timed out, 2 of 4 shards failed, 1 of 4 shards without an answer"),
            ({"page": 2, "failed": 2}, SCROLL, left, "2 of 4 shards failed"),
            ({"page": 3, "timed_out": True}, SCROLL, names, "timed out")):
        message = "ElasticSearch answer is partial: " + message
        for reaction, expected, warnings in (("ignore", rows, []), (None, rows, [f"WARNING:  {message}\n"]),
                                             ("error", ("HV000", message), [])):
            db.make_table(indexlist="four", batchsize=15 if options else 100, partialresults=reaction, **options)
            with search.partial_answers(**partial):
                assert db.outcome(SEARCH) == expected
            assert db.connection.notices == warnings
            del db.connection.notices[:]
            assert db.outcome(SEARCH) == names


def tour(cluster, version):
    """The rows of the demo's queries, with a search server of a version."""
    with contextlib.ExitStack() as stack:
        server = stack.enter_context(SearchServer(version))
        url = f"http://127.0.0.1:{server.port}"
        assert demo.load_documents(url, "books") and not demo.load_documents(url, "books")
        owner = Database(cluster, server.port)
        stack.callback(owner.connection.close)
        owner.run("CREATE DATABASE tour")
        stack.callback(owner.run, "DROP DATABASE tour")
        db = Database(cluster, server.port, "tour")
        stack.callback(db.connection.close)
        demo.create_tables(db.connection, cluster, url, "books")
        return [[tuple(bytes(value) if isinstance(value, memoryview) else value for value in row)
                 for row in db.run(query)] for _, query in TOUR]


def test_the_demo(cluster):
    expected = tour(cluster, 7)
    assert all(expected)
    for version in (6, 8, 9):
        assert tour(cluster, version) == expected
