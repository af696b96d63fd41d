"""Scroll mode: the requests of a query, page by page, and what becomes of its scroll context at the end."""
import pytest

from conftest import every_version
from scriptedserver import response, hits, named, purpose, scroll_id_in

ALL = "FROM books WHERE param = 'query={\"match_all\":{}}'"
NAMES = [f"b{number:03}" for number in range(250)]
SCROLL = {"connectortype": "elasticsearchscroll"}


def settle(search, *traces):
    """The requests since the last call were for what one of the traces tells, and each deletion found its context."""
    trace = " ".join(purpose(each.method, each.path) for each in search.take_journal())
    assert trace in traces
    assert search.open_scrolls() == trace.count("first") - trace.count("delete")
    search.expire_scrolls()


@pytest.fixture
def scroll(db, search):
    search.expire_scrolls()
    db.make_table(**SCROLL)
    return db


@pytest.mark.parametrize("esversion", [None, 6, 7])
def test_requests(db, scripted, esversion):
    for timeout, options in (("5m", {}), ("90s", {"scrolltimeout": "90s", "indexlist": "books,empty"})):
        scripted.script = response(hits(*named("a", "b"), total=4, scroll_id="s"))
        del scripted.requests[:]
        db.make_table(port=scripted.port, batchsize=2, esversion=esversion, **SCROLL, **options)
        assert len(db.run("SELECT docname FROM books WHERE docname = ANY('{a,b,c}')")) == 4
        assert len(db.run("SELECT docname FROM books WHERE param = 'query=q' LIMIT 1")) == 1
        first = "POST", f"/{options.get('indexlist', 'books')}/_search/?scroll={timeout}"
        url, scroll_id = "/_search/scroll", '"scroll_id":"s"}'
        others = [("GET", f"{url}?scroll={timeout}&scroll_id=s", ""), ("DELETE", url + "?&scroll_id=s", "")]
        if esversion == 7:
            others = [("POST", url, f'{{"scroll":"{timeout}",{scroll_id}'), ("DELETE", url, "{" + scroll_id)]
        assert [(peer.verb, peer.path, peer.body.decode()) for peer in scripted.requests] == [
            (*first, '{"query":{"terms":{"_id":["a","b","c"]}},"size":2,"_source":false}'), others[0],
            (*first, '{"query":q,"size":1,"_source":false}'), others[1]]
        assert [peer.headers["Content-Type"] for peer in scripted.requests] == [
            "application/json" if peer.body else None for peer in scripted.requests]


NOTHING = "FROM books WHERE param = 'query={\"match\":{\"title\":\"zeppelin\"}}'"
IDS = "'{" + ",".join(NAMES + [f"no{number}" for number in range(750)]) + "}'"

# batch size, what follows SELECT, number of rows, requests
READS = [
    (50, f"docname {ALL}", 250, "first next next next next"), (125, f"docname {ALL}", 250, "first next"),
    (100, f"docname {ALL} AND score = 0", 250, "first next next"),
    (250, f"docname {ALL}", 250, "first delete"), (1000, f"docname {ALL}", 250, "first delete"),
    (100, f"docname {NOTHING}", 0, "first delete"),
    (100, f"docname, score {ALL} ORDER BY score DESC LIMIT 2", 2, "first next next"),
    (100, f"docname FROM books WHERE docname = ANY({IDS})", 250, "first next next"),
    (100, f"docname FROM books WHERE docname = ANY({IDS}) AND doctype = 'essay'", 25, "first delete"),
    (100, "docname FROM books WHERE docname = ANY('{}')", 0, "first delete"),
    (100, f"docname {ALL} LIMIT 0", 0, ""), (100, f"docname {ALL} LIMIT 100", 100, "first delete"),
    (100, f"docname {ALL} LIMIT 150", 150, "first next delete"),
    (100, f"docname {ALL} LIMIT 250", 250, "first next next"),
    (100, f"docname {ALL} ORDER BY docname LIMIT 1", 1, "first next next"),
    (100, f"docname {ALL} AND docname > 'b110' LIMIT 1", 1, "first next delete"),
    (100, f"EXISTS (SELECT {ALL})", 1, "first delete"), (9, f"1 WHERE EXISTS (SELECT {NOTHING})", 0, "first delete"),
    (100, f"docname {ALL} UNION ALL SELECT docname FROM books WHERE docname = 'b007'", 251,
     "first next next first delete"),
    # The inner scan is left half read for each row of the outer one, and begins anew.
    (100, f"(SELECT docname {ALL} AND docname >= name LIMIT 1) FROM (VALUES ('b001'), ('b120'), ('b002')) w (name)",
     3, "first delete first next delete first delete"),
]


@every_version
def test_pages(scroll, search):
    for batch_size, select, count, trace in READS:
        scroll.make_table(batchsize=batch_size, **SCROLL)
        scroll.run("EXPLAIN SELECT " + select)
        rows = scroll.run("SELECT " + select)
        assert len(rows) == count and (count not in (100, 150, 250) or rows == [(name,) for name in NAMES[:count]])
        settle(search, trace)


CURSOR = f"DECLARE c CURSOR FOR SELECT docname {ALL}"

# statements in a transaction, requests
ENDS = [
    ([CURSOR, "CLOSE c"], ""), ([CURSOR, "FETCH 1 FROM c", "CLOSE c"], "first delete"),
    ([CURSOR, "FETCH 120 FROM c", "CLOSE c"], "first next delete"),
    ([CURSOR, "FETCH 201 FROM c", "CLOSE c"], "first next next"),
    ([CURSOR, "FETCH 120 FROM c", "COMMIT"], "first next delete"),
    ([CURSOR, "FETCH 120 FROM c", "ROLLBACK"], "first next"),
    ([CURSOR.replace("FOR", "WITH HOLD FOR"), "FETCH 1 FROM c", "COMMIT", "FETCH 249 FROM c", "CLOSE c"],
     "first next next"),
    (["SAVEPOINT s", CURSOR, "FETCH 1 FROM c", "ROLLBACK TO s", "COMMIT"], "first"),
    ([CURSOR, "FETCH 1 FROM c", "SAVEPOINT s", "SELECT 1 / 0", "ROLLBACK TO s", "FETCH 120 FROM c", "CLOSE c"],
     "first next delete"),
    ([f"SELECT 1 / (149 - substr(docname, 2)::int) {ALL}"], "first next"),
    (["DO $$ DECLARE r record; BEGIN "
      f"FOR r IN SELECT docname {ALL} LOOP EXIT; END LOOP; END $$"], "first delete"),
    ([f"SELECT docname {ALL}", "ROLLBACK"], "first next next"),
]


@pytest.mark.parametrize("statements, trace", ENDS)
def test_ends(scroll, search, statements, trace):
    """What was not read to its end is deleted where the transaction goes on, and left where it fails."""
    scroll.connection.autocommit = False
    for statement in statements:
        outcome = scroll.outcome(statement)
        assert outcome == ("22012", "division by zero") if " / " in statement else not isinstance(outcome, tuple)
    # What is kept beyond the transaction is read from the start again, by a server before version 13.
    settle(search, trace, *["first delete first next next"] * ("WITH HOLD" in statements[0] and scroll.version < 13))
    scroll.connection.rollback()
    assert scroll.run(f"SELECT count(*) {ALL}") == [(250,)]


def page(names="", scroll_id="s", total=5):
    """A script that responds with a page of documents of these names."""
    return response(hits(*named(*names), total=total, scroll_id=scroll_id))


# pages, number of rows to read, rows, requests after the first: the ids of next pages, or of deletions with a minus
RESPONSES = {
    "a page without hits before the total": ([page("ab"), page()], 9, "ab", ["s"]),
    "pages of all sizes": ([page("ab"), page("c"), page("de")], 9, "abcde", ["s", "s"]),
    # The total is that of the first page.
    "a first page without hits": ([page(), page("ab", total=9), page("cde", total=9)], 9, "abcde", ["s", "s"]),
    "more hits than the total": ([page("ab", total=1)], 9, "ab", ["-s"]),
    "more hits than the total, later": ([page("ab", total=3), page("cd")], 9, "abcd", ["s", "-s"]),
    "totals of more than 31 bits": ([page("a", total=2**32), page("b"), page()], 9, "ab", ["s", "s"]),
    "a number of more than 31 bits": ([page("a", total=f"{2**31 + 1}"), page("b"), page()], 9, "ab", ["s", "s"]),
    "a total that is a lower bound": ([page("a", total='{"value":1,"relation":"gte"}'), page("b"), page()], 9, "ab",
                                      ["s", "s"]),
    "ids that change": ([page("a", "s1"), page("b", "s2"), page("c", "s3")], 3, "abc", ["s1", "s2", "-s3"]),
    "no id": ([page("a", None), page("b", None)], 2, "ab", ["", "-"]),
    "an id that is gone later": ([page("a"), page("b", None)], 2, "ab", ["s", "-"]),
}


@pytest.mark.parametrize("pages, read, rows, requests", RESPONSES.values(), ids=RESPONSES)
def test_responses(db, scripted, pages, read, rows, requests):
    for esversion in (None, 7):
        left, scripted.requests[:] = list(pages), []
        scripted.script = lambda peer: (response("{}") if peer.purpose == "delete" else left.pop(0))(peer)
        db.make_table(port=scripted.port, esversion=esversion, **SCROLL)
        db.run("BEGIN; DECLARE c CURSOR FOR SELECT docname FROM books WHERE param = 'query=q'")
        assert "".join(name for (name,) in db.run(f"FETCH {read} FROM c")) == rows
        db.run("COMMIT")
        first, *others = scripted.requests
        assert first.purpose == "first"
        assert ["-" * (peer.purpose == "delete") + scroll_id_in(peer.path, peer.body) for peer in others] == requests
