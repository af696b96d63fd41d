"""The requests as they are sent, byte for byte."""
import json
import time

import pytest

from conftest import bodies

MATCH = '{"match":{"title":"x"}}'
QUERY = f"param = 'query={MATCH}'"
ALL = f'"query":{MATCH},"size":100'
BARE = ',"_source":false'


def params(*others):
    texts = ", ".join(f"'{text}'" for text in (f"query={MATCH}", *others))
    return f"param IN ({texts})"


def of_type(query, types='"x"'):
    return f'"query":{{"bool":{{"filter":{{"terms":{{"type":[ {types}]}}}},"must":{query}}}}}'


# select list, conditions, what follows the opening brace of the body
SEARCHES = [
    ("doccontent", QUERY, ALL), ("*", QUERY, ALL), ("doccontent, doctype", QUERY, ALL),
    *[(columns, QUERY, ALL + BARE) for columns in ("docname", "count(*)", "docname, score, highlights, param")],
    ("doccontent", f"{QUERY} AND doctype IN ('x', 'y', 'z')", of_type(MATCH, '"x","y","z"') + ',"size":100'),
    ("doctype", params("highlight=[]") + " AND doctype = 'x'",
     of_type(MATCH) + ',"size":100,"highlight":[],"_source":"type"'),
    ("doccontent", "docname IN ('a', 'b')", '"query":{"terms":{"_id":["a","b"]}},"size":2'),
    ("docname", "docname = 'a'", '"query":{"terms":{"_id":["a"]}},"size":1' + BARE),
    ("doccontent", "docname = 'a' AND doctype = 'x'", of_type('{"terms":{"_id":["a"]}}') + ',"size":1'),
    ("doccontent, doctype", "docname IN ('a', 'b') AND param = 'sourceincludefilter=title'",
     '"query":{"terms":{"_id":["a","b"]}},"size":2,"_source":{"includes":["title","type"]}'),
    # A column is asked for whatever expression of the result it stands in.
    ("length(doccontent), upper(doctype)", QUERY, ALL),
    *[(columns, QUERY, ALL + ',"_source":"type"') for columns in (
        "docname, doctype", "doctype::varchar", "coalesce(doctype, docname)", "count(doctype)",
        "CASE docname WHEN 'x' THEN doctype ELSE 'y' END")],
    ("doctype", params("sourceincludefilter=a"), ALL + ',"_source":"type"'),
    ("docname", params("sourceincludefilter=a", "sourceexcludefilter=b"), ALL + BARE),
    *[(columns, params(*[f"source{each}" for each in filters.split()]), f'{ALL},"_source":{{{members}}}')
      for columns, filters, members in (
          ("doccontent", "includefilter=a includefilter=b.*", '"includes":["a","b.*"]'),
          ("doccontent", "includefilter=", '"includes":[""]'),
          ("doccontent", "excludefilter=big", '"excludes":["big"]'),
          ("doccontent", "excludefilter=c includefilter=a excludefilter=d", '"includes":["a"],"excludes":["c","d"]'),
          ("doccontent, doctype", "includefilter=a", '"includes":["a","type"]'),
          ("doccontent, doctype", "excludefilter=big", '"includes":["type"],"excludes":["big"]'),
          ("doccontent, doctype", "includefilter=a excludefilter=c", '"includes":["a","type"],"excludes":["c"]'))],
]


def test_searches(sent):
    for columns, clauses, members in SEARCHES:
        assert sent(f"SELECT {columns} FROM books WHERE {clauses}") == ["{" + members + "}"], (columns, clauses)


ESCAPES = {
    '"': r'\"', "\\": r"\\", "\t": r"\t", "\b\n\f\r": r"\b\n\f\r", "\x01": r"\u0001", "\x1f": r"\u001F",
    "\x7f": r"\u007F", "\u0080": r"\u0080", "\u0085": r"\u0085", "\u009f": r"\u009F", "\u00a0": "\u00a0",
    "a/b": "a/b", "é€\uffff\U0001f600": "é€\uffff\U0001f600", 'x"\\\t\u0085é': r'x\"\\\t\u0085é'}


def test_escapes(sent):
    texts, escaped = list(ESCAPES), ",".join(f'"{escape}"' for escape in ESCAPES.values())
    assert sent("SELECT doccontent FROM books WHERE docname = ANY(%s)", (texts,)) == [
        f'{{"query":{{"terms":{{"_id":[{escaped}]}}}},"size":{len(texts)}}}']
    parameters = ["query=q", *[f"sourceincludefilter={text}" for text in texts]]
    assert sent("SELECT doccontent FROM books WHERE doctype = ANY(%s) AND param = ANY(%s)", (texts, parameters)) == [
        f'{{{of_type("q", escaped)},"size":100,"_source":{{"includes":[{escaped}]}}}}']


def test_a_large_body_goes_out_at_once(sent, scripted):
    """A server that does not tell the client to go on must not cost a second."""
    large = " " * 2_000_000
    start = time.monotonic()
    assert sent("SELECT doccontent FROM books WHERE param = %s", (f"query={large}",)) == [
        f'{{"query":{large},"size":100}}']
    assert time.monotonic() - start < 0.9 and "Expect" not in scripted.requests[0].headers


def test_request_line_and_headers(db, sent, scripted):
    for options, path in (
            ({}, "/books//_search"), ({"indexlist": None}, "/_all//_search"),
            ({"address": "http://127.0.0.1", "indexlist": "books,notes*"}, "/books,notes*//_search"),
            ({"esversion": 6}, "/books//_search"), ({"esversion": 7}, "/books/_search"),
            ({"esversion": 10}, "/books/_search")):
        db.make_table(port=scripted.port, **options)
        sent(f"SELECT docname FROM books WHERE {QUERY}")
        (request,) = scripted.requests
        assert (request.verb, request.path) == ("POST", path)
        assert request.headers["Content-Type"] == "application/json"
        assert set(request.headers) == {"Accept", "Content-Length", "Content-Type", "Host"}


@pytest.mark.parametrize("mode", ["elasticsearch", "elasticsearchscroll"])
def test_exact_totals(db, sent, scripted, mode):
    """They are asked for where one of the default accuracy would not tell whether a batch holds all hits."""
    for version in (None, 6, 7):
        for clause, size in ((QUERY, 9999), (QUERY, 10_000), ("docname = 'a'", 100)):
            db.make_table(port=scripted.port, connectortype=mode, esversion=version, batchsize=size)
            body = json.loads(sent(f"SELECT docname FROM books WHERE {clause}")[0])
            exact = mode == "elasticsearch" and version == 7 and size != 9999
            assert body.get("track_total_hits") == (True if exact else None), (version, clause, size)


NAMES = [f"b{number:03}" for number in range(250)]
MISSING = [f"no{number}" for number in range(250)]

# ids, what follows, the number of ids in each request, the number of rows
LOOK_UPS = [
    (NAMES, "", [100, 100, 50], 250), (MISSING[:200] + NAMES[:50], "", [100, 100, 50], 50),
    (MISSING, "", [100, 100, 50], 0), (["no", "b003", "nor"], "", [3], 1),
    # An id that is named twice would be found twice, in two requests.
    (NAMES[:100] + ["b000", "b100"], "", [100, 1], 101),
    # A batch is never greater than the rows that are still wanted at most; an early end asks no more.
    (NAMES[:3], "LIMIT 2", [2], 2), (MISSING[:3] + NAMES[:3], "LIMIT 2", [2, 2, 2], 2),
    (NAMES[:1], "LIMIT 500", [1], 1), (NAMES[:1], "LIMIT 0", [], 0),
    # Look-ups have no scores: a sort reads all of them, a few at a time would only be more requests.
    (NAMES[:4], "ORDER BY score DESC LIMIT 2", [4], 2),
]


@pytest.mark.parametrize("names, tail, sizes, count", LOOK_UPS)
def test_lookups_go_out_in_batches(db, search, names, tail, sizes, count):
    rows = db.run(f"SELECT docname, score FROM books WHERE docname = ANY(%s) {tail}", (names,))
    assert len(rows) == count == len({name for name, _ in rows} & {*names} & {*NAMES})
    requests = [json.loads(body) for body in bodies(search)]
    batches = [request["query"]["terms"]["_id"] for request in requests]
    assert [len(batch) for batch in batches] == sizes == [request["size"] for request in requests]
    assert sum(batches, []) == list(dict.fromkeys(names))[:sum(sizes)]
