"""Which conditions of a WHERE clause steer the search, and with what values; the request is the witness."""
import json

import pytest

import test_failures
from conftest import COLUMNS

NEED, MIXED, LEVEL = [("HV000", text) for text in (test_failures.NEED, test_failures.MIXED, test_failures.RANGE)]
NO_REQUEST = []
OTHER_ID = COLUMNS + ", body text, docname2 text"
IDS = COLUMNS.replace("docname text", "docname text[]")


def unreadable(column):
    return "HV000", f"fail to extract clause of type N for {column}"


def query(text="q", types=None):
    """The body of a search, of some types."""
    filtered = f'{{"bool":{{"filter":{{"terms":{{"type":[ {types}]}}}},"must":{text}}}}}' if types else text
    return f'{{"query":{filtered},"size":100,"_source":false}}'


def asked(outcome):
    """The ids that look-ups ask for, the body of any other request, or the error or empty list that an outcome is."""
    if isinstance(outcome, list) and outcome and '"_id"' in outcome[0]:
        return [name for body in outcome for name in json.loads(body)["query"]["terms"]["_id"]]
    return outcome[0] if isinstance(outcome, list) and outcome else outcome


CLAUSES = [
    ("docname = 'x'", ["x"]), ("'x' = docname", ["x"]), ("docname = ''", [""]),
    ("docname IN ('x', 'y')", ["x", "y"]), ("docname IN ('x', NULL)", ["x"]),
    ("docname IN ('y', 'x', 'y')", ["y", "x", "y"]), ("docname = ANY('{x,y}')", ["x", "y"]),
    ("docname = ANY('{x,NULL,y}')", ["x", "y"]), ("docname = ANY('[7:8]={x,y}')", ["x", "y"]),
    ("docname = 'x' OR docname = 'y'", ["x", "y"]), ("docname = 'x' OR docname IN ('y', 'z')", ["x", "y", "z"]),
    ("docname = 'x' OR ('y' = docname OR docname = ANY('{z}'))", ["x", "y", "z"]),
    # Several conditions add up.
    ("docname = ANY('{x}') AND docname IN ('y', 'x')", ["x", "y", "x"]),
    ("docname = 'x' AND docname = ANY('{x}')", ["x", "x"]), ("docname = ANY('{}') AND docname = 'x'", ["x"]),
    # A list that is there but empty finds nothing, and asks nothing.
    *[(f"docname = ANY('{array}')", NO_REQUEST) for array in ("{}", "{NULL}", "{{x,y},{z,w}}")],
    # What is not recognised stays with the server, beside what is.
    ("docname = 'x' AND docname LIKE 'x%' AND score IS NULL AND docname <> 'y'", ["x"]),
    *[(clause, NEED) for clause in (
        "true", "docname <> 'x'", "docname LIKE 'x%'", "docname ~ 'x'", "docname IS NULL", "docname > 'x'",
        "NOT (docname = 'x')", "docname = ALL('{x}')", "docname <> ALL('{x}')", "lower(docname) = 'x'",
        "docname || '' = 'x'", "docname = (SELECT 'x' || random())", "docname = ANY(ARRAY(SELECT 'x' || random()))",
        "docname = ANY(ARRAY['x', doctype])", "score = 1", "score = 1 OR doctype IS NULL", "doctype = 'x'")],
    *[(clause, MIXED) for clause in (
        "docname = 'x' OR score = 1", "docname = 'x' OR doctype = 'y'", "docname = 'x' OR docname LIKE 'y%'",
        "docname = 'x' OR (docname = 'y' AND score = 1)", "docname = ANY('{x}') OR docname <> 'y'",
        "param = 'query=q' OR doctype = 'x'", "param = 'query=q' AND (doctype = 'x' OR doctype IS NULL)")],
    *[(f"{column} = {value}", unreadable(column)) for column, value in (
        ("docname", "doctype"), ("docname", "upper(doctype)"), ("docname", "current_setting('application_name')"),
        ("doctype", "docname"), ("param", "current_setting('application_name')"))],
    ("docname = 'x' OR docname = doctype || 'y'", unreadable("docname")),
    # Types go out in the order of their conditions.
    *[("param = 'query=q' AND " + clause, query(types=types)) for clause, types in (
        ("doctype = 'x'", '"x"'), ("doctype IN ('y', 'x') AND doctype IN ('z', 'w')", '"y","x","z","w"'),
        ("(doctype = 'x' OR 'y' = doctype)", '"x","y"'), ("doctype = ANY('{}')", None))],
    ("param = 'query=q' AND doctype <> 'x'", query().replace("false", '"type"')),
    ("param = 'query=a=b'", query("a=b")), ("param = 'query= {} '", query(" {} ")), ("param = 'query='", query("")),
    *[(clause, query().replace(',"_s', ',"highlight":h,"_s')) for clause in (
        "param IN ('query=q', 'highlight=h')", "param = 'highlight=h' OR param = 'query=q'",
        "param = ANY('{query=r,highlight=i,query=q,compressionlevel=1,highlight=h}')")],
    ("param = ANY('{}') AND param = 'query=q'", query()),
    ("param LIKE 'query=q'", NEED), ("param = 'sourceincludefilter=title'", NEED),
    *[(f"param IN ('query=q', 'compressionlevel={level}')", query()) for level in (-2, 9, "abc", "", 4294967301)],
]


def test_clauses(sent):
    outcomes = [(clause, expected, asked(sent(f"SELECT docname FROM books WHERE {clause}")))
                for clause, expected in CLAUSES]
    assert [row for row in outcomes if row[1] != row[2]] == []


# What a prepared statement does when the plan knows the values, and when it has only the parameters.
PREPARED = [
    ("text", "docname = $1", "'x'", ["x"], ["x"]), ("text", "$1 = docname", "'x'", ["x"], ["x"]),
    ("text, text", "docname = $1 OR docname = $2", "'x', 'y'", ["x", "y"], ["x", "y"]),
    ("text, text[]", "docname = $1 OR docname = ANY($2)", "'x', '{y,NULL}'", ["x", "y"], ["x", "y"]),
    ("text[]", "docname = ANY($1)", "'{x,y}'", ["x", "y"], ["x", "y"]),
    ("text[]", "docname = ANY($1)", "'{}'", NO_REQUEST, NO_REQUEST),
    # A list of parameters is an array constructor, which only a plan that knows the values can fold.
    ("text", "docname IN ($1, 'y')", "'x'", ["x", "y"], NEED),
    # The server itself sees that a comparison with a known NULL finds nothing; a parameter is no clause then.
    ("text", "docname = $1", "NULL", NO_REQUEST, NEED), ("text[]", "docname = ANY($1)", "NULL", NEED, NEED),
    ("text, text", "docname = $1 OR docname = $2", "'x', NULL", ["x"], MIXED),
    # Anything but a bare parameter has no value to read.
    ("text", "docname = upper($1)", "'x'", ["X"], unreadable("docname")),
    ("varchar", "docname = $1", "'x'", ["x"], unreadable("docname")),
    ("text[], text", "param = ANY($1) AND doctype = $2", "'{query=q}', 'x'", query(types='"x"'), query(types='"x"')),
    ("text[], text", "param = ANY($1) AND doctype = $2", "'{query=q}', NULL", NO_REQUEST, query()),
]


@pytest.mark.parametrize("signature, clause, values, known, unknown", PREPARED)
def test_parameters(db, sent, signature, clause, values, known, unknown):
    execute = f"EXECUTE p({values})"
    db.run(f"PREPARE p({signature}) AS SELECT docname FROM books WHERE {clause}")
    assert asked(sent(execute)) == known
    db.make_generic(execute)
    assert [asked(sent(execute)) for _ in range(2)] == [unknown, unknown]


def test_toasted_parameters(db, sent):
    """Values that lie compressed, or in pieces, or as an array taken apart are put together again."""
    name = "x" * 10_000
    db.run("""CREATE TEMP TABLE kept AS SELECT repeat('x', 10000) AS one, ARRAY[repeat('x', 10000), 'y'] AS many;
        CREATE FUNCTION pg_temp.found(one text, many text[]) RETURNS SETOF text LANGUAGE plpgsql AS $$
        BEGIN RETURN QUERY SELECT docname FROM books WHERE docname = one OR docname = ANY(many); END $$""")
    db.make_generic("SELECT pg_temp.found('x', '{x}')")
    assert asked(sent("SELECT pg_temp.found(one, many) FROM kept")) == [name, name, "y"]


@pytest.mark.parametrize("columns, select, expected", [
    (COLUMNS.replace("docname text", "docname varchar"), "docname FROM books WHERE docname = 'x'", NEED),
    (COLUMNS.replace("param text", "param varchar"), "docname FROM books WHERE param = 'query=q'", NEED),
    *[(IDS, f"count(*) FROM books WHERE docname = {value}", expected) for value, expected in (
        ("'{x,y}'", ["x", "y"]), ("ARRAY['x', 'y']", ["x", "y"]), ("ARRAY['x', doctype]", NEED))],
    # A column is known by its whole name.
    (COLUMNS.replace("docname", "\"Docname\""), "doctype FROM books WHERE \"Docname\" = 'x'", NEED),
    (OTHER_ID, "docname FROM books WHERE docname2 = 'x'", NEED),
    # The first column of a comparison is the one that it restricts.
    (OTHER_ID, "docname FROM books WHERE docname = 'x' AND body = param", ["x"]),
    (OTHER_ID, "docname FROM books WHERE docname = body", unreadable("docname")),
    # A constant reaches the search through a join, a column of another table does not.
    *[(COLUMNS, "docname FROM (SELECT n::text AS name FROM generate_series(1, 2) n) w JOIN books ON docname = name "
       "WHERE " + clause, expected) for clause, expected in (("name = '1'", ["1"]), ("true", NEED))],
])
def test_columns_and_joins(db, sent, scripted, columns, select, expected):
    db.make_table(columns=columns, port=scripted.port)
    assert asked(sent("SELECT " + select)) == expected


def test_only_what_the_search_does_not_do_is_filtered_here(db):
    plan = [line for (line,) in db.run(
        "EXPLAIN SELECT docname FROM books WHERE docname LIKE '%7' AND docname IN ('x', 'y') AND doctype = 'book' "
        "AND docname LIKE 'b%' AND param = ANY('{}') AND docname LIKE 'c%'")]
    assert plan[0].startswith("Foreign Scan on books  (cost=10000000.00..20000000.00 rows=250000 width=")
    kept = " AND ".join(f"(docname ~~ '{pattern}'::text)" for pattern in ("%7", "b%", "c%"))
    assert [line.strip() for line in plan[1:]] == [f"Filter: ({kept})"]
