"""Scroll mode: the requests of a query, page by page, and what becomes of its scroll context at the end."""
import json
import zlib
from collections import Counter

import pytest

from conftest import Database
from scriptedserver import answer, hits
from searchserver import SearchServer

ALL = "param = 'query={\"match_all\":{}}'"
NAMES = [f"b{number:03}" for number in range(250)]
SCROLL = {"connectortype": "elasticsearchscroll"}
VERBS = {"POST": "first", "GET": "next", "DELETE": "delete"}


class Scrolling:
    """A session with `books` as a scroll table, and the account of the scrolls that its queries opened.

    `left` counts what a test expects to stay open: "finished" scrolls were read to their end, "aborted" ones
    belong to queries that failed. All others must have been deleted.
    """

    def __init__(self, db, server):
        self.db, self.server = db, server
        self.left, self.deleted = Counter(), 0
        self.opened_before, self.open_before = server.opened_scrolls, server.open_scrolls()

    def taken(self):
        """The requests since the last call."""
        requests = self.server.take_journal()
        self.deleted += sum(request.method == "DELETE" for request in requests)
        return requests

    def trace(self):
        """What the requests since the last call were for."""
        return " ".join(VERBS[request.method] for request in self.taken())

    def balance(self):
        self.taken()
        assert self.server.opened_scrolls - self.opened_before == self.deleted + sum(self.left.values())
        assert self.server.open_scrolls() - self.open_before == sum(self.left.values())


@pytest.fixture(scope="module")
def ledger(library):
    """The scrolls that the tests of this file left open, by reason."""
    library.expire_scrolls()
    left = Counter()
    yield left
    assert library.open_scrolls() == left["finished"] + left["aborted"]


@pytest.fixture
def scroll(db, search, ledger):
    db.make_table(**SCROLL)
    scrolling = Scrolling(db, search)
    yield scrolling
    db.connection.rollback()
    ledger.update(scrolling.left)
    scrolling.balance()


def test_requests(scroll):
    db, server = scroll.db, scroll.server
    host = ("Host", f"127.0.0.1:{server.port}"), ("Accept", "*/*")
    body = b'{"query":{"match_all":{}},"size":%d,"_source":false}'

    def expect(requests, size, *others):
        first, *rest = requests
        assert first == ("POST", "/books/_search/?scroll=5m", first.headers, body % size)
        assert first.headers == [*host, ("Content-Type", "application/json"),
                                 ("Content-Length", str(len(first.body)))]
        assert [tuple(request) for request in rest] == [(*other, list(host), b"") for other in others]

    assert db.run(f"SELECT docname FROM books WHERE {ALL}") == [(name,) for name in NAMES]
    (scroll_id,) = list(server.cluster.scrolls.contexts)[scroll.open_before:]
    page = "GET", f"/_search/scroll?scroll=5m&scroll_id={scroll_id}"
    expect(scroll.taken(), 100, page, page)
    scroll.left["finished"] += 1

    db.run(f"DECLARE c CURSOR WITH HOLD FOR SELECT docname FROM books WHERE {ALL} LIMIT 1")
    assert db.run("FETCH ALL FROM c") == [("b000",)]
    first, last = scroll.taken()
    expect([first, last], 1, ("DELETE", last.path))
    assert last.path.startswith("/_search/scroll?&scroll_id=FGluY2x1ZGVfY29udGV4dF91dWlkDnF1ZXJ5VGhlbkZldGNo")

    db.make_table(scrolltimeout="90s", indexlist="books,empty", **SCROLL)
    assert len(db.run(f"SELECT docname FROM books WHERE {ALL}")) == 250
    first, second, _ = scroll.taken()
    assert first.path == "/books,empty/_search/?scroll=90s"
    assert second.path.startswith("/_search/scroll?scroll=90s&scroll_id=")
    scroll.left["finished"] += 1


NOTHING = "param = 'query={\"match\":{\"title\":\"zeppelin\"}}'"

# batch size, what follows SELECT, number of rows, requests
READS = [
    (100, f"docname, score FROM books WHERE {ALL} ORDER BY score DESC LIMIT 2", 2, "first next next"),
    (50, f"docname FROM books WHERE {ALL}", 250, "first next next next next"),
    (125, f"docname FROM books WHERE {ALL}", 250, "first next"),
    (250, f"docname FROM books WHERE {ALL}", 250, "first delete"),
    (1000, f"docname FROM books WHERE {ALL}", 250, "first delete"),
    (100, f"docname FROM books WHERE {NOTHING}", 0, "first delete"),
    (100, "docname FROM books WHERE docname = ANY('{}')", 0, "first delete"),
    (100, f"docname FROM books WHERE {ALL} LIMIT 0", 0, ""),
    (100, f"docname FROM books WHERE {ALL} LIMIT 100", 100, "first delete"),
    (100, f"docname FROM books WHERE {ALL} LIMIT 150", 150, "first next delete"),
    (100, f"docname FROM books WHERE {ALL} LIMIT 250", 250, "first next next"),
    (100, f"docname FROM books WHERE {ALL} ORDER BY docname LIMIT 1", 1, "first next next"),
    (100, f"docname FROM books WHERE {ALL} AND docname > 'b110' LIMIT 1", 1, "first next delete"),
    (100, f"EXISTS (SELECT FROM books WHERE {ALL})", 1, "first delete"),
    (100, f"1 WHERE EXISTS (SELECT FROM books WHERE {NOTHING})", 0, "first delete"),
    (100, f"docname FROM books WHERE {ALL} UNION ALL "
     "SELECT docname FROM books WHERE docname = 'b007'", 251, "first next next first delete"),
    # The inner scan is left half read for each row of the outer one, and begins anew.
    (100, f"(SELECT docname FROM books WHERE {ALL} AND docname >= name LIMIT 1) "
     "FROM (VALUES ('b001'), ('b120'), ('b002')) AS wanted (name)", 3,
     "first delete first next delete first delete"),
]


@pytest.mark.parametrize("batch_size, select, rows, trace", READS)
def test_pages(scroll, batch_size, select, rows, trace):
    scroll.db.make_table(batchsize=batch_size, **SCROLL)
    scroll.db.run("EXPLAIN SELECT " + select)
    assert scroll.trace() == ""
    found = scroll.db.run("SELECT " + select)
    assert len(found) == rows
    if rows in (100, 150, 250):
        assert found == [(name,) for name in NAMES[:rows]]
    assert scroll.trace() == trace
    scroll.left["finished"] += trace.count("first") - trace.count("delete")


def unpacked(value):
    return zlib.decompress(bytes(value)[4:]).decode()


def test_values_stay_with_their_row_on_every_page(scroll):
    scroll.db.make_table(batchsize=40, **SCROLL)
    rows = scroll.db.run(
        "SELECT docname, doctype, doccontent, highlights, score FROM books WHERE param = ANY(%s)",
        (['query={"match":{"title":"whales"}}', 'highlight={"fields":{"title":{}}}'],))
    assert sorted(row[0] for row in rows) == NAMES[1::2]
    for name, doctype, content, highlights, score in rows:
        assert json.loads(unpacked(content)) == {"title": "whales", "number": int(name[1:]), "type": "book"}
        assert (doctype, unpacked(highlights), score) == ("book", '{"title":["<em>whales</em>"]}', 0)
    scroll.left["finished"] += 1


def test_ids(scroll):
    db, wanted = scroll.db, [f"b{number:03}" for number in range(1000)]
    assert db.run("SELECT docname, score FROM books WHERE docname = ANY(%s)", (wanted,)) == [
        (name, 0) for name in NAMES]
    first, second, third = scroll.taken()
    listed = ",".join(f'"{name}"' for name in wanted)
    assert first.body.decode() == f'{{"query":{{"terms":{{"_id":[{listed}]}}}},"size":100,"_source":false}}'
    assert second.body == third.body == b""
    scroll.left["finished"] += 1
    assert db.run("SELECT docname, doctype FROM books WHERE docname = ANY(%s) AND doctype = 'essay'",
                  (wanted,)) == [(name, "essay") for name in NAMES[::10]]
    assert scroll.trace() == "first delete"


CURSOR = f"DECLARE c CURSOR FOR SELECT docname FROM books WHERE {ALL}"

# statements in a transaction, requests, why the scroll stays open
ENDS = [
    ([CURSOR, "CLOSE c"], "", None),
    ([CURSOR, "FETCH 1 FROM c", "CLOSE c"], "first delete", None),
    ([CURSOR, "FETCH 120 FROM c", "CLOSE c"], "first next delete", None),
    ([CURSOR, "FETCH 201 FROM c", "CLOSE c"], "first next next", "finished"),
    ([CURSOR, "FETCH 120 FROM c", "COMMIT"], "first next delete", None),
    ([CURSOR, "FETCH 120 FROM c", "ROLLBACK"], "first next", "aborted"),
    ([CURSOR.replace("FOR", "WITH HOLD FOR"), "FETCH 1 FROM c", "COMMIT", "FETCH 249 FROM c", "CLOSE c"],
     "first next next", "finished"),
    (["SAVEPOINT s", CURSOR, "FETCH 1 FROM c", "ROLLBACK TO s", "COMMIT"], "first", "aborted"),
    ([CURSOR, "FETCH 1 FROM c", "SAVEPOINT s", "SELECT 1/0", "ROLLBACK TO s", "FETCH 120 FROM c", "CLOSE c"],
     "first next delete", None),
    ([f"SELECT 1 / (149 - substr(docname, 2)::int) FROM books WHERE {ALL}"], "first next", "aborted"),
    (["DO $$ DECLARE r record; BEGIN "
      f"FOR r IN SELECT docname FROM books WHERE {ALL} LOOP EXIT; END LOOP; END $$"], "first delete", None),
    ([f"SELECT docname FROM books WHERE {ALL}", "ROLLBACK"], "first next next", "finished"),
]


@pytest.mark.parametrize("statements, trace, left_open", ENDS)
def test_ends(scroll, statements, trace, left_open):
    scroll.db.connection.autocommit = False
    for statement in statements:
        if "/" in statement:
            assert scroll.db.failure(statement) == ("22012", "division by zero")
        else:
            scroll.db.run(statement)
    assert scroll.trace() == trace
    if left_open:
        scroll.left[left_open] += 1
    scroll.db.connection.rollback()
    assert scroll.db.run(f"SELECT count(*) FROM books WHERE {ALL}") == [(250,)]
    scroll.left["finished"] += 1


def test_two_scrolls_at_a_time(scroll):
    db = scroll.db
    db.connection.autocommit = False
    for name, word in (("c", "whales"), ("d", "letters")):
        db.run(f"DECLARE {name} CURSOR FOR SELECT docname FROM books WHERE "
               f"param = 'query={{\"match\":{{\"title\":\"{word}\"}}}}'")
    read = {"c": [], "d": []}
    for name in "cdcd":
        read[name] += db.run(f"FETCH 70 FROM {name}")
    assert scroll.trace() == "first first next next"
    assert read == {"c": [(name,) for name in NAMES[1::2]], "d": [(name,) for name in NAMES[::2]]}
    scroll.left["finished"] += 2


def page(*names, scroll_id="s", total=5):
    """A script that answers with a page of documents of these names."""
    found = hits(*[f'"_id":"{name}"' for name in names], total=f'{{"value":{total},"relation":"eq"}}')
    return answer((f'{{"_scroll_id":"{scroll_id}",' if scroll_id is not None else "{") + found[1:])


def play(scripted, *pages, deletion=answer("{}")):
    """Gives the scripted server the answers to one scroll."""
    left = list(pages)
    scripted.script = lambda peer: (deletion if peer.request_line.startswith("DELETE") else left.pop(0))(peer)


def requested(scripted):
    """Takes the requests of the scripted server: the first by its verb, the others with their scroll id."""
    lines = [peer.request_line.split(" ") for peer in scripted.requests]
    del scripted.requests[:]
    return [(VERBS[verb], path.partition("&scroll_id=")[2]) for verb, path, _ in lines]


QUERY = "SELECT docname FROM books WHERE param = 'query=q'"
CUT = hits('"_id":"c"', '"_id":"d"')[:-20]
GONE = '{"error":{"root_cause":[],"type":"phase","reason":"all shards failed"},"status":404}'

# pages, number of rows to read, rows, requests after the first
ANSWERS = {
    "a page without hits before the total": ([page("a", "b"), page()], 9, "ab", [("next", "s")]),
    "pages of all sizes": ([page("a", "b"), page("c"), page("d", "e")], 9, "abcde", 2 * [("next", "s")]),
    # The total is that of the first page.
    "a first page without hits": ([page(), page("a", "b", total=9), page("c", "d", "e", total=9)], 9,
                                  "abcde", 2 * [("next", "s")]),
    "more hits than the total": ([page("a", "b", total=1)], 9, "ab", [("delete", "s")]),
    "more hits than the total, later": ([page("a", "b", total=3), page("c", "d")], 9, "abcd",
                                        [("next", "s"), ("delete", "s")]),
    "ids that change": ([page("a", scroll_id="s1"), page("b", scroll_id="s2"), page("c", scroll_id="s3")], 3,
                        "abc", [("next", "s1"), ("next", "s2"), ("delete", "s3")]),
    "no id": ([page("a", scroll_id=None), page("b", scroll_id=None)], 2, "ab",
              [("next", ""), ("delete", "")]),
    "an id that is gone later": ([page("a"), page("b", scroll_id=None)], 2, "ab",
                                 [("next", "s"), ("delete", "")]),
    "a long id": ([page("a", scroll_id="x" * 100000), page("b", "c", "d", "e")], 9, "abcde",
                  [("next", "x" * 100000)]),
}


@pytest.mark.parametrize("pages, read, rows, requests", ANSWERS.values(), ids=ANSWERS)
def test_answers(db, scripted, pages, read, rows, requests):
    play(scripted, *pages)
    db.make_table(port=scripted.port, **SCROLL)
    db.connection.autocommit = False
    db.run(f"DECLARE c CURSOR FOR {QUERY}")
    assert "".join(name for (name,) in db.run(f"FETCH {read} FROM c")) == rows
    db.connection.commit()
    assert requested(scripted) == [("first", "")] + requests


def refuse(scripted):
    """A script that answers a first page, after which the server takes no further connections."""
    def script(peer):
        scripted.stop_listening()
        page("a", "b")(peer)
    return script


# what comes in place of the second page, (short message, full message)
FAILURES = {
    "error": (answer(GONE, "404 Not Found"), (
        "ElasticSearch error", f"ElasticSearch error, query was '', error was '{GONE[7:]}'")),
    "cut off": (answer(CUT), ("Elasticsearhc result parser error",
                              "Elasticsearhc result parser error, query was ")),
    "too short": (answer(CUT, length=999), ("Curl error (18)", "Curl error (18), query was , ")),
    "refused": (None, ("Curl error (7)", "Curl error (7), query was , ")),
}


@pytest.mark.parametrize("full", [False, True])
@pytest.mark.parametrize("failing, messages", FAILURES.values(), ids=FAILURES)
def test_a_failing_second_page(db, scripted, failing, messages, full):
    play(scripted, *((page("a", "b"), failing) if failing else (refuse(scripted),)))
    db.make_table(port=scripted.port, fullerrormsg=str(full).lower(), **SCROLL)
    assert db.failure(QUERY) == ("HV000", messages[full])
    assert requested(scripted) == [("first", ""), ("next", "s")][:2 if failing else 1]
    db.make_table(**SCROLL)
    assert db.run("SELECT docname FROM books WHERE docname = 'b001'") == [("b001",)]


@pytest.mark.parametrize("deletion", [
    answer("{", "500 Internal Server Error"), answer(GONE, "404 Not Found"), lambda peer: None,
    answer(length=9), None], ids=["error", "missing", "no answer", "cut off", "refused"])
def test_a_failing_deletion_is_no_error(db, scripted, deletion):
    play(scripted, page("a", "b") if deletion else refuse(scripted), deletion=deletion)
    db.make_table(port=scripted.port, **SCROLL)
    assert db.run(QUERY + " LIMIT 1") == [("a",)]
    assert requested(scripted) == [("first", ""), ("delete", "s")][:2 if deletion else 1]
    assert db.log() == []


def test_a_context_that_expired_on_the_server(cluster):
    with SearchServer() as server:
        server.put_many("books", [(name, {}) for name in NAMES])
        db = Database(cluster, server.port)
        for full in ("false", "true"):
            db.make_table(fullerrormsg=full, **SCROLL)
            db.connection.autocommit = False
            db.run(CURSOR)
            assert len(db.run("FETCH 100 FROM c")) == 100
            server.expire_scrolls()
            sqlstate, message = db.failure("FETCH 100 FROM c")
            assert sqlstate == "HV000" and message.startswith("ElasticSearch error")
            assert (message == "ElasticSearch error") == (full == "false")
            assert ("No search context found for id" in message) == (full == "true")
            db.connection.rollback()
            db.run(CURSOR)
            db.run("FETCH 100 FROM c")
            server.expire_scrolls()
            db.run("CLOSE c")  # the rows were all there, and the deletion of what is gone is no matter
            db.connection.commit()
            db.connection.autocommit = True
        assert [request.method for request in server.take_journal()] == 2 * ["POST", "GET", "POST", "DELETE"]
        assert (server.opened_scrolls, server.open_scrolls()) == (4, 0)
        db.connection.close()
