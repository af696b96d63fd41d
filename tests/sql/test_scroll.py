"""Scroll mode: the requests of a query, page by page, and what becomes of its scroll context at the end."""
import json

import pytest

from conftest import unpacked
from scriptedserver import answer, hits, purpose, scroll_id_in

ALL = "param = 'query={\"match_all\":{}}'"
NAMES = [f"b{number:03}" for number in range(250)]
SCROLL = {"connectortype": "elasticsearchscroll"}

class Scrolling:
    """A session with `books` as a scroll table, and the account of the scrolls that its queries opened.

    `left` counts the scrolls that a test expects to stay open: those that were read to their end, and those of
    queries that failed. All others must have been deleted.
    """

    def __init__(self, db, server):
        self.db, self.server, self.left, self.deleted = db, server, 0, 0
        server.expire_scrolls()
        self.opened_before = server.opened_scrolls

    def taken(self):
        """The requests since the last call."""
        requests = self.server.take_journal()
        self.deleted += sum(request.method == "DELETE" for request in requests)
        return requests

    def trace(self):
        """What the requests since the last call were for."""
        return " ".join(purpose(request.method, request.path) for request in self.taken())


@pytest.fixture
def scroll(db, search):
    db.make_table(**SCROLL)
    scrolling = Scrolling(db, search)
    yield scrolling
    db.connection.rollback()
    scrolling.taken()
    assert search.opened_scrolls - scrolling.opened_before == scrolling.deleted + scrolling.left
    assert search.open_scrolls() == scrolling.left


@pytest.mark.every_version
def test_requests(scroll):
    db, server = scroll.db, scroll.server

    def request(verb, path, body=""):
        headers = [("Host", f"127.0.0.1:{server.port}"), ("Accept", "*/*")]
        if body:
            headers += [("Content-Type", "application/json"), ("Content-Length", str(len(body)))]
        return verb, path, headers, body.encode()

    def page(timeout, scroll_id):
        if (db.esversion or 0) < 7:
            return request("GET", f"/_search/scroll?scroll={timeout}&scroll_id={scroll_id}")
        return request("POST", "/_search/scroll", f'{{"scroll":"{timeout}","scroll_id":"{scroll_id}"}}')

    def deletion(scroll_id):
        if (db.esversion or 0) < 7:
            return request("DELETE", f"/_search/scroll?&scroll_id={scroll_id}")
        return request("DELETE", "/_search/scroll", f'{{"scroll_id":"{scroll_id}"}}')

    def expect(path, size, *others):
        body = f'{{"query":{{"match_all":{{}}}},"size":{size},"_source":false}}'
        assert scroll.taken() == [request("POST", path, body), *others]

    for count, path, timeout, options in ((1, "books", "5m", {}), (2, "books,empty", "90s", {
            "scrolltimeout": "90s", "indexlist": "books,empty"})):
        db.make_table(**SCROLL, **options)
        assert db.run(f"SELECT docname FROM books WHERE {ALL}") == [(name,) for name in NAMES]
        scroll.left += 1
        *_, scroll_id = server.cluster.scrolls.contexts
        next_page = page(timeout, scroll_id)
        expect(f"/{path}/_search/?scroll={timeout}", 100, next_page, next_page)
        db.run(f"DECLARE c{count} CURSOR WITH HOLD FOR SELECT docname FROM books WHERE {ALL} LIMIT 1")
        assert len(db.run(f"FETCH ALL FROM c{count}")) == 1
        scroll_id = scroll_id_in(server.journal[-1].path, server.journal[-1].body)
        expect(f"/{path}/_search/?scroll={timeout}", 1, deletion(scroll_id))


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


@pytest.mark.every_version
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
    scroll.left += trace.count("first") - trace.count("delete")


@pytest.mark.every_version
def test_values_stay_with_their_row_on_every_page(scroll):
    scroll.db.make_table(batchsize=40, **SCROLL)
    rows = scroll.db.run(
        "SELECT docname, doctype, doccontent, highlights, score FROM books WHERE param = ANY(%s)",
        (['query={"match":{"title":"whales"}}', 'highlight={"fields":{"title":{}}}'],))
    assert sorted(row[0] for row in rows) == NAMES[1::2]
    for name, doctype, content, highlights, score in rows:
        assert json.loads(unpacked(content)) == {"title": "whales", "number": int(name[1:]), "type": "book"}
        assert (doctype, unpacked(highlights), score) == ("book", '{"title":["<em>whales</em>"]}', 0)
    scroll.left += 1


@pytest.mark.every_version
def test_ids(scroll):
    db, wanted = scroll.db, [f"b{number:03}" for number in range(1000)]
    assert db.run("SELECT docname, score FROM books WHERE docname = ANY(%s)", (wanted,)) == [
        (name, 0) for name in NAMES]
    first, second, third = scroll.taken()
    listed = ",".join(f'"{name}"' for name in wanted)
    assert first.body.decode() == f'{{"query":{{"terms":{{"_id":[{listed}]}}}},"size":100,"_source":false}}'
    assert [purpose(each.method, each.path) for each in (first, second, third)] == ["first", "next", "next"]
    scroll.left += 1
    assert db.run("SELECT docname, doctype FROM books WHERE docname = ANY(%s) AND doctype = 'essay'",
                  (wanted,)) == [(name, "essay") for name in NAMES[::10]]
    assert scroll.trace() == "first delete"


CURSOR = f"DECLARE c CURSOR FOR SELECT docname FROM books WHERE {ALL}"

# statements in a transaction, requests, whether the scroll stays open
ENDS = [
    ([CURSOR, "CLOSE c"], "", False),
    ([CURSOR, "FETCH 1 FROM c", "CLOSE c"], "first delete", False),
    ([CURSOR, "FETCH 120 FROM c", "CLOSE c"], "first next delete", False),
    ([CURSOR, "FETCH 201 FROM c", "CLOSE c"], "first next next", True),
    ([CURSOR, "FETCH 120 FROM c", "COMMIT"], "first next delete", False),
    ([CURSOR, "FETCH 120 FROM c", "ROLLBACK"], "first next", True),
    ([CURSOR.replace("FOR", "WITH HOLD FOR"), "FETCH 1 FROM c", "COMMIT", "FETCH 249 FROM c", "CLOSE c"],
     "first next next", True),
    (["SAVEPOINT s", CURSOR, "FETCH 1 FROM c", "ROLLBACK TO s", "COMMIT"], "first", True),
    ([CURSOR, "FETCH 1 FROM c", "SAVEPOINT s", "SELECT 1/0", "ROLLBACK TO s", "FETCH 120 FROM c", "CLOSE c"],
     "first next delete", False),
    ([f"SELECT 1 / (149 - substr(docname, 2)::int) FROM books WHERE {ALL}"], "first next", True),
    (["DO $$ DECLARE r record; BEGIN "
      f"FOR r IN SELECT docname FROM books WHERE {ALL} LOOP EXIT; END LOOP; END $$"], "first delete", False),
    ([f"SELECT docname FROM books WHERE {ALL}", "ROLLBACK"], "first next next", True),
]


@pytest.mark.every_version
@pytest.mark.parametrize("statements, trace, left_open", ENDS)
def test_ends(scroll, statements, trace, left_open):
    scroll.db.connection.autocommit = False
    for statement in statements:
        if "/" in statement:
            assert scroll.db.failure(statement) == ("22012", "division by zero")
        else:
            scroll.db.run(statement)
    if "WITH HOLD" in statements[0] and scroll.db.version < 13:
        # What is kept beyond the transaction is read from the start again.
        assert scroll.trace() in (trace, "first delete first next next")
    else:
        assert scroll.trace() == trace
    scroll.left += left_open
    scroll.db.connection.rollback()
    assert scroll.db.run(f"SELECT count(*) FROM books WHERE {ALL}") == [(250,)]
    scroll.left += 1


@pytest.mark.every_version
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
    scroll.left += 2


def page(*names, scroll_id="s", total=5):
    """A script that answers with a page of documents of these names."""
    return answer(hits(*[f'"_id":"{name}"' for name in names], total=total, scroll_id=scroll_id))


QUERY = "SELECT docname FROM books WHERE param = 'query=q'"

# pages, number of rows to read, rows, requests after the first: next pages, or deletions with a minus
ANSWERS = {
    "a page without hits before the total": ([page("a", "b"), page()], 9, "ab", ["s"]),
    "pages of all sizes": ([page("a", "b"), page("c"), page("d", "e")], 9, "abcde", ["s", "s"]),
    # The total is that of the first page.
    "a first page without hits": ([page(), page("a", "b", total=9), page("c", "d", "e", total=9)], 9,
                                  "abcde", ["s", "s"]),
    "more hits than the total": ([page("a", "b", total=1)], 9, "ab", ["-s"]),
    "more hits than the total, later": ([page("a", "b", total=3), page("c", "d")], 9, "abcd", ["s", "-s"]),
    "totals of more than 31 bits": ([page("a", total=2**32), page("b"), page()], 9, "ab", ["s", "s"]),
    "a number of more than 31 bits": ([page("a", total=f"{2**31 + 1}"), page("b"), page()], 9, "ab", ["s", "s"]),
    "a total that is a lower bound": ([page("a", total='{"value":1,"relation":"gte"}'), page("b"), page()], 9, "ab",
                                      ["s", "s"]),
    "ids that change": ([page("a", scroll_id="s1"), page("b", scroll_id="s2"), page("c", scroll_id="s3")], 3,
                        "abc", ["s1", "s2", "-s3"]),
    "no id": ([page("a", scroll_id=None), page("b", scroll_id=None)], 2, "ab", ["", "-"]),
    "an id that is gone later": ([page("a"), page("b", scroll_id=None)], 2, "ab", ["s", "-"]),
}


@pytest.mark.parametrize("esversion", [None, 7])
@pytest.mark.parametrize("pages, read, rows, requests", ANSWERS.values(), ids=ANSWERS)
def test_answers(db, scripted, pages, read, rows, requests, esversion):
    left = list(pages)
    scripted.script = lambda peer: (answer("{}") if peer.purpose == "delete" else left.pop(0))(peer)
    db.make_table(port=scripted.port, esversion=esversion, **SCROLL)
    db.connection.autocommit = False
    db.run(f"DECLARE c CURSOR FOR {QUERY}")
    assert "".join(name for (name,) in db.run(f"FETCH {read} FROM c")) == rows
    db.connection.commit()
    first, *others = scripted.requests
    assert first.purpose == "first"
    assert ["-" * (peer.purpose == "delete") + scroll_id_in(peer.path, peer.body) for peer in others] == requests


@pytest.mark.every_version
def test_a_context_that_is_gone(scroll):
    """Its next page is an error; its deletion is no matter."""
    scroll.db.make_table(fullerrormsg="true", **SCROLL)
    scroll.db.connection.autocommit = False
    for statement in ("FETCH 100 FROM c", "CLOSE c"):
        scroll.db.run(CURSOR)
        assert len(scroll.db.run("FETCH 100 FROM c")) == 100
        scroll.server.expire_scrolls()
        outcome = scroll.db.outcome(statement)
        assert outcome is None or outcome[0] == "HV000" and "No search context found for id" in outcome[1]
        scroll.db.connection.rollback()
    assert scroll.trace() == "first next first delete"
    scroll.opened_before += 1  # the one that nobody could delete
