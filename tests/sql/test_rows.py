"""The rows that come back, value by value, and the ways in which the server may ask for them."""
import re
import zlib
from random import Random

import pytest

from conftest import COLUMNS, bodies, unpacked
from scriptedserver import answer, hits

FIVE = "param = 'query={\"range\":{\"number\":{\"lt\":5}}}'"
FIVE_NAMES = ["b000", "b001", "b002", "b003", "b004"]
HIGHLIGHT = "param = ANY('{query=q,highlight=h}')"
SOURCES = ['{"title": "Ein Wal", "in": {"type": "no", "list": [1, {"a": "}"}]}, "type":"book"}',
           '{ "n" : "\\u20ac €" }', "{}"]
DOCUMENTS = [
    f'"_index":"i","_id":"a1","_score":2.5,"_source":{SOURCES[0]},"highlight":{{"title":["<em>Wal</em>"]}}',
    f'"_index":"books","_id":"\\u00e9\\/\\"x\\"","_score":1,"_source":{SOURCES[1]}',
    f'"_index":"books","_id":"c3","_score":0.25,"_source":{SOURCES[2]},"highlight":{{"body":["b"]}}',
]


def readable(rows):
    return [tuple(unpacked(each) if isinstance(each, memoryview) else each for each in row) for row in rows]


@pytest.fixture
def canned(db, scripted):
    """The table `books` on a server whose every answer holds the three documents."""
    scripted.script = answer(hits(*DOCUMENTS))
    db.make_table(port=scripted.port)
    return db


# What an answer leaves out is carried over from the hit before it: type and highlight of the second document.
CANNED = [
    (f"* FROM books WHERE {HIGHLIGHT}",
     [("a1", SOURCES[0], 2.5, "book", '{"title":["<em>Wal</em>"]}', None),
      ('é/"x"', SOURCES[1], 1.0, "book", '{"title":["<em>Wal</em>"]}', None),
      ("c3", "{}", 0.25, "book", '{"body":["b"]}', None)]),
    ("docname, score, doctype, highlights FROM books WHERE param = 'query=q'",
     [("a1", 2.5, "book", None), ('é/"x"', 1.0, "book", None), ("c3", 0.25, "book", None)]),
    ("docname, score, doctype, doccontent FROM books WHERE docname = 'x'",
     [("a1", 0.0, "book", SOURCES[0]), ('é/"x"', 0.0, "book", SOURCES[1]), ("c3", 0.0, "book", "{}")]),
    ("count(*) FROM books WHERE param = 'query=q'", [(3,)]),
    ("sum(score), max(docname) FROM books WHERE param = 'query=q'", [(3.75, 'é/"x"')]),
    ("upper(docname), score + 1, CASE WHEN score > 2 THEN doctype ELSE 'low' END FROM books "
     "WHERE param = 'query=q'", [("A1", 3.5, "book"), ('é/"X"', 2.0, "low"), ("C3", 1.25, "low")]),
    ("docname, score FROM books WHERE param = 'query=q' AND score < 2 AND docname LIKE 'c%'", [("c3", 0.25)]),
    ("docname FROM books WHERE param = 'query=q' AND score < 2 AND doctype LIKE 'b%'", [('é/"x"',), ("c3",)]),
    ("docname FROM books WHERE param = 'query=q' ORDER BY score", [("c3",), ('é/"x"',), ("a1",)]),
    ("docname FROM books WHERE param = 'query=q' LIMIT 2 OFFSET 1", [('é/"x"',), ("c3",)]),
    ("docname FROM books WHERE param = 'query=q' UNION ALL "
     "SELECT docname FROM books WHERE docname = 'x' LIMIT 4",
     [("a1",), ('é/"x"',), ("c3",), ("a1",)]),
    ("docname FROM (SELECT docname, score FROM books WHERE param = 'query=q' OFFSET 0) s WHERE score >= 1",
     [("a1",), ('é/"x"',)]),
    ("(SELECT max(score) FROM books WHERE param = 'query=q')", [(2.5,)]),
]


@pytest.mark.parametrize("select, expected", CANNED)
def test_values(canned, select, expected):
    assert readable(canned.run("SELECT " + select)) == expected


EXPRESSIONS = [
    "coalesce(score, -1)", "greatest(score, 0)", "doctype::varchar(3)", "ARRAY[doctype, docname]",
    "doccontent IS NULL", "ROW(docname, score)::text", "NOT (score > 1 AND doctype = 'book')", "nullif(doctype, 'book')",
    "xmlconcat(xmlelement(name x, doctype))::text", "(ARRAY[docname])[1]", "doctype::bpchar",
    "rank() OVER (ORDER BY score)", "max(coalesce(score, 9))", "docname, doctype IS NULL, max(score) FILTER (WHERE "
    "doctype IS NOT NULL)", "generate_series(1, CASE WHEN score IS NULL THEN 1 ELSE 2 END), (SELECT docname)",
]


def test_columns_within_expressions(canned):
    """A column is asked for wherever it stands: the rows are those of a local copy."""
    canned.run("CREATE TEMP TABLE copy AS SELECT * FROM books WHERE param = 'query=q'")
    canned.run("CREATE TEMP TABLE stored (x text)")
    for expression in EXPRESSIONS:
        aggregate = " GROUP BY docname, doctype" * expression.startswith("docname")
        local = f"SELECT {expression} FROM copy {aggregate}"
        foreign = f"SELECT {expression} FROM books WHERE param = 'query=q' {aggregate}"
        expected = canned.run(local)
        assert sorted(canned.run(foreign)) == sorted(expected), expression
        assert canned.run(f"SELECT count(*) FROM ({foreign} EXCEPT {local}) x") == [(0,)]
        if "," not in re.sub(r"\(.*\)", "", expression):
            canned.run(f"TRUNCATE stored; INSERT INTO stored SELECT ({expression})::text FROM books WHERE param = 'query=q'")
            assert sorted(canned.run(f"SELECT * FROM stored")) == sorted(canned.run(local.replace(
                expression, f"({expression})::text")))


def test_a_document_without_a_type(db, scripted):
    scripted.script = answer(hits('"_id":"a","_score":1.5,"_source":{}', '"_id":"b","_score":1'))
    db.make_table(port=scripted.port)
    assert readable(db.run("SELECT docname, doctype, doccontent, highlights FROM books WHERE "
                           + HIGHLIGHT)) == [("a", "", "{}", None), ("b", "", "{}", None)]
    scripted.script = answer(hits('"_id":"a","_score":1.5'))
    assert db.run("SELECT docname, doccontent FROM books WHERE param = 'query=q'") == [("a", None)]


NOISE = bytes(Random(1).choices([byte for byte in range(256) if byte not in b'"\\%@'], k=70_000))


def test_compression_levels(db, scripted):
    """Each value as if it were alone: what was compressed before it in the scan leaves no trace."""
    sources = [b'{"text":"' + inner + b'"}' for inner in (b"whales and letters " * 200, NOISE, b"letters", NOISE[:99])]
    scripted.script = answer(hits(*['"_id":"a","_score":1,"_source":@,"highlight":@'] * len(sources)).encode()
                             .replace(b"@", b"%s") % tuple(source for source in sources for _ in range(2)))
    for level in (*range(-2, 10), None):
        seen = []
        for option, parameters in ((level, []), (9 - (level or 0) % 10, [f"compressionlevel={level}"])):
            if level is not None or not parameters:
                db.make_table(port=scripted.port, compressionlevel=option)
                rows = db.run("SELECT doccontent, highlights FROM books WHERE param = ANY(%s)",
                              (["query=q", "highlight=h", *parameters],))
                seen.append([bytes(value) for row in rows for value in row])
        assert len(seen[0]) == 2 * len(sources)
        assert seen == [seen[0]] * len(seen) and seen[0][::2] == seen[0][1::2]
        for source, value in zip(sources, seen[0][::2]):
            if level == -2:
                assert value == source
                continue
            length, packed = value[:4], value[4:]
            assert int.from_bytes(length, "little") == len(source) and zlib.decompress(packed) == source
            # The length of stored blocks depends on the room that they are written to.
            right = zlib.compress(source, 5 if level is None else level)
            assert len(packed) > len(source) if level == 0 else packed == right


SHAPES = [
    # By position, whatever the names say; the names say what is asked for.
    ("doctype text, highlights bytea, score real, docname text, doccontent bytea, param text",
     "doctype, docname, score", [("a1", "book", 2.5)], 'doctype'),
    ("doctype text, doccontent bytea, score real, docname text, highlights bytea, param text",
     "doctype, doccontent, docname", [("a1", SOURCES[0], "book")], "doccontent"),
    ("docname text, doccontent bytea, param text", "docname, doccontent", [("a1", SOURCES[0])], "doccontent"),
    ("param text", "count(*)", [(1,)], None),
    ("docname text[], doccontent bytea", "*", [(["a1"], SOURCES[0])], "doccontent"),
    (COLUMNS + ", body text, more int", "docname, body, doctype", [("a1", None, "book")], "doctype"),
    (COLUMNS + ", body text, more int", "body, more", [(None, None)], None),
    (COLUMNS + ", body text", "*", [("a1", SOURCES[0], 2.5, "book", None, None, None)], "doccontent"),
]


@pytest.mark.parametrize("columns, select, expected, asked", SHAPES)
def test_tables_of_other_shapes(db, scripted, columns, select, expected, asked):
    scripted.script = answer(hits(DOCUMENTS[0]))
    db.make_table(columns=columns, port=scripted.port)
    clause = "param = 'query=q'" if "param" in columns else "docname = '{a1}'"
    assert readable(db.run(f"SELECT {select} FROM books WHERE {clause}")) == expected
    unknown = {name for name in ("body", "more") if name in select or name in columns and select == "*"}
    assert {line for line in db.log() if "WARNING" in line} == {
        f"22023 WARNING:  unhandled column {name}" for name in unknown}
    assert len(db.connection.notices) >= len(unknown)
    source = {"doccontent": "", "doctype": ',"_source":"type"', None: ',"_source":false'}[asked]
    query = '{"query":q,"size":100' if "param" in columns else '{"query":{"terms":{"_id":["a1"]}},"size":1'
    assert scripted.requests[0].body.decode() == query + source + "}"


def test_dropped_columns_keep_their_place(db, scripted):
    scripted.script = answer(hits(DOCUMENTS[0]))
    db.make_table(port=scripted.port)
    db.run("ALTER FOREIGN TABLE books DROP COLUMN doccontent, ADD COLUMN body text")
    assert db.run("SELECT * FROM books WHERE param = 'query=q'") == [("a1", 2.5, "book", None, None, None)]


@pytest.mark.every_version
def test_rows_of_the_search_server(db, search):
    rows = db.run(f"SELECT docname, score, doctype, doccontent FROM books WHERE {FIVE} ORDER BY docname")
    assert [row[0] for row in rows] == FIVE_NAMES
    assert all(row[1] > 0 for row in rows)
    assert [row[2] for row in rows] == ["essay"] + 4 * ["book"]
    assert '"number": 3' in unpacked(rows[3][3]) or '"number":3' in unpacked(rows[3][3])
    assert db.run(f"SELECT docname FROM books WHERE {FIVE} AND doctype = 'essay'") == [("b000",)]
    assert db.run("SELECT docname, doctype FROM books WHERE docname IN ('b010', 'b011') AND "
                  "doctype = 'essay'") == [("b010", "essay")]
    assert unpacked(db.value("SELECT doccontent FROM books WHERE docname = 'b003' AND param = "
                             "'sourceincludefilter=title'")).replace(" ", "") == '{"title":"whales"}'
    highlight = db.value("SELECT highlights FROM books WHERE docname ~ '7' AND param = ANY(%s)", ([
        'query={"bool":{"must":[{"match":{"title":"whales"}},{"range":{"number":{"lt":10}}}]}}',
        'highlight={"fields":{"title":{}}}'],))
    assert unpacked(highlight).replace(" ", "") == '{"title":["<em>whales</em>"]}'
    db.make_table(indexlist="empty")
    assert db.run("SELECT * FROM books WHERE param = 'query={\"match_all\":{}}'") == []


@pytest.mark.every_version
def test_joins_and_rescans(db, search):
    db.run("CREATE TEMP TABLE wanted AS SELECT 'b00' || n AS name, n FROM generate_series(1, 3) n")
    join = f"SELECT n, docname, doctype FROM wanted LEFT JOIN books ON docname = name AND {FIVE} ORDER BY n"
    expected = [(1, "b001", "book"), (2, "b002", "book"), (3, "b003", "book")]
    assert db.run(join) == expected
    assert len(bodies(search)) == 1
    db.run("SET enable_material = off; SET enable_hashjoin = off; SET enable_mergejoin = off")
    assert db.run(join) == expected
    requests = bodies(search)
    assert len(requests) == 3 and len(set(requests)) == 1  # a rescan asks again
    assert db.run(f"SELECT (SELECT count(*) FROM books WHERE {FIVE} AND docname > name) "
                  "FROM wanted ORDER BY n") == [(3,), (2,), (1,)]
    assert db.run(f"SELECT a.docname FROM books a JOIN books b ON a.docname = b.docname WHERE a.{FIVE} AND "
                  "b.docname = ANY('{b003,b004,b200}') ORDER BY 1") == [("b003",), ("b004",)]


@pytest.mark.every_version
def test_cursors(db, search):
    db.connection.autocommit = False
    db.run(f"DECLARE c CURSOR FOR SELECT docname FROM books WHERE {FIVE}")
    names = [name for count in (2, 2, 2, 2) for (name,) in db.run(f"FETCH {count} FROM c")]
    assert sorted(names) == FIVE_NAMES and len(bodies(search)) == 1
    db.run("DECLARE d CURSOR FOR SELECT docname FROM books WHERE docname = ANY(%s)",
           ([f"b{n:03}" for n in range(250)],))
    assert len(db.run("FETCH 100 FROM d")) == 100 and len(bodies(search)) == 1
    assert len(db.run("FETCH ALL FROM d")) == 150 and len(bodies(search)) == 2
    db.run("CLOSE d")
    db.connection.commit()
