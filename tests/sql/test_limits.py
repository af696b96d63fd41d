"""LIMIT stops the search early only where that cannot change the rows; a result that does not fit is refused."""
import json

import pytest

import test_failures
from conftest import COLUMNS, bodies
from scriptedserver import response, hits, named

ALL = "FROM books WHERE param = 'query={\"match\":{\"title\":\"whales\"}}'"  # 125 of the 250 documents
REFUSED = "HV000", test_failures.TOO_MANY

# what follows SELECT, and the number of hits that the search may ask for, where a batch has 200
SIZES = [
    *[(f"docname, score {ALL} {end}", size) for end, size in (
        ("", 200), ("LIMIT ALL", 200), ("LIMIT 2147483648", 200), ("LIMIT 200", 200), ("LIMIT 5", 5),
        ("LIMIT 5 OFFSET 2", 7), ("ORDER BY score DESC LIMIT 5", 5), ("ORDER BY score DESC NULLS LAST LIMIT 5", 5),
        ("AND doctype IN ('book', 'essay') LIMIT 5", 5), ("AND docname LIKE '%9' LIMIT 5", 200),
        ("AND doctype LIKE 'e%' LIMIT 5", 200), ("ORDER BY docname LIMIT 5", 200), ("ORDER BY score LIMIT 5", 200),
        ("ORDER BY score + 1 DESC LIMIT 5", 200), ("ORDER BY score DESC, docname DESC LIMIT 5", 200),
        ("LIMIT length(current_setting('application_name')) + 5", 200), ("LIMIT (SELECT 5)", 200),
        ("AND docname IN (SELECT name FROM local WHERE n > 200) LIMIT 25", 200),
        ("AND docname NOT IN (SELECT name FROM local WHERE n < 205) LIMIT 22", 200))],
    (f"docname FROM (SELECT * {ALL} LIMIT 5) s WHERE docname LIKE '%1'", 5), (f"upper(docname) {ALL} LIMIT 5", 5),
    (f"DISTINCT doctype {ALL} LIMIT 2", 200), (f"doctype, count(*) {ALL} GROUP BY doctype LIMIT 2", 200),
    (f"docname, count(*) OVER () {ALL} LIMIT 1", 200), (f"generate_series(1, 2), docname {ALL} LIMIT 5", 200),
    (f"n FROM local WHERE n < 3 AND EXISTS (SELECT {ALL} AND docname > 'b24' LIMIT 1) LIMIT 2", 200),
    (f"docname {ALL} UNION SELECT name FROM local ORDER BY 1 DESC LIMIT 3", 200),
    (f"docname {ALL} UNION ALL SELECT docname {ALL} LIMIT 3", 200),
    *[(f"docname, n {ALL.replace('WHERE', join)} {end}", 200) for join, end in (
        ("JOIN local ON docname = name AND", "ORDER BY n LIMIT 5"), ("JOIN local ON docname = name AND", "LIMIT 5"),
        ("RIGHT JOIN local ON docname = name AND", "WHERE n > 245 LIMIT 4"))],
]


def sizes(search):
    return [json.loads(body)["size"] for body in bodies(search)]


def test_sizes(db, search):
    db.make_table(batchsize=200)
    db.run("CREATE TEMP TABLE local AS SELECT 'b' || to_char(n, 'FM000') AS name, n FROM generate_series(0, 249) n")
    for select, size in SIZES + [(f"docname, score {ALL} ORDER BY score DESC FETCH FIRST 5 ROWS WITH TIES", 200)] * (
            db.version > 12):
        db.run("SELECT " + select)
        assert set(sizes(search)) == {size}, select
    db.make_table(columns=COLUMNS.replace("score", "rank"), batchsize=200)
    assert len(db.run(f"SELECT docname {ALL} ORDER BY rank DESC LIMIT 5")) == 5
    assert sizes(search) == [200]  # The place of the score is not enough.
    assert db.run(f"SELECT docname {ALL} LIMIT 0") == sizes(search) == []


def test_a_limit_in_a_cached_plan(db, search):
    """A plan that serves several limits must not keep the first one."""
    db.make_table(batchsize=200)
    db.run(f"PREPARE p(bigint) AS SELECT docname {ALL} LIMIT $1")
    for asked in ([2, 120, 200], [200, 200, 200]):  # a plan for each, then one for all
        assert [len(db.run(f"EXECUTE p({limit})")) for limit in (2, 120, "NULL")] == [2, 120, 125]
        assert sizes(search) == asked
        db.make_generic("EXECUTE p(1)")
        sizes(search)


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
            scripted.script = response(hits(*named("a"), total=total.format(count)))
            expected = REFUSED if count in refusing else [] if "OFFSET" in condition else [("a",)]
            assert db.outcome(f"SELECT docname FROM books WHERE {condition}") == expected, (condition, count)
