"""LIMIT stops the search early only where that cannot change the rows."""
# Each query gives what the same query gives on a local copy of all documents, or is refused.
import json

import pytest

import test_failures
from conftest import COLUMNS, bodies
from scriptedserver import answer, hits, named

QUERY = 'query={"match":{"title":"whales"}}'
ARM = f"SELECT docname FROM books WHERE param = '{QUERY}'"
REFUSED = "HV000", test_failures.TOO_MANY


@pytest.fixture
def copies(db, search):
    """`found`: the 125 hits of the query as the search returns them; `books` has room for them, `few` has not."""
    db.make_table(batchsize=1000)
    db.make_table("few", batchsize=10)
    db.run(f"CREATE TEMP TABLE found AS SELECT docname, score, doctype, ''::text AS param FROM books "
           f"WHERE param = '{QUERY}'")
    db.run("CREATE TEMP TABLE local AS SELECT 'b' || to_char(n, 'FM000') docname, n FROM generate_series(0, 249) n")
    search.take_journal()
    return db


# What stands around "FROM {books} WHERE {param}", and the size that the query may ask for: the limit, or None for
# all.
QUERIES = [(start + " FROM {books} WHERE {param} " + end, size) for start, end, size in [
    ("SELECT docname", "LIMIT 5", 5), ("SELECT docname", "LIMIT 5 OFFSET 2", 7),
    ("SELECT docname, score", "ORDER BY score DESC LIMIT 5", 5),
    ("SELECT docname, score", "ORDER BY score DESC NULLS LAST LIMIT 5", 5),
    ("SELECT docname FROM (SELECT *", "LIMIT 5) s WHERE docname LIKE '%1'", 5),
    ("SELECT upper(docname)", "AND doctype IN ('book', 'essay') LIMIT 5", 5),
    ("SELECT docname", "AND length(docname) > 3 AND docname LIKE '%9' LIMIT 5", None),
    ("SELECT docname", "AND doctype LIKE 'e%' LIMIT 5", None),
    *[("SELECT docname, score", f"ORDER BY {order} LIMIT 5", None) for order in (
        "docname", "score", "score + 1 DESC", "score DESC, docname DESC")],
    ("SELECT docname, score", "ORDER BY score DESC FETCH FIRST 5 ROWS WITH TIES", None),
    ("SELECT docname", "AND docname IN (SELECT docname FROM local WHERE n > 200) LIMIT 25", None),
    ("SELECT docname", "AND docname NOT IN (SELECT docname FROM local WHERE n < 205) LIMIT 22", None),
    ("SELECT DISTINCT doctype", "LIMIT 2", None), ("SELECT doctype, count(*)", "GROUP BY doctype LIMIT 2", None),
    ("SELECT docname, count(*) OVER ()", "LIMIT 1", None), ("SELECT generate_series(1, 2), docname", "LIMIT 5", None),
    ("SELECT docname", "LIMIT length(current_setting('application_name')) + 5", None),
    ("SELECT docname", "LIMIT (SELECT 5)", None),
    ("SELECT n FROM local WHERE n < 3 AND EXISTS (SELECT", "AND docname > 'b24' LIMIT 1) ORDER BY n LIMIT 2", None),
    ("SELECT docname", "UNION SELECT docname FROM local ORDER BY 1 DESC LIMIT 3", None)]]
QUERIES += [(query, None) for query in [
    "SELECT docname FROM {books} JOIN local USING (docname) WHERE {param} AND n > 200 ORDER BY n LIMIT 5",
    "SELECT docname FROM {books} JOIN local USING (docname) WHERE {param} AND n > 200 LIMIT 25",
    "SELECT b.docname, n FROM {books} b RIGHT JOIN local ON b.docname = local.docname AND {param} WHERE n > 245 "
    "LIMIT 4"]]


@pytest.mark.parametrize("query, size", QUERIES)
def test_rows_are_those_of_all_documents(copies, search, query, size):
    if "WITH TIES" in query and copies.version < 13:
        pytest.skip("the server does not know WITH TIES")
    expected = copies.run(query.format(books="found", param="true"))
    rows = copies.run(query.format(books="books", param=f"param = '{QUERY}'"))
    if size is None:
        ordered = " ORDER BY " in query
        assert (rows if ordered else sorted(map(str, rows))) == (expected if ordered else sorted(map(str, expected)))
    else:  # equal scores, or no order at all: any of the hits, and as many
        assert len(rows) == len(expected) and len(set(rows)) == len(rows)
        assert [row[1:] for row in rows] == [row[1:] for row in expected]
    assert {json.loads(body)["size"] for body in bodies(search)} <= {size or 1000}
    outcome = copies.outcome(query.format(books="few", param=f"param = '{QUERY}'"))
    assert outcome == REFUSED if size is None else isinstance(outcome, list)


@pytest.mark.parametrize("total", ["{}", '{{"value":{},"relation":"eq"}}'])
def test_more_hits_than_a_batch(db, scripted, total):
    """A batch of 100 is enough for as many hits, or for a limit that it holds; a look-up, for as many as its ids."""
    db.make_table(port=scripted.port)
    for condition, refusing, others in (
            ("param = 'query=q'", [101, 250, 2**32], [100]), ("param = 'query=q' LIMIT 101", [250], [3]),
            ("param = 'query=q' LIMIT 100", [], [250]), ("param = 'query=q' LIMIT 61 OFFSET 40", [250], []),
            ("param = 'query=q' LIMIT 60 OFFSET 40", [], [250]), ("docname = 'a'", [2], [1]),
            ("docname IN ('a', 'b')", [3], [2]), ("docname = 'a' LIMIT 1", [], [2])):
        for count in (*refusing, *others):
            scripted.script = answer(hits(*named("a"), total=total.format(count)))
            expected = REFUSED if count in refusing else [] if "OFFSET" in condition else [("a",)]
            assert db.outcome(f"SELECT docname FROM books WHERE {condition}") == expected, (condition, count)


def test_the_place_of_the_score_is_not_enough(db, search):
    db.make_table(columns=COLUMNS.replace("score", "rank"), batchsize=1000)
    assert len(db.run(f"{ARM} ORDER BY rank DESC LIMIT 5")) == 5
    assert [json.loads(body)["size"] for body in bodies(search)] == [1000]


def test_a_limit_in_a_cached_plan(copies, search):
    """A plan that serves several limits must not keep the first one."""
    copies.run(f"PREPARE p(bigint) AS {ARM} LIMIT $1")
    assert [len(copies.run(f"EXECUTE p({limit})")) for limit in (2, 120, "NULL")] == [2, 120, 125]
    assert [json.loads(body)["size"] for body in bodies(search)] == [2, 120, 1000]  # a plan for each
    copies.make_generic("EXECUTE p(1)")
    assert [len(copies.run(f"EXECUTE p({limit})")) for limit in (2, 120, "NULL")] == [2, 120, 125]


def test_arms_of_a_union(copies, search):
    """Each arm needs as many rows as the query at most, so the limit serves each of them."""
    for limit in (3, 130):
        assert len(copies.run(f"{ARM} UNION ALL {ARM} LIMIT {limit}")) == limit
    assert {json.loads(body)["size"] for body in bodies(search)} <= {3, 130, 1000}
