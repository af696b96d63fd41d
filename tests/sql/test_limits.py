"""LIMIT stops the search early only where that cannot change the rows: each query gives what the same query
gives on a local copy of all documents, or is refused."""
import json

import pytest

from conftest import bodies

pytestmark = pytest.mark.every_version

QUERY = 'query={"match":{"title":"whales"}}'
REFUSED = ("HV000", "es search result bigger than batch size, use a scroll")


@pytest.fixture
def copies(db, search):
    """`found`: the 125 hits of the query as the search returns them; `books` has room for them, `few` has not."""
    db.make_table(batchsize=1000)
    db.make_table("few", batchsize=10)
    db.run(f"CREATE TEMP TABLE found AS SELECT docname, score, doctype, ''::text AS param FROM books "
           f"WHERE param = '{QUERY}'")
    db.run("CREATE TEMP TABLE local AS SELECT 'b' || to_char(n, 'FM000') AS docname, n FROM generate_series(0, 249) n")
    search.take_journal()
    return db


# A query over {books}, and the size that it may ask for: the limit, or None for all.
QUERIES = [
    ("SELECT docname FROM {books} WHERE {param} LIMIT 5", 5),
    ("SELECT docname FROM {books} WHERE {param} LIMIT 5 OFFSET 2", 7),
    ("SELECT docname, score FROM {books} WHERE {param} ORDER BY score DESC LIMIT 5", 5),
    ("SELECT docname, score FROM {books} WHERE {param} ORDER BY score DESC NULLS LAST LIMIT 5", 5),
    ("SELECT docname FROM (SELECT * FROM {books} WHERE {param} LIMIT 5) s WHERE docname LIKE '%1'", 5),
    ("SELECT upper(docname) FROM {books} WHERE {param} AND doctype IN ('book', 'essay') LIMIT 5", 5),
    ("SELECT docname FROM {books} WHERE {param} AND length(docname) > 3 AND docname LIKE '%9' LIMIT 5", None),
    ("SELECT docname FROM {books} WHERE {param} AND doctype LIKE 'e%' LIMIT 5", None),
    ("SELECT docname FROM {books} WHERE {param} ORDER BY docname LIMIT 5", None),
    ("SELECT docname FROM {books} WHERE {param} ORDER BY docname DESC LIMIT 5", None),
    ("SELECT docname, score FROM {books} WHERE {param} ORDER BY score LIMIT 5", None),
    ("SELECT docname, score FROM {books} WHERE {param} ORDER BY score + 1 DESC LIMIT 5", None),
    ("SELECT docname, score FROM {books} WHERE {param} ORDER BY score DESC, docname DESC LIMIT 5", None),
    ("SELECT docname, score FROM {books} WHERE {param} ORDER BY score DESC FETCH FIRST 5 ROWS WITH TIES", None),
    ("SELECT docname FROM {books} JOIN local USING (docname) WHERE {param} AND n > 200 ORDER BY n LIMIT 5", None),
    ("SELECT docname FROM {books} JOIN local USING (docname) WHERE {param} AND n > 200 LIMIT 25", None),
    ("SELECT b.docname, n FROM {books} b RIGHT JOIN local l ON b.docname = l.docname AND {param} "
     "WHERE n > 245 LIMIT 4", None),
    ("SELECT docname FROM {books} WHERE {param} AND docname IN (SELECT docname FROM local WHERE n > 200) LIMIT 25",
     None),
    ("SELECT docname FROM {books} WHERE {param} AND docname NOT IN (SELECT docname FROM local WHERE n < 205) LIMIT 22",
     None),
    ("SELECT DISTINCT doctype FROM {books} WHERE {param} LIMIT 2", None),
    ("SELECT doctype, count(*) FROM {books} WHERE {param} GROUP BY doctype ORDER BY 1 LIMIT 1", None),
    ("SELECT max(docname) FROM {books} WHERE {param} LIMIT 1", None),
    ("SELECT docname, count(*) OVER () FROM {books} WHERE {param} LIMIT 1", None),
    ("SELECT generate_series(1, 2), docname FROM {books} WHERE {param} LIMIT 5", None),
    ("SELECT docname FROM {books} WHERE {param} LIMIT length(current_setting('application_name')) + 5", None),
    ("SELECT docname FROM {books} WHERE {param} LIMIT (SELECT 5)", None),
    ("SELECT n FROM local WHERE n < 3 AND EXISTS (SELECT FROM {books} WHERE {param} AND docname > 'b24' LIMIT 1) "
     "ORDER BY n LIMIT 2", None),
    ("SELECT docname FROM {books} WHERE {param} UNION SELECT docname FROM local ORDER BY 1 DESC LIMIT 3", None),
]


@pytest.mark.parametrize("query, size", QUERIES)
def test_rows_are_those_of_all_documents(copies, search, query, size):
    if "WITH TIES" in query and copies.version < 13:
        pytest.skip("the server does not know WITH TIES")
    expected = copies.run(query.format(books="found", param="true"))
    rows = copies.run(query.format(books="books", param=f"param = '{QUERY}'"))
    if " ORDER BY " in query and "ORDER BY score DESC LIMIT" not in query and "NULLS LAST" not in query:
        assert rows == expected
    elif size is None:
        assert sorted(map(str, rows)) == sorted(map(str, expected))
    else:  # equal scores, or no order at all: any of the hits, and as many
        assert len(rows) == len(expected) and len(set(rows)) == len(rows)
        assert [row[1:] for row in rows] == [row[1:] for row in expected]
    assert {json.loads(body)["size"] for body in bodies(search)} <= {size or 1000}
    outcome = copies.outcome(query.format(books="few", param=f"param = '{QUERY}'"))
    assert outcome == REFUSED if size is None else isinstance(outcome, list)


def test_the_place_of_the_score_is_not_enough(db, search):
    db.make_table(columns="docname text, doccontent bytea, rank real, doctype text, highlights bytea, param text",
                  batchsize=1000)
    assert len(db.run(f"SELECT docname FROM books WHERE param = '{QUERY}' ORDER BY rank DESC LIMIT 5")) == 5
    assert [json.loads(body)["size"] for body in bodies(search)] == [1000]


def test_a_limit_in_a_cached_plan(copies, search):
    """A plan that serves several limits must not keep the first one."""
    copies.run(f"PREPARE p(bigint) AS SELECT docname FROM books WHERE param = '{QUERY}' LIMIT $1")
    assert [len(copies.run(f"EXECUTE p({limit})")) for limit in (2, 120, "NULL")] == [2, 120, 125]
    assert [json.loads(body)["size"] for body in bodies(search)] == [2, 120, 1000]  # a plan for each
    copies.make_generic("EXECUTE p(1)")
    assert [len(copies.run(f"EXECUTE p({limit})")) for limit in (2, 120, "NULL")] == [2, 120, 125]


def test_arms_of_a_union(copies, search):
    """Each arm needs as many rows as the query at most, so the limit serves each of them."""
    arm = f"SELECT docname FROM books WHERE param = '{QUERY}'"
    assert len(copies.run(f"{arm} UNION ALL {arm} LIMIT 3")) == 3
    assert len(copies.run(f"{arm} UNION ALL {arm} LIMIT 130")) == 130
    assert {json.loads(body)["size"] for body in bodies(search)} <= {3, 130, 1000}
