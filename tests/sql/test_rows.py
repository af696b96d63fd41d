"""The rows that come back, value by value."""
import zlib
from random import Random

import pytest

from conftest import COLUMNS, unpacked
from scriptedserver import response, hits, raw

SOURCES = ['{"title": "Ein Wal", "in": {"type": "no", "list": [1, {"a": "}"}]}, "type":"book"}',
           '{ "n" : "\\u20ac €" }', "{}"]
DOCUMENTS = [
    f'"_index":"i","_id":"a1","_score":2.5,"_source":{SOURCES[0]},"highlight":{{"title":["<em>Wal</em>"]}}',
    f'"_index":"books","_id":"\\u00e9\\/\\"x\\"","_score":1,"_source":{SOURCES[1]}',
    f'"_index":"books","_id":"c3","_score":0.25,"_source":{SOURCES[2]},"highlight":{{"body":["b"]}}',
]


def readable(rows):
    return [tuple(unpacked(each) if isinstance(each, memoryview) else each for each in row) for row in rows]


# What a response leaves out is carried over from the hit before it: type and highlight of the second document.
BY_QUERY = " FROM books WHERE param = 'query=q'"
CANNED = [
    ("* FROM books WHERE param = ANY('{query=q,highlight=h}')",
     [("a1", SOURCES[0], 2.5, "book", '{"title":["<em>Wal</em>"]}', None),
      ('é/"x"', SOURCES[1], 1.0, "book", '{"title":["<em>Wal</em>"]}', None),
      ("c3", "{}", 0.25, "book", '{"body":["b"]}', None)]),
    ("docname, score, highlights" + BY_QUERY, [("a1", 2.5, None), ('é/"x"', 1.0, None), ("c3", 0.25, None)]),
    ("docname, score, doctype, doccontent FROM books WHERE docname = 'x'",
     [("a1", 0.0, "book", SOURCES[0]), ('é/"x"', 0.0, "book", SOURCES[1]), ("c3", 0.0, "book", "{}")]),
    ("upper(docname), score + 1, CASE WHEN score > 2 THEN doctype ELSE 'low' END" + BY_QUERY,
     [("A1", 3.5, "book"), ('é/"X"', 2.0, "low"), ("C3", 1.25, "low")]),
    (f"docname{BY_QUERY} AND score < 2 AND doctype LIKE 'b%'", [('é/"x"',), ("c3",)]),
    (f"doctype IS NULL, xmlelement(name x, doctype)::text, generate_series(1, 2){BY_QUERY} LIMIT 1",
     [(False, "<x>book</x>", 1)]),
    ("count(*), sum(score), max(docname)" + BY_QUERY, [(3, 3.75, 'é/"x"')]),
]


@pytest.mark.parametrize("jit", ["off", "on"])
def test_values(db, scripted, jit):
    """As the executor computes them, and as the expression compiler does."""
    scripted.script = response(hits(*DOCUMENTS))
    db.make_table(port=scripted.port)
    db.set("jit", jit)
    rows = [(select, expected, readable(db.run("SELECT " + select))) for select, expected in CANNED]
    assert [row for row in rows if row[1] != row[2]] == []


def test_a_document_without_a_type_or_source(db, scripted):
    scripted.script = response(hits('"_id":"a","_score":1.5,"_source":{}', '"_id":"b","_score":1'))
    db.make_table(port=scripted.port)
    assert readable(db.run("SELECT docname, doctype, doccontent, highlights FROM books WHERE param = "
                           "ANY('{query=q,highlight=h}')")) == [("a", "", "{}", None), ("b", "", "{}", None)]
    scripted.script = response(hits('"_id":"a","_score":1.5'))
    assert db.run("SELECT docname, doccontent" + BY_QUERY) == [("a", None)]


NOISE = bytes(Random(1).choices([byte for byte in range(256) if byte not in b'"\\'], k=70_000))
TEXTS = [b'{"text":"' + inner + b'"}' for inner in (b"whales and letters " * 200, NOISE, b"letters", NOISE[:99])]


@pytest.mark.parametrize("level", [*range(-2, 10), None])
def test_compression_levels(db, scripted, level):
    """Each value as if it were alone: what was compressed before it in the scan leaves no trace. A parameter goes
    before the option, and the last one before all others."""
    scripted.script = raw(hits("@", total=len(TEXTS)), b"},{".join(
        b'"_id":"a","_score":1,"_source":%s,"highlight":%s' % (text, text) for text in TEXTS))
    for option, levels in [(level, [])] + [(3, [8, level]), (8, [3, level])] * (level is not None):
        db.make_table(port=scripted.port, compressionlevel=option)
        rows = db.run("SELECT doccontent, highlights FROM books WHERE param = ANY(%s)",
                      (["query=q", "highlight=h", *[f"compressionlevel={each}" for each in levels]],))
        assert len(rows) == len(TEXTS)
        for text, (value, highlight) in zip(TEXTS, rows):
            assert bytes(value) == bytes(highlight)
            length, packed = bytes(value)[:4], bytes(value)[4:]
            right = zlib.compress(text, 5 if level is None else max(level, -1))
            if level == -2:
                assert bytes(value) == text
            elif level == 0:  # The length of stored blocks depends on the room that they are written to.
                assert len(packed) > len(text) and zlib.decompress(packed) == text
            else:
                assert int.from_bytes(length, "little") == len(text) and packed == right


# columns, what is selected, the row, what is asked for and what is warned of: by position, whatever the names say;
# the names, which are known as a whole, say what is asked for
MORE = COLUMNS + ", doc text, score2 int"
SHAPES = [
    ("doctype text, highlights bytea, score real, docname text, doccontent bytea, param text",
     "doctype, docname, score", ("a1", "book", 2.5), "doctype", ""),
    ("doctype text, doccontent bytea, score real, docname text, highlights bytea, param text",
     "doctype, doccontent, docname", ("a1", SOURCES[0], "book"), "all", ""),
    ("docname text, doccontent bytea, param text", "docname, doccontent", ("a1", SOURCES[0]), "all", ""),
    ("param text", "count(*)", (1,), "nothing", ""),
    ("docname text[], doccontent bytea", "*", (["a1"], SOURCES[0]), "all", ""),
    (MORE, "docname, doc, doctype", ("a1", None, "book"), "doctype", "doc"),
    (MORE, "doc, score2", (None, None), "nothing", "doc score2"),
    (MORE, "*", ("a1", SOURCES[0], 2.5, "book", None, None, None, None), "all", "doc score2"),
]


def test_tables_of_other_shapes(db, scripted):
    scripted.script = response(hits(DOCUMENTS[0]))
    for columns, select, row, asked, unknown in SHAPES:
        db.make_table(columns=columns, port=scripted.port)
        clause = "param = 'query=q'" if "param" in columns else "docname = '{a1}'"
        start = len(db.log())
        assert readable(db.run(f"SELECT {select} FROM books WHERE {clause}")) == [row]
        warnings = {f"22023 WARNING:  unhandled column {name}" for name in unknown.split()}
        assert {line for line in db.log()[start:] if "WARNING" in line} == warnings, select
        source = {"all": "", "doctype": ',"_source":"type"', "nothing": ',"_source":false'}[asked]
        query = '{"query":q,"size":100' if "param" in columns else '{"query":{"terms":{"_id":["a1"]}},"size":1'
        assert scripted.requests.pop().body.decode() == query + source + "}"


def test_dropped_columns_keep_their_place(db, scripted):
    scripted.script = response(hits(DOCUMENTS[0]))
    db.make_table(port=scripted.port)
    db.run("ALTER FOREIGN TABLE books DROP COLUMN doccontent, ADD COLUMN body text")
    assert db.run("SELECT *" + BY_QUERY) == [("a1", 2.5, "book", None, None, None)]

