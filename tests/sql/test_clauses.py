"""Which conditions of a WHERE clause steer the search, and with what values; the request is the witness."""
import json

import pytest

from conftest import COLUMNS

NEED = ("HV000", "need docname or query clause")
BOTH = ("HV000", "docname and query clause not supported on same select")
LEVEL = ("HV000", "'compressionlevel' should be in range [-2;9]")
MIXED = ("HV000", "inconsistant OR clause")
ONE_PARAM = ("HV000", "need only one param clause")
QUERY = "param = 'query=\"q\"'"
NO_REQUEST = []


def unreadable(column):
    return ("HV000", f"fail to extract clause of type N for {column}")


def ids(outcome):
    """The ids that the requests of an outcome look up, or the error or empty list that it is."""
    if isinstance(outcome, tuple) or not outcome:
        return outcome
    return [name for body in outcome for name in json.loads(body)["query"]["terms"]["_id"]]


def types(outcome):
    """The document types that the only request of an outcome filters on, None without a filter; or the error."""
    if isinstance(outcome, tuple):
        return outcome
    (body,) = outcome
    query = json.loads(body)["query"]
    return sorted(query["bool"]["filter"]["terms"]["type"]) if isinstance(query, dict) else None


DOCNAME = [
    ("docname = 'x'", ["x"]),
    ("'x' = docname", ["x"]),
    ("docname = ''", [""]),
    ("docname IN ('x', 'y')", ["x", "y"]),
    ("docname IN ('x', NULL)", ["x"]),
    ("docname IN ('y', 'x', 'y')", ["y", "x", "y"]),
    ("docname = ANY('{x,y}')", ["x", "y"]),
    ("docname = ANY('{x,NULL,y}')", ["x", "y"]),
    ("docname = ANY('[7:8]={x,y}')", ["x", "y"]),
    ("docname = 'x' OR docname = 'y'", ["x", "y"]),
    ("docname = 'x' OR docname IN ('y', 'z')", ["x", "y", "z"]),
    ("docname = 'x' OR ('y' = docname OR docname = ANY('{z}'))", ["x", "y", "z"]),
    # Several conditions add up.
    ("docname = ANY('{x}') AND docname IN ('y', 'x')", ["x", "y", "x"]),
    ("docname = 'x' AND docname = ANY('{x}')", ["x", "x"]),
    ("docname = ANY('{}') AND docname = 'x'", ["x"]),
    # A list that is there but empty finds nothing, and asks nothing.
    *[(f"docname = ANY('{array}')", NO_REQUEST) for array in ("{}", "{NULL}", "{{x,y},{z,w}}")],
    # What is not recognised stays with the server, beside what is.
    ("docname = 'x' AND docname LIKE 'x%' AND score IS NULL AND docname <> 'y'", ["x"]),
    *[(clause, NEED) for clause in (
        "true", "docname <> 'x'", "docname LIKE 'x%'", "docname ~ 'x'", "docname IS NULL", "docname > 'x'",
        "NOT (docname = 'x')", "docname = ALL('{x}')", "docname <> ALL('{x}')", "lower(docname) = 'x'",
        "docname || '' = 'x'", "docname = (SELECT 'x' || random())",
        "docname = ANY(ARRAY(SELECT 'x' || random()))", "docname = ANY(ARRAY['x', doctype])", "score = 1",
        "score = 1 OR doctype IS NULL", "doctype = 'x'")],
    *[(clause, MIXED) for clause in (
        "docname = 'x' OR score = 1", "docname = 'x' OR doctype = 'y'", "docname = 'x' OR docname LIKE 'y%'",
        "docname = 'x' OR (docname = 'y' AND score = 1)", "docname = ANY('{x}') OR docname <> 'y'")],
    *[(clause, unreadable("docname")) for clause in (
        "docname = doctype", "docname = upper(doctype)", "docname = current_setting('application_name')",
        "docname = 'x' OR docname = doctype || 'y'")],
    ("doctype = docname", unreadable("doctype")),
    ("param = current_setting('application_name')", unreadable("param")),
]


def wrong(sent, table, shown):
    """The rows of a table of clauses whose outcome is not shown to be the expected one."""
    outcomes = ((clause, expected, shown(sent(f"SELECT docname FROM books WHERE {clause}")))
                for clause, expected in table)
    return [row for row in outcomes if row[1] != row[2]]


def test_docname_clauses(sent):
    assert wrong(sent, DOCNAME, ids) == []


DOCTYPE = [
    ("true", None),
    ("doctype = 'x'", ["x"]),
    ("doctype IN ('x', 'y') AND 'z' = doctype", ["x", "y", "z"]),
    ("doctype = 'x' OR doctype = 'y'", ["x", "y"]),
    ("doctype = ANY('{}')", None),
    ("doctype <> 'x'", None),
    ("doctype = 'x' OR doctype IS NULL", MIXED),
]


def test_doctype_clauses(sent):
    assert wrong(sent, [(f"{QUERY} AND ({clause})", expected) for clause, expected in DOCTYPE], types) == []


PARAM = [
    ("param = 'query=a=b'", '"query":a=b,"size":100'),
    ("param = 'query= {} '", '"query": {} ,"size":100'),
    ("param = 'query='", '"query":,"size":100'),
    ("param IN ('query=q', 'highlight=h')", '"query":q,"size":100,"highlight":h'),
    ("param = 'highlight=h' OR param = 'query=q'", '"query":q,"size":100,"highlight":h'),
    ("param = ANY('{query=q,highlight=h,query=r,highlight=i,compressionlevel=1}')",
     '"query":r,"size":100,"highlight":i'),
    ("param = ANY('{}') AND param = 'query=q'", '"query":q,"size":100'),
    ("param = 'query=q' AND param IN ('query=r', 'highlight=h')", ONE_PARAM),
    ("param = 'query=q' OR doctype = 'x'", MIXED),
    ("param LIKE 'query=q'", NEED),
    ("param = 'highlight=h'", ("HV000", "'highlight' param could only be used with 'query' param")),
    ("param = 'sourceincludefilter=title'", NEED),
    ("param IN ('query=q') AND docname = 'x'", BOTH),
    ("param IN ('query=q') AND docname = ANY('{}')", BOTH),
    ("param = 'Query=x'", ("HV000", "Unknown fdw param Query=x ")),
    ("param = ' query=x'", ("HV000", "Unknown fdw param  query=x ")),
    ("param = '=x'", ("HV000", "Unknown fdw param =x ")),
    ("param IN ('query=q', 'size')", ("HV000", "Malformed fdw param size ")),
    ("param = ''", ("HV000", "Malformed fdw param  ")),
    *[(f"param IN ('query=q', 'compressionlevel={level}')", expected) for level, expected in (
        *[(level, LEVEL) for level in (-3, 10, 2147483648)],
        *[(level, '"query":q,"size":100') for level in (-2, 9, "abc", "", 4294967301)])],
]


def test_param_clauses(sent):
    table = [(clause, expected if isinstance(expected, tuple) else ["{" + expected + ',"_source":false}'])
             for clause, expected in PARAM]
    assert wrong(sent, table, lambda outcome: outcome) == []


# What a prepared statement does when the plan knows the values, and when it has only the parameters.
PREPARED = [
    ("text", "docname = $1", "'x'", ["x"], ["x"]),
    ("text", "$1 = docname", "'x'", ["x"], ["x"]),
    ("text, text", "docname = $1 OR docname = $2", "'x', 'y'", ["x", "y"], ["x", "y"]),
    ("text, text[]", "docname = $1 OR docname = ANY($2)", "'x', '{y,NULL}'", ["x", "y"], ["x", "y"]),
    ("text[]", "docname = ANY($1)", "'{x,y}'", ["x", "y"], ["x", "y"]),
    ("text[]", "docname = ANY($1)", "'{}'", NO_REQUEST, NO_REQUEST),
    # A list of parameters is an array constructor, which only a plan that knows the values can fold.
    ("text", "docname IN ($1, 'y')", "'x'", ["x", "y"], NEED),
    # The server itself sees that a comparison with a known NULL finds nothing; a parameter is no clause then.
    ("text", "docname = $1", "NULL", NO_REQUEST, NEED),
    ("text[]", "docname = ANY($1)", "NULL", NEED, NEED),
    ("text, text", "docname = $1 OR docname = $2", "'x', NULL", ["x"], MIXED),
    # Anything but a bare parameter has no value to read.
    ("text", "docname = upper($1)", "'x'", ["X"], unreadable("docname")),
    ("varchar", "docname = $1", "'x'", ["x"], unreadable("docname")),
]


@pytest.mark.parametrize("signature, clause, values, known, unknown", PREPARED)
def test_parameters(db, sent, signature, clause, values, known, unknown):
    db.run(f"PREPARE p({signature}) AS SELECT docname FROM books WHERE {clause}")
    for mode, times, expected in (("auto", 7, (known, unknown)), ("force_generic_plan", 2, (unknown,)),
                                  ("force_custom_plan", 2, (known,))):
        if not db.set("plan_cache_mode", mode) and mode != "auto":
            continue  # an old server runs generic plans from the sixth execution on
        outcomes = [ids(sent(f"EXECUTE p({values})")) for _ in range(times)]
        assert all(outcome in expected for outcome in outcomes) and outcomes[0] == expected[0], (mode, outcomes)


def test_parameters_of_param_and_doctype(db, sent):
    db.run("PREPARE p(text[], text) AS SELECT docname FROM books WHERE param = ANY($1) AND doctype = $2")
    db.make_generic("EXECUTE p('{query=q}', 'x')")
    for doctype, expected in (("'x'", ["x"]), ("NULL", None)):
        assert types(sent(f"""EXECUTE p('{{"query=\\"q\\""}}', {doctype})""")) == expected
    assert sent("EXECUTE p('{size}', 'x')") == ("HV000", "Malformed fdw param size ")


def test_constants_reach_the_search_through_a_join(db, sent):
    db.run("CREATE TEMP TABLE wanted AS SELECT 'x'::text AS name")
    assert ids(sent("SELECT docname FROM wanted JOIN books ON docname = name WHERE name = 'x'")) == ["x"]
    assert sent("SELECT docname FROM wanted JOIN books ON docname = name") == NEED


@pytest.mark.parametrize("columns, select, clause, expected", [
    (COLUMNS.replace("docname text", "docname varchar"), "docname", "docname = 'x'", NEED),
    (COLUMNS.replace("param text", "param varchar"), "docname", "param = 'query=q'", NEED),
    (COLUMNS.replace("docname text", "docname text[]"), "count(*)", "docname = '{x,y}'", ["x", "y"]),
    (COLUMNS.replace("docname text", "docname text[]"), "count(*)", "docname = ARRAY['x', 'y']", ["x", "y"]),
    (COLUMNS.replace("docname", "\"Docname\""), "doctype", "\"Docname\" = 'x'", NEED),
    # The first column of a comparison is the one that it restricts.
    (COLUMNS + ", body text", "docname", "docname = 'x' AND body = param", ["x"]),
    (COLUMNS + ", body text", "docname", "docname = body", unreadable("docname")),
])
def test_column_types(db, sent, scripted, columns, select, clause, expected):
    db.make_table(columns=columns, port=scripted.port)
    assert ids(sent(f"SELECT {select} FROM books WHERE {clause}")) == expected


def test_only_what_the_search_does_not_do_is_filtered_here(db):
    db.set("jit", "off")
    plan = [line for (line,) in db.run("EXPLAIN SELECT docname FROM books WHERE docname IN ('x', 'y') AND "
                                       "doctype = 'book' AND param = ANY('{}') AND docname LIKE '%7'")]
    assert plan[0].startswith("Foreign Scan on books  (cost=10000000.00..20000000.00 rows=250000 width=")
    assert [line.strip() for line in plan[1:]] == ["Filter: (docname ~~ '%7'::text)"]
