"""Fields of a source as columns: what their values become, what does not fit, and what the search is asked."""
import json

import psycopg2
import pytest

from conftest import bodies
from scriptedserver import hits, named, response
from test_search_wrapper import agrees, docs, report  # noqa: F401  (docs is a fixture)

MOOD = ("DROP TYPE IF EXISTS mood CASCADE; CREATE TYPE mood AS ENUM ('glad', 'sad'); "
        "DROP DOMAIN IF EXISTS small CASCADE; CREATE DOMAIN small AS int CHECK (VALUE < 10); "
        "DROP DOMAIN IF EXISTS smalls CASCADE; CREATE DOMAIN smalls AS small[]")
EPOCH = "OPTIONS (format 'epoch_millis')"
# (type, what the source has beside other members, the column's value as text; None: NULL)
VALUES = [
    *[("text", value, text) for value, text in [
        ('"v":"x"', "x"), ('"v":"\\u00e9\\ud83d\\ude00\\n"', "\u00e9\U0001f600\n"), ('"v":-150', "-150"),
        ('"v":"1.50"', "1.50"), ('"v":true', "true"),
        ('"v":["x"]', "x"), ('"v":[[],[["x"]],null]', "x"), ('"v":[]', None), ('"v":null', None), ('"w":1', None),
        ('"v":""', ""),
        ('"a":{"v":1},"b":[{"v":2}]', None), ('"\\u0076":"named"', "named")]],
    ("varchar(2)", '"v":"\u00e9\u00e9"', "\u00e9\u00e9"), ("mood", '"v":"sad"', "sad"), ("small", '"v":9', "9"),
    *[("int", value, text) for value, text in [
        ('"v":-2147483648', "-2147483648"), ('"v":"12"', "12"), ('"v":5.0', "5"), ('"v":1e3', "1000"),
        ('"v":[7]', "7")]],
    ("bigint", '"v":9223372036854775807', "9223372036854775807"),
    ("bigint", '"v":9007199254740991.0', "9007199254740991"),
    ("smallint", '"v":-32768', "-32768"), ("real", '"v":"1.5e1"', "15"), ("float8", '"v":0.1', "0.1"),
    ("numeric", '"v":18446744073709551615', "18446744073709551615"), ("numeric(5,1)", '"v":1.25', "1.3"),
    ("bool", '"v":"false"', "false"), ("bool", '"v":""', "false"), ("bool", '"v":[true]', "true"),
    ("uuid", '"v":"A0EEBC99-9C0B-4EF8-BB6D-6BB9BD380A11"', "a0eebc99-9c0b-4ef8-bb6d-6bb9bd380a11"),
    ("inet", '"v":"::FFFF:1.2.3.4"', "::ffff:1.2.3.4/128"),
    *[("timestamptz", f'"v":"{value}"', text) for value, text in [
        ("2024", "2024-01-01 00:00:00+00"), ("2024-02", "2024-02-01 00:00:00+00"),
        ("0000-02-29", "0001-02-29 00:00:00+00 BC"),
        ("2024-02-29T23", "2024-02-29 23:00:00+00"), ("2024-02-29T23:59Z", "2024-02-29 23:59:00+00"),
        ("2024-02-29T23:59:59.1234569+0530", "2024-02-29 18:29:59.123456+00"),
        ("9999-12-31T23:59:59,999-18", "10000-01-01 17:59:59.999+00"),
        ("1900-03-01T00:00:00.5+01:30", "1900-02-28 22:30:00.5+00"), ("1582-10-10", "1582-10-10 00:00:00+00")]],
    ("timestamp(0)", '"v":"1969-12-31T23:59:59.5"', "1969-12-31 23:59:59"),
    ("date", '"v":"1969-12-31T23:59:59.9"', "1969-12-31"),
    ("date", '"v":"2024-01-01T01:00+02:00"', "2023-12-31"),
    (f"timestamptz {EPOCH}", '"v":-1', "1969-12-31 23:59:59.999+00"),
    (f"timestamptz {EPOCH}", '"v":"1700000000000.25"', "2023-11-14 22:13:20.00025+00"),
    (f"date {EPOCH}", '"v":-0.001', "1969-12-31"),
    (f"timestamptz {EPOCH}", '"v":"2024-01-01"', "2024-01-01 00:00:00+00"),
    ("timestamptz OPTIONS (format 'epoch_second')", '"v":1.5', "1970-01-01 00:00:01.5+00"),
    *[("jsonb", value, text) for value, text in [
        ('"v":{"a":[1,null]}', '{"a": [1, null]}'), ('"v":"x"', '"x"'), ('"v":[null]', "[null]"),
        ('"v":null', None)]],
    *[("text[]", value, text) for value, text in [
        ('"v":"x"', "{x}"), ('"v":["a",["b",null],[[1]]]', "{a,b,NULL,1}"), ('"v":[]', "{}"), ('"v":null', None),
        ('"w":1', None)]],
    ("smalls", '"v":[1,9]', "{1,9}"), ("jsonb[]", '"v":[{"a":1},"x",null]', '{"{\\"a\\": 1}","\\"x\\"",NULL}'),
    ("timestamptz[]", '"v":["2024","2025"]', '{"2024-01-01 00:00:00+00","2025-01-01 00:00:00+00"}'),
    *[("int[] OPTIONS (field 'a.b.c')", value, text) for value, text in [
        ('"a":{"b":{"c":1}}', "{1}"), ('"a.b.c":1', "{1}"), ('"a.b":{"c":1},"a":{"b.c":2}', "{1,2}"),
        ('"a":[{"b":{"c":1}},{"b":[{"c":[2,3]},{"d":4}]},5]', "{1,2,3}"), ('"a":{"b":7}', None)]],
    ("jsonb OPTIONS (field 'a.b')", '"a":[{"b":1},{"b":{"c":2}}]', '[1, {"c": 2}]')]
BAD = [
    *[("int", value, reason) for value, reason in [
        ("1099511627776", "out of the range"), ("5.7", "a whole number"), ('"abc"', "a whole number"),
        ('""', "a whole number"), ("true", "a whole"),
        ("[1,2]", "there are several values"), ("{}", "this is an object"), ("1e19", "out of the range"),
        ("99999999999999999999", "out of the range")]],
    ("bigint", "9007199254740993.0", "out of the range"), ("smallint", "32768", "out of the range"),
    ("float8", '"NaN"', "a number is needed"),
    ("float8", "1e999", '"1e999" is out of range'), ("numeric(3,1)", "100", "numeric field overflow"),
    ("bool", "1", "true or false"),
    *[("text", number, "no text") for number in ("1.50", "1e3", "-0", "0.0")],
    ("varchar(2)", '"abc"', "longer than"), ("varchar(2)", '"ab "', "longer than"),
    ("text", '"\\ud800"', "not valid Unicode"), ("text", '"\\u0000"', "0x00"),
    ("mood", '"angry"', "invalid input value for enum"), ("uuid", '"x"', "invalid input syntax for type uuid"),
    ("inet", "1", "invalid input syntax for type inet"),
    *[("timestamptz", value, "a date of ISO 8601") for value in [
        '"now"', '"2024-1-1"', '"2024-02-30"', '"2023-02-29"', '"2024-01-01 10:00"', '"2024-01-01T24:00"',
        '"2024-01-01T10:60"', '"24-01-01"', '" 2024"',
        '"2024-13"', '"2024-01-01T10:00+19:00"', '"2024-01-01T10:00 UTC"', '"2024-01-01T"', '"infinity"',
        '"2024-01-01T10:00:00."']],
    ("timestamptz", "1700000000000", 'the option "format"'),
    (f"date {EPOCH}", '"x"', "a number of the column's format"),
    (f"timestamptz {EPOCH}", "1e99", "a number of the column's format"),
    (f"timestamptz {EPOCH}", "9223372036854775807", "a number of"), ("text[]", '["a",{}]', "this is an object"),
    ("int[]", '["a"]', "a whole number"),
    ("jsonb", '"\\u0000"', "unsupported Unicode escape sequence"), ("int[]", "[1 2]", "it is malformed"),
    ("int", "[1,]", "it is malformed")]


@pytest.fixture
def one_field(docs, scripted):
    """A function that has one document with the source given shown by a column of the declaration."""
    docs.make_documents(scripted.port)
    docs.run(MOOD + "; SET timezone = 'Asia/Tokyo'; SET datestyle = 'German'")

    def make(declaration, source, **options):
        docs.make(f"v {declaration}, docname text", **options)
        scripted.script = response(hits('"_index":"i","_id":"a","_source":{"u":1,%s,"z":[]}' % source))

    docs.one_field = make
    yield docs
    docs.run("RESET timezone; RESET datestyle")


def shown(docs):
    """The column's value, read by a session in another zone and style."""
    docs.run("CREATE TEMP TABLE read_values AS SELECT v FROM docs; SET timezone = 'UTC'; SET datestyle = 'ISO'")
    found = docs.value("SELECT v::text FROM read_values")
    docs.run("DROP TABLE read_values; SET timezone = 'Asia/Tokyo'; SET datestyle = 'German'")
    return found


def test_values(one_field):
    for declaration, source, expected in VALUES:
        one_field.one_field(declaration, source)
        assert shown(one_field) == expected, (declaration, source)


def test_values_that_do_not_fit(one_field):
    for declaration, value, reason in BAD:
        one_field.one_field(declaration, f'"v":{value}')
        assert one_field.outcome("SELECT v FROM docs")[0] == "22000", (declaration, value)
        found = report(one_field, "SELECT v FROM docs")
        assert agrees(found, ("22000", 'a value of the field "v" does not fit the column "v" of type ',
                              f"Index i, id a, value {value}: ", "badvalues")), (declaration, value, found)
        assert reason in found[2], (declaration, value)
        assert one_field.run("SELECT docname FROM docs") == [("a",)]  # whoever does not look is not told
        one_field.one_field(declaration, f'"v":{value}', badvalues="null")
        assert one_field.run("SELECT v, docname FROM docs") == [(None, "a")], (declaration, value)


def test_constraints_hold_beside_bad_values(one_field):
    """NOT NULL and the checks of domains are no matter of fitting."""
    for declaration, value, expected in [
            ("int NOT NULL", '"x"', ("23502", 'null value in column "v"')),
            ("small", "10", ("23514", "value for domain small")),
            ("smalls", "[1,10]", ("23514", "value for domain small")),
            ("text NOT NULL", "null", ("23502", 'null value in column "v"'))]:
        one_field.one_field(declaration, f'"v":{value}', badvalues="null")
        assert agrees(report(one_field, "SELECT v FROM docs"), (*expected, "", "")), declaration


def test_sources(one_field, scripted):
    """What a request asks of the source, and what a document without one, or with filters, leads to."""
    one_field.make("v int, w int OPTIONS (field 'a.b'), v2 text OPTIONS (field 'v'), doctype text, doccontent jsonb, "
                   "param text")
    whole = '"_id":"a","_source":{"v":1,"a":{"b":2},"type":"t"}'
    scripted.script = response(hits(whole))
    for columns, values, source in [("v", (1,), {"includes": ["v"]}),
    ("w, v, v2", (2, 1, "1"), {"includes": ["a.b", "v"]}),
                                    ("doctype, w", ("t", 2), {"includes": ["a.b", "type"]}),
                                    ("v, doccontent->'a'->'b'", (1, 2), True), ("param", (None,), False)]:
        scripted.requests.clear()
        assert one_field.run(f"SELECT {columns} FROM docs") == [values]
        assert json.loads(scripted.requests[0].body)["_source"] == source, columns
    assert report(one_field, "SELECT v, doccontent FROM docs WHERE param = 'sourceincludefilter=v'")[1] == (
        'source filters shape "doccontent" and would shape "v" too')
    scripted.script = response(hits('"_id":"a","_source":[{"v":1}]'))
    assert report(one_field, "SELECT v FROM docs")[1] == "the source of a document is no valid JSON object"
    scripted.script = response(hits(*named("a")))
    assert agrees(report(one_field, "SELECT v FROM docs"),
    ("HV000", "a document comes without its source", "id a", "_source"))
    for broken in ('{"v":[1,}', '{"v":{"x"}', '{"v":tru}', '{"v":01}'):
        scripted.script = response(hits('"_index":"i","_id":"a","_source":%s}' % broken))
        with pytest.raises(psycopg2.Error, match="cannot be read|does not fit"):
            one_field.run("SELECT v FROM docs")


# ---- what the search is asked -------------------------------------------------------------------------------

COLUMNS = """docname text, param text, doctype text OPTIONS (search 'keyword'), plain int,
    k text OPTIONS (search 'keyword', ignoreabove '5'), t varchar OPTIONS (search 'keyword', searchfield 't.raw'),
    m mood OPTIONS (search 'keyword'), i int OPTIONS (search 'integer'), b smallint OPTIONS (search 'byte'),
    u numeric OPTIONS (search 'unsigned_long'), d float8 OPTIONS (search 'double'),
    s numeric(9,2) OPTIONS (search 'scaled_float', scalingfactor '100'), h real OPTIONS (search 'half_float'),
    flag bool OPTIONS (search 'boolean'), ts timestamptz OPTIONS (field 'at', search 'date'),
    ts0 timestamp(0) OPTIONS (field 'at', search 'date'), day date OPTIONS (field 'at', search 'date'),
    ip inet OPTIONS (search 'ip'), ks text[] OPTIONS (field 'k', search 'keyword', ignoreabove '5'),
    ns int[] OPTIONS (field 'i', search 'integer'), n float8 OPTIONS (field 'i', search 'integer'),
    wrong int OPTIONS (search 'keyword')"""


def terms(field, *values):
    return {"terms": {field: list(values)}}


def between(field, low=None, high=None, **more):
    bounds = {"gte": low, "lte": high, **more}
    return {"range": {field: {name: value for name, value in bounds.items() if value is not None}}}


def any_of(*filters):
    return {"bool": {"should": list(filters), "minimum_should_match": 1}}


def dates(field, low, high=None):
    return between(field, low, high, format="strict_date_optional_time")


NOTHING, EVERYTHING = "nothing", []
FILTERS = [
    ("k = 'abc'", [terms("k", "abc")]), ("'abc' = k", [terms("k", "abc")]),
    ("k IN ('a', 'b', NULL)", [terms("k", "a", "b")]),
    ("k = 'abcdef'", EVERYTHING), ("k = '\U0001f600\U0001f600\u00e9'", [terms("k", "\U0001f600\U0001f600\u00e9")]),
    ("k = '\U0001f600\U0001f600ab'", EVERYTHING), ("k IN ('a', 'abcdef')", EVERYTHING), ("k > 'a'", EVERYTHING),
    ("k <> 'a'", EVERYTHING),
    ("k LIKE 'a%%'", EVERYTHING), ("k IS NULL", EVERYTHING), ("k = NULL::text", NOTHING),
    ("k COLLATE \"C\" = 'a'", [terms("k", "a")]),
    ("t = 'x'", [terms("t.raw", "x")]), ("m = 'sad'", [terms("m", "sad")]), ("m > 'glad'", EVERYTHING),
    ("m IN ('sad', 'glad')", [terms("m", "sad", "glad")]),
    ("doctype = 'a' AND k = 'b'", [terms("type", "a"), terms("k", "b")]),
    ("doctype = 'a' OR k = 'b'", [any_of(terms("type", "a"), terms("k", "b"))]),
    ("i = 5", [terms("i", 5)]), ("i = 5::bigint", [terms("i", 5)]), ("i < 5", [between("i", high=5)]),
    ("5 < i", [between("i", 5)]),
    ("i BETWEEN 3 AND 5", [between("i", 3), between("i", high=5)]), ("i = 3000000000", EVERYTHING),
    ("i IN (1, 3000000000)", EVERYTHING),
    ("b >= 128", EVERYTHING), ("b >= -128", [between("b", -128)]), ("i + 1 = 5", EVERYTHING),
    ("i = plain", EVERYTHING), ("wrong = 1", EVERYTHING),
    ("i = (random() * 5)::int", EVERYTHING), ("i = (SELECT 4)", [terms("i", 4)]), ("i = 5.5::float8", EVERYTHING),
    ("n = 5", [between("i", 3, 7)]), ("n > 5.5", EVERYTHING), ("n < 'NaN'", EVERYTHING),
    ("n >= 2147483647", [between("i", 2147483645)]),
    ("n <= 2147483647", EVERYTHING), ("u > 18446744073709551615", EVERYTHING), ("u <= 0", [between("u", high=1)]),
    ("u >= 0", EVERYTHING), ("u = -1", EVERYTHING),
    ("s = 5", [between("s", 4.98, 5.02)]), ("s >= 5", [between("s", 4.98)]), ("h = 8", [between("h", 7.99, 8.01)]),
    ("h > 65504", [between("h", 65440.0)]),
    ("h < 70000", EVERYTHING), ("d = 'Infinity'", EVERYTHING), ("d = 4", [between("d", 4.0, 4.0)]),
    ("d = ANY (ARRAY[1, 2, NULL]::float8[])", [any_of(between("d", 1.0, 1.0), between("d", 2.0, 2.0))]),
    ("d IN (SELECT 1)", [between("d", 1.0, 1.0)]), ("flag", [terms("flag", True)]),
    ("NOT flag", [terms("flag", False)]), ("flag = true", [terms("flag", True)]),
    ("flag IS TRUE", EVERYTHING), ("(flag OR i = 1)", [any_of(terms("flag", True), terms("i", 1))]),
    ("(flag OR plain = 1)", EVERYTHING),
    ("(flag AND plain = 1 OR i = 2)", [any_of(terms("flag", True), terms("i", 2))]),
    ("NOT (flag AND i = 1)", EVERYTHING),
    ("NOT (flag OR i <> 1)", [terms("flag", False), terms("i", 1)]),
    ("(i = 1 OR docname = 'x')", [any_of(terms("i", 1), {"ids": {"values": ["x"]}})]),
    ("(i = 1 OR i = NULL::int)", [terms("i", 1)]), ("(k = 'abcdef' OR i = 1)", EVERYTHING),
    ("ts >= '2024-01-02 03:04:05.6789Z'", [dates("at", "2024-01-02T03:04:05.677Z")]),
    ("ts = '1969-12-31 23:59:59.9995Z'", [dates("at", "1969-12-31T23:59:59.998Z", "1970-01-01T00:00:00.000Z")]),
    ("ts < date '2024-01-02'", [dates("at", None, "2024-01-01T15:00:00.001Z")]),
    ("ts < timestamp '2024-01-02 09:00'", [dates("at", None, "2024-01-02T00:00:00.001Z")]),
    ("ts < 'infinity'", EVERYTHING), ("ts < date '5000000-01-01'", EVERYTHING),
    ("ts < timestamp '294276-12-31 23:59:59'", EVERYTHING),
    ("ts > '10000-01-01Z'", EVERYTHING), ("ts > '0044-03-15 BC'", EVERYTHING),
    ("ts0 < timestamptz '2024-01-02Z'", EVERYTHING),
    ("ts0 = '2024-01-02'", [dates("at", "2024-01-01T23:59:59.000Z", "2024-01-02T00:00:01.000Z")]),
    ("day = '2024-02-29'", [dates("at", "2024-02-28T23:59:59.999Z", "2024-03-01T00:00:00.000Z")]),
    ("day > '2024-02-29'", [dates("at", "2024-02-28T23:59:59.999Z")]),
    ("day <= timestamp '2024-02-29 12:00'", [dates("at", None, "2024-03-01T12:00:00.000Z")]),
    ("day < 'infinity'", EVERYTHING), ("day < now()", EVERYTHING),
    ("ip = '10.0.0.1'", [terms("ip", "10.0.0.1")]), ("ip IN ('::1', '10.0.0.1')", [terms("ip", "::1", "10.0.0.1")]),
    ("ip = '10.0.0.0/8'", EVERYTHING),
    ("ip < '10.0.0.1'", EVERYTHING), ("ip << '10.0.0.0/8'", EVERYTHING),
    ("ks @> ARRAY['a', 'b']", [{"bool": {"filter": [terms("k", "a"), terms("k", "b")]}}]),
    ("ARRAY['a'] <@ ks", [terms("k", "a")]), ("ks && ARRAY['a', 'b', NULL]", [terms("k", "a", "b")]),
    ("ks @> ARRAY['a', NULL]", NOTHING),
    ("ks @> '{}'", EVERYTHING), ("ks && '{}'", NOTHING), ("ks <@ ARRAY['a']", EVERYTHING),
    ("ks = ARRAY['a']", EVERYTHING), ("'a' = ANY (ks)", [terms("k", "a")]),
    ("'a' = ALL (ks)", EVERYTHING), ("7 = ANY (ns)", [terms("i", 7)]), ("7 > ANY (ns)", EVERYTHING),
    ("ns && ARRAY[1, 3000000]", [terms("i", 1, 3000000)])]


def close(found, expected):
    """Whether two filters are the same but for what a bound is widened by."""
    if isinstance(expected, dict):
        return found.keys() == expected.keys() and all(close(found[key], expected[key]) for key in expected)
    if isinstance(expected, list):
        return len(found) == len(expected) and all(map(close, found, expected))
    if isinstance(expected, float):
        expected = pytest.approx(expected, rel=1e-5, abs=0.0101)
    return found == expected


def test_filters(docs, search):
    """Each condition as the search is given it; or it is not, and PostgreSQL alone checks it."""
    docs.run(MOOD + "; SET timezone = 'Asia/Tokyo'")
    docs.make(COLUMNS)
    for condition, expected in FILTERS:
        search.take_journal()
        docs.run(f"SELECT docname FROM docs WHERE {condition}")
        asked = [body["query"]["bool"].get("filter", []) for body in map(json.loads, bodies(search))
                 if "query" in body]
        expected = [] if expected == NOTHING else [expected]
        assert close(asked, expected), (condition, asked)
    for condition in ("(param = 'query={}' AND i = 5) OR i = 7",
                      "i = 5 AND (k = 'a' OR i = 7 AND param = 'query={}')"):
        assert report(docs, f"SELECT docname FROM docs WHERE {condition}")[:2] == (
            "0A000", 'a condition on "param" cannot be given to the search'), condition
    docs.run("RESET timezone")
