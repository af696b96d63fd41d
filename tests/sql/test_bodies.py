"""The requests as they are sent, byte for byte."""
import json
import time

import pytest

from conftest import bodies

MATCH = '{"match":{"title":"x"}}'
QUERY = f"param = 'query={MATCH}'"
TYPE_X = '"query":{"bool":{"filter":{"terms":{"type":[ "x"]}},"must":'

# select list, conditions, what follows the opening brace of the body
SEARCHES = [
    ("doccontent", QUERY, f'"query":{MATCH},"size":100'),
    ("*", QUERY, f'"query":{MATCH},"size":100'),
    ("docname", QUERY, f'"query":{MATCH},"size":100,"_source":false'),
    ("count(*)", QUERY, f'"query":{MATCH},"size":100,"_source":false'),
    ("highlights", f"param IN ('query={MATCH}', 'highlight={{\"fields\":{{\"title\":{{}}}}}}')",
     f'"query":{MATCH},"size":100,"highlight":{{"fields":{{"title":{{}}}}}},"_source":false'),
    ("doccontent", f"{QUERY} AND doctype = 'x'", TYPE_X + MATCH + '}},"size":100'),
    ("doccontent", f"{QUERY} AND doctype IN ('x', 'y', 'z')",
     TYPE_X.replace('"x"', '"x","y","z"') + MATCH + '}},"size":100'),
    ("doctype", f"param IN ('query={MATCH}', 'highlight=[]') AND doctype = 'x'",
     TYPE_X + MATCH + '}},"size":100,"highlight":[],"_source":"type"'),
    ("doccontent", "docname IN ('a', 'b')", '"query":{"terms":{"_id":["a","b"]}},"size":2'),
    ("docname", "docname = 'a'", '"query":{"terms":{"_id":["a"]}},"size":1,"_source":false'),
    ("doccontent, doctype", "docname IN ('a', 'b') AND param = 'sourceincludefilter=title'",
     '"query":{"terms":{"_id":["a","b"]}},"size":2,"_source":{"includes":["title","type"]}'),
    ("doccontent", "docname = 'a' AND doctype = 'x'", TYPE_X + '{"terms":{"_id":["a"]}}}},"size":1'),
]


@pytest.mark.parametrize("columns, clauses, members", SEARCHES)
def test_searches(sent, columns, clauses, members):
    assert sent(f"SELECT {columns} FROM books WHERE {clauses}") == ["{" + members + "}"]


# select list, further parameters, the source member
SOURCES = [
    ("docname, score, highlights, param", [], ',"_source":false'),
    ("docname, doctype", [], ',"_source":"type"'),
    ("doctype", ["sourceincludefilter=a"], ',"_source":"type"'),
    ("docname", ["sourceincludefilter=a", "sourceexcludefilter=b"], ',"_source":false'),
    ("doccontent, doctype", [], ""),
    ("doccontent", ["sourceincludefilter=a", "sourceincludefilter=b.*"],
     ',"_source":{"includes":["a","b.*"]}'),
    ("doccontent, doctype", ["sourceincludefilter=a"], ',"_source":{"includes":["a","type"]}'),
    ("doccontent", ["sourceexcludefilter=big"], ',"_source":{"excludes":["big"]}'),
    ("doccontent, doctype", ["sourceexcludefilter=big"],
     ',"_source":{"includes":["type"],"excludes":["big"]}'),
    ("doccontent", ["sourceexcludefilter=c", "sourceincludefilter=a", "sourceexcludefilter=d"],
     ',"_source":{"includes":["a"],"excludes":["c","d"]}'),
    ("doccontent, doctype", ["sourceincludefilter=a", "sourceexcludefilter=c"],
     ',"_source":{"includes":["a","type"],"excludes":["c"]}'),
    ("doccontent", ["sourceincludefilter="], ',"_source":{"includes":[""]}'),
    # Whatever expression of the result a column stands in.
    ("length(doccontent), upper(doctype)", [], ""),
    *[(columns, [], ',"_source":"type"') for columns in (
        "doctype::varchar", "coalesce(doctype, docname)", "count(doctype)",
        "CASE docname WHEN 'x' THEN doctype ELSE 'y' END")],
]


@pytest.mark.parametrize("columns, parameters, source", SOURCES)
def test_source_member(sent, columns, parameters, source):
    outcome = sent(f"SELECT {columns} FROM books WHERE param = ANY(%s)", ([f"query={MATCH}", *parameters],))
    assert outcome == [f'{{"query":{MATCH},"size":100{source}}}']


@pytest.mark.parametrize("tail, size", [
    ("", 100), ("LIMIT 10", 10), ("LIMIT 10 OFFSET 5", 15), ("LIMIT 100", 100), ("LIMIT 500", 100),
    ("LIMIT ALL", 100), ("LIMIT 2147483648", 100), ("GROUP BY docname LIMIT 5", 100), ("LIMIT 0", None)])
def test_size_of_a_search(sent, tail, size):
    body = f'{{"query":{MATCH},"size":{size},"_source":false}}'
    assert sent(f"SELECT docname FROM books WHERE {QUERY} {tail}") == [body] * (size is not None)


ESCAPES = [
    ('"', r'\"'), ("\\", r"\\"), ("\t", r"\t"), ("\b\n\f\r", r"\b\n\f\r"), ("\x01", r"\u0001"),
    ("\x1f", r"\u001F"), ("\x7f", r"\u007F"), ("\u0080", r"\u0080"), ("\u0085", r"\u0085"),
    ("\u009f", r"\u009F"), ("\u00a0", "\u00a0"), ("a/b", "a/b"), ("é", "é"), ("€", "€"), ("\uffff", "\uffff"),
    ("\U0001f600", "\U0001f600"), ('x"\\\t\u0085é', r'x\"\\\t\u0085é'),
]


def test_escapes(sent):
    texts = [text for text, _ in ESCAPES]
    escaped = ",".join(f'"{escape}"' for _, escape in ESCAPES)
    assert sent("SELECT docname FROM books WHERE docname = ANY(%s)", (texts,)) == [
        f'{{"query":{{"terms":{{"_id":[{escaped}]}}}},"size":{len(texts)},"_source":false}}']
    assert sent("SELECT doccontent FROM books WHERE doctype = ANY(%s) AND param = 'query=q'", (texts,)) == [
        f'{{"query":{{"bool":{{"filter":{{"terms":{{"type":[ {escaped}]}}}},"must":q}}}},"size":100}}']
    assert sent("SELECT doccontent FROM books WHERE param = ANY(%s)",
                (["query=q"] + ["sourceincludefilter=" + text for text in texts],)) == [
        f'{{"query":q,"size":100,"_source":{{"includes":[{escaped}]}}}}']


def test_a_large_body_goes_out_at_once(db, sent, scripted):
    """A server that does not tell the client to go on must not cost a second."""
    large = " " * 2_000_000
    start = time.monotonic()
    assert sent("SELECT docname FROM books WHERE param = %s", (f"query={MATCH}{large}",)) == [
        f'{{"query":{MATCH}{large},"size":100,"_source":false}}']
    assert time.monotonic() - start < 0.9
    assert "expect" not in {name.lower() for name, _ in scripted.requests[0].headers}


def test_request(db, sent, scripted):
    for options, path in (
            ({}, "/books//_search"), ({"indexlist": None}, "/_all//_search"),
            ({"address": "http://127.0.0.1", "indexlist": "books,notes*"}, "/books,notes*//_search"),
            ({"esversion": 6}, "/books//_search"), ({"esversion": 7}, "/books/_search"),
            ({"esversion": 10}, "/books/_search")):
        db.make_table(port=scripted.port, **options)
        sent(f"SELECT docname FROM books WHERE {QUERY}")
        (request,) = scripted.requests
        assert request.request_line == f"POST {path} HTTP/1.1"
        assert ("Content-Type", "application/json") in request.headers
        assert {name for name, _ in request.headers} == {"Accept", "Content-Length", "Content-Type", "Host"}


@pytest.mark.parametrize("options, clause, exact", [
    ({"esversion": 7}, QUERY, False), ({"esversion": 7, "batchsize": 9999}, QUERY, False),
    ({"esversion": 7, "batchsize": 10_000}, QUERY, True), ({"batchsize": 10_000}, QUERY, False),
    ({"esversion": 6, "batchsize": 10_000}, QUERY, False),
    ({"esversion": 7}, "docname = 'a'", True), ({"esversion": 6}, "docname = 'a'", False),
    ({"esversion": 7, "connectortype": "elasticsearchscroll", "batchsize": 10_000}, QUERY, False),
    ({"esversion": 7, "connectortype": "elasticsearchscroll"}, "docname = 'a'", False)])
def test_exact_totals(db, sent, scripted, options, clause, exact):
    """They are asked for where a total of the default accuracy would not tell whether a batch holds all hits."""
    db.make_table(port=scripted.port, **options)
    first, *_ = sent(f"SELECT docname FROM books WHERE {clause}")
    assert ("track_total_hits" in json.loads(first)) == exact
    assert not exact or json.loads(first)["track_total_hits"] is True


def batches(server):
    return [len(json.loads(body)["query"]["terms"]["_id"]) for body in bodies(server)]


@pytest.mark.every_version
def test_lookups_go_out_in_batches(db, search):
    wanted = [f"b{number:03}" for number in range(250)]
    statement = "SELECT docname FROM books WHERE docname = ANY(%s)"
    assert sorted(name for (name,) in db.run(statement, (wanted,))) == wanted
    requests = [json.loads(body) for body in bodies(search)]
    assert [request["query"]["terms"]["_id"] for request in requests] == [
        wanted[:100], wanted[100:200], wanted[200:]]
    assert [request["size"] for request in requests] == [100, 100, 50]

    missing = [f"no{number}" for number in range(250)]
    assert db.run(statement, (missing[:200] + wanted[:50],)) != [] and batches(search) == [100, 100, 50]
    assert db.run(statement, (missing,)) == [] and batches(search) == [100, 100, 50]
    assert db.run(statement, (["no", "b003", "nor"],)) == [("b003",)] and batches(search) == [3]
    assert len(db.run(statement, (wanted[:100] + ["b000", "b100"],))) == 101 and batches(search) == [100, 1]


@pytest.mark.every_version
def test_an_id_in_several_indices(db, search):
    """A look-up that finds more documents than it has ids must not drop one of them."""
    for index in ("twice1", "twice2"):
        search.put(index, "same", {"title": index})
    db.make_table(indexlist="twice1,twice2")
    statement = "SELECT docname FROM books WHERE docname = ANY(%s)"
    assert db.failure(statement, (["same"],)) == (
        "HV000", "es search result bigger than batch size, use a scroll")
    assert db.run(statement, (["same", "other"],)) == [("same",), ("same",)]
    assert db.run(statement + " LIMIT 1", (["same"],)) == [("same",)]


def test_a_sort_of_lookups_reads_them_in_full_batches(db, search):
    """Look-ups have no scores: the sort reads all of them, a few at a time would only be more requests."""
    assert len(db.run("SELECT docname, score FROM books WHERE docname = ANY('{b000,b001,b002,b003}') "
                      "ORDER BY score DESC LIMIT 2")) == 2
    assert batches(search) == [4]


@pytest.mark.every_version
@pytest.mark.parametrize("limit, names, sizes", [
    # A batch is never greater than the rows that are still wanted at most; an early end asks no more.
    (2, ["b000", "b001", "b002"], [2]),
    (2, ["no1", "no2", "no3", "b000", "b001", "b002"], [2, 2, 2]),
    (500, ["b000"], [1]),
    (0, ["b000"], []),
])
def test_lookups_under_a_limit(db, search, limit, names, sizes):
    found = db.run(f"SELECT docname FROM books WHERE docname = ANY(%s) LIMIT {limit}", (names,))
    assert batches(search) == sizes
    assert len(found) == min(limit, sum(name.startswith("b") for name in names))
