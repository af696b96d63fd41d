"""The search wrapper's counts: which of them the cluster makes, and that they are those of the rows."""
import json

import pytest

from conftest import bodies
from scriptedserver import response, hits, named
from test_search_wrapper import QUERY, agrees, docs, plan, report  # noqa: F401

MANY = "docname = ANY (ARRAY(SELECT name FROM names))"
LIMITED = "FROM (SELECT docname FROM docs LIMIT 5) s"
JOINED = "FROM docs a JOIN docs b USING (docname)"
# What is selected, and how many requests for nothing but a total it takes; None where rows are counted.
COUNTS = [
    ("count(*) FROM docs", 1), (f"count(*) FROM docs d WHERE {QUERY}", 1), ("count(*) FROM ONLY docs", 1),
    ("count(*) FROM docs WHERE param IN ('minscore=1.5')", 1), ("count(*) FROM docs WHERE docname = 'b001'", 1),
    ("count(*) FROM docs WHERE docname IN ('b001', 'no', 'b002', 'b001', '', NULL)", 1),
    (f"count(*) FROM docs WHERE {MANY}", 3),
    (f"count(*) FROM docs WHERE {QUERY} AND {MANY}", 3),
    ("count(*) FROM docs WHERE docname = 'b001' OR docname = 'b002'", 1),
    ("count(*) FROM docs WHERE docname = NULL::text", None),
    ("count(*) FROM docs WHERE docname = (SELECT NULL::text)", 0),
    ("count(*) FROM docs WHERE docname = ANY ('{}')", 0),
    ("count(*) FROM docs WHERE docname = 'b001' AND docname IN ('b002', 'b003')", 0),
    ("count(*) FROM docs WHERE docname = (SELECT max(name) FROM names WHERE name < 'b1')", 1),
    ("count(*) + 1, 'x', count(*), (SELECT max(name) FROM names) FROM docs", 1),
    ("count(*), sum(count(*)) OVER () FROM docs ORDER BY 1 LIMIT 1", 1),
    ("generate_series(249, count(*)), count(*) FROM docs", 1),
    (f"count(*) FROM open WHERE {QUERY}", 1), ("count(*) FROM docs LEFT JOIN names ON name = docname", 1),
    ("name, (SELECT count(*) FROM docs WHERE docname = name) FROM names LIMIT 9", 9),
    ("name, c FROM names, LATERAL (SELECT count(*) AS c FROM docs WHERE docname IN (name, 'b001')) s "
     "WHERE name < 'b003'", 3),
    ("count(*) FROM docs WHERE doctype = 'essay'", None), ("count(*) FROM docs WHERE docname LIKE '%1'", None),
    ("count(*) FROM closed WHERE docname = 'b001'", None),
    ("count(*) FROM docs WHERE docname = 'b001' AND score > 2", None),
    ("count(*) FROM docs HAVING count(*) > 9", None), ("count(*) FROM docs HAVING count(*) > 900", None),
    ("count(*) FILTER (WHERE docname < 'b1') FROM docs", None), ("count(DISTINCT doctype), count(*) FROM docs", None),
    ("count(*) FROM docs WHERE docname = 'no' GROUP BY (SELECT 1)", None),
    ("count(*) FROM docs WHERE docname = 'no' GROUP BY ()", None),
    ("count(*) FROM docs GROUP BY GROUPING SETS ((), ())", None), ("max(docname), count(*) FROM docs", None),
    (f"count(*) FROM docs WHERE {QUERY} AND (SELECT count(name) FROM names) = 0", None),
    (f"count(*) {LIMITED}", None),
    (f"count(*) {JOINED}", None), ("count(*) FROM docs WHERE random() > 2", None), ("count(*) FROM heirs", None),
    ("count(*) FROM parts", None), ("count(*) FROM part", 1),
    ("CASE WHEN true THEN 1 ELSE count(*) END FROM docs", None), ("count(*) FROM docs WHERE false", None)]


@pytest.fixture
def related(docs):  # noqa: F811
    """The session with names of documents, views, and foreign tables below others."""
    docs.run("CREATE TEMP TABLE names AS SELECT 'b' || to_char(n, 'FM0000') AS name "
             "FROM generate_series(250, 2497) n; INSERT INTO names SELECT DISTINCT docname FROM docs; "
             "ALTER TABLE names ADD PRIMARY KEY (name); ANALYZE names; "
             "CREATE TEMP VIEW open AS SELECT docname, param FROM docs; "
             "CREATE TEMP VIEW closed WITH (security_barrier) AS "
             "SELECT docname, param FROM docs WHERE docname < 'b2'")
    docs.make(name="heirs")
    docs.make(name="heir", indexlist="books,books")
    docs.run("ALTER FOREIGN TABLE heir INHERIT heirs; "
             "CREATE TABLE parts (docname text, docindex text) PARTITION BY LIST (docindex); "
             "CREATE FOREIGN TABLE part PARTITION OF parts FOR VALUES IN ('books') "
             "SERVER documents OPTIONS (indexlist 'books'); "
             "CREATE TABLE local_part PARTITION OF parts FOR VALUES IN ('local'); "
             "INSERT INTO parts VALUES ('x', 'local')")
    docs.set("enable_partitionwise_aggregate", "on")
    yield docs
    docs.run("DROP FOREIGN TABLE heirs CASCADE; DROP TABLE parts")


def sizes(server):
    """How many hits each search asked for."""
    return [json.loads(body)["size"] for body in bodies(server) if "scroll_id" not in body]


@pytest.mark.parametrize("statement, requests", COUNTS)
def test_counts(related, search, statement, requests):
    search.take_journal()
    counted = related.run(f"SELECT {statement}")
    assert requests is None or sizes(search) == [0] * requests
    assert ("Count of: " in plan(related, f"SELECT {statement}")) == (requests is not None)
    assert sorted(counted) == sorted(related.run(f"SELECT {statement.replace('count(*)', 'count(docname)')}"))
    assert search.open_scrolls() == 0


def test_counts_that_are_made_again(related, search):
    """With other values, with the same ones, and the way back through what was counted."""
    related.run("PREPARE counted(text[], text) AS SELECT count(*) FROM docs WHERE docname = ANY ($1) AND param = $2")
    related.make_generic("EXECUTE counted('{b001}', 'minscore=1')")
    assert [related.value("EXECUTE counted(%s, %s)", values) for values in (
        (["b001", "b002", "b001"], "minscore=1"), (["b001"], "minscore=2"), (None, "minscore=1"), ([], "minscore=1"),
        (["b003"], None))] == [2, 0, 0, 0, 0]
    assert "<$1>" in plan(related, "EXECUTE counted('{b001}', 'minscore=1')", "VERBOSE, ")
    related.run("ALTER FOREIGN TABLE docs OPTIONS (SET indexlist 'empty')")
    assert related.value("EXECUTE counted('{b001}', 'minscore=1')") == 0
    related.run("ALTER FOREIGN TABLE docs OPTIONS (SET indexlist 'books')")
    search.take_journal()
    assert related.run("SELECT name, c FROM names, LATERAL (SELECT count(*) AS c FROM docs "
                       "WHERE docname = left(name, 3) || '1' OFFSET 0) s WHERE name IN ('b001', 'b002') "
                       "ORDER BY name") == [("b001", 1), ("b002", 1)]
    related.run("BEGIN; DECLARE c SCROLL CURSOR FOR SELECT count(*) FROM docs")
    assert [related.run(f"FETCH {direction} FROM c") for direction in ("NEXT", "NEXT", "PRIOR", "PRIOR", "NEXT")] == [
        [(250,)], [], [(250,)], [], [(250,)]]
    related.run("COMMIT")
    assert sizes(search) == [0] * 3


def test_explain(docs, search):  # noqa: F811
    """The request and its cost, and the table, which the server does not name."""
    docs.run("CREATE SCHEMA odd; ALTER FOREIGN TABLE docs SET SCHEMA odd; "
             "ALTER FOREIGN TABLE odd.docs RENAME TO \"Docs\"")
    asked = f"SELECT count(*) FROM odd.\"Docs\" WHERE {QUERY}"
    search.take_journal()
    assert 'Count of: "Docs"' in plan(docs, asked)
    shown = plan(docs, asked, "VERBOSE, ")
    assert 'Count of: odd."Docs"' in shown and f":{search.port}/books/_search" in shown and '"size":0,' in shown
    assert not bodies(search)
    told = plan(docs, asked, "ANALYZE, TIMING off, SUMMARY off, ")
    assert "(actual rows=1" in told and "Requests: 1\n" in told and "Hits: 0\n" in told
    docs.run("DROP SCHEMA odd CASCADE")


LARGEST = 2 ** 63 - 1
UNREADABLE = "the response of the search cluster cannot be read"
FAULTS = [
    (hits(*named("a")), ("HV000", UNREADABLE, "hits where none were asked for", "")),
    (hits(total='{"value":1,"relation":"gte"}'), ("HV000", UNREADABLE, "no exact total of hits", "")),
    ('{"hits":{"hits":[]}}', ("HV000", UNREADABLE, "no exact total of hits", "")),
    (hits(total=LARGEST), ("HV000", UNREADABLE, "a total that cannot be", "")),
    ('{"timed_out":true,' + hits(total=3)[1:],
     ("HV000", "the response of the search cluster lacks hits", "timed out", ""))]


@pytest.mark.parametrize("fault, expected", FAULTS)
def test_faults(docs, scripted, fault, expected):  # noqa: F811
    """Those of the second part of a count, too; and of none that is good a part is lost."""
    docs.make_documents(scripted.port)
    docs.make()
    asked = "SELECT count(*) FROM docs WHERE docname = ANY (ARRAY(SELECT n::text FROM generate_series(1, 1001) n))"
    scripted.script = lambda peer: response(hits(total=3) if b'"1"' in peer.body else fault)(peer)
    assert agrees(report(docs, asked), expected)
    scripted.script = lambda peer: response(hits(total=4 if b'"1"' in peer.body else 5))(peer)
    assert docs.value(asked) == 9
    docs.make(partialresults="warning")
    scripted.script = response(FAULTS[-1][0])
    assert docs.value("SELECT count(*) FROM docs") == 3 and "lacks hits" in docs.connection.notices.pop()
