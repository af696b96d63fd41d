"""The major versions of the search servers: what each of them refuses, and how the option esversion puts it right."""
# What must be the same with all of them is tested where the tests are marked with every_version.
import pytest

import demo
from conftest import VERSIONS, Database, SearchServer, every_version, new_database
from queries import TOUR

SCROLL = {"connectortype": "elasticsearchscroll"}
SEARCH = "SELECT docname FROM books WHERE param = 'query={\"match_all\":{}}'"
NAMES = [(f"b{number:03}",) for number in range(250)]
NO_HANDLER = '":"no handler found for uri [/books//_search] and method [POST]"}'


@pytest.mark.parametrize("version", [8, 9])
def test_a_path_that_is_routed_no_more(db, library, version):
    for esversion in (None, 6):
        for clause, query in (("param = 'query={\"match\":{\"number\":7}}'", '{"match":{"number":7}},"size":100'),
                              ("docname = 'b007'", '{"terms":{"_id":["b007"]}},"size":1')):
            db.make_table(port=library[version].port, esversion=esversion, fullerrormsg="true")
            db.run(f"DEALLOCATE ALL; PREPARE p AS SELECT docname FROM books WHERE {clause}")
            body = f'{{"query":{query},"_source":false}}'
            assert db.failure("EXECUTE p")[1] == f"ElasticSearch error, query was '{body}', error was '{NO_HANDLER}'"
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
def test_scroll_ids(db, library, index, version, esversion, refusal):
    """An index of many shards has scroll ids that are too long for a URL."""
    server = library[version]
    db.make_table(port=server.port, esversion=esversion, indexlist=index, fullerrormsg="true", **SCROLL)
    if "wide" not in server.cluster.indices:
        server.create_index("wide", 120)
        server.put_many("wide", [(name, {}) for (name,) in NAMES])
    outcome = db.outcome(SEARCH)
    assert outcome[1].startswith("ElasticSearch error, query was ''") and refusal in outcome[1] if refusal else (
        sorted(outcome) == NAMES)
    # A deletion that is refused fails no query, but the scroll stays open.
    server.expire_scrolls()
    assert len(set(db.run(SEARCH + " LIMIT 100"))) == 100
    assert server.open_scrolls() == (refusal is not None)


@every_version
def test_partial_responses(db, search):
    """The hits of shards that fail or do not respond are missing from a search, and from one page of a scroll."""
    if "four" not in search.cluster.indices:
        search.create_index("four", 4)
        search.put_many("four", [(name, {}) for (name,) in NAMES[:40]])
    held = [[(document.id,) for document in shard.documents.values()] for shard in search.cluster.indices["four"].shards]
    names = sum(held, [])
    left = [name for number, name in enumerate(names) if number // 15 != 1 or name not in held[0] + held[1]]
    for partial, options, rows, what in (
            ({"failed": 2, "unassigned": 1, "timed_out": True}, {}, held[3],
             "timed out, 2 of 4 shards failed, 1 of 4 shards without an answer"),
            ({"page": 2, "failed": 2}, SCROLL, left, "2 of 4 shards failed"),
            ({"page": 3, "timed_out": True}, SCROLL, names, "timed out")):
        db.make_table(indexlist="four", batchsize=15 if options else 100, **options)
        with search.partial_responses(**partial):
            assert db.run(SEARCH) == rows
        assert db.connection.notices.pop() == f"WARNING:  ElasticSearch answer is partial: {what}\n"
        assert db.run(SEARCH) == names and not db.connection.notices


def tour(owner, version):
    """The rows of the demo's queries, with a search server of a version."""
    with SearchServer(version) as server, new_database(owner, "tour") as db:
        url = f"http://127.0.0.1:{server.port}"
        assert demo.load_documents(url, "books") and not demo.load_documents(url, "books")
        demo.create_tables(db.connection, db.cluster, url, "books")
        return [[tuple(bytes(value) if isinstance(value, memoryview) else str(value).replace(str(server.port), "PORT")
                       for value in row) for row in db.run(query)] for _, query in TOUR]


def test_the_demo(cluster):
    expected, *others = [tour(Database(cluster, 0), version) for version in (7, 6, 8, 9)]
    assert all(expected) and others == [expected] * 3
