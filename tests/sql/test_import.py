"""IMPORT FOREIGN SCHEMA: the tables, columns and options that mappings lead to, whatever is in them."""
import json
import re
from random import Random

import pytest

from conftest import SearchServer, memory, new_database
from scriptedserver import endless, response
from test_search_server import ask, send

TIMESTAMPTZ = "timestamp with time zone"
KEYWORD = {"search": "keyword"}
DATE = {"search": "date"}


def keyword(**more):
    return {"type": "keyword", **more}


def text(*parts):
    return {"type": "text", "fields": dict(parts)}


def date(form, kind="date", **more):
    return {"type": kind, "format": form, **more}


def unindexed(**more):
    return {"type": "keyword", "index": False, **more}


# {field: (its definition, the type of its column or None, the column's options)}; a field of objects is in two parts.
FIELDS = {
    "keyword": (keyword(), "text", KEYWORD),
    "keyword_bound": (keyword(ignore_above=10, copy_to=["text"]), "text", {**KEYWORD, "ignoreabove": "10"}),
    "keyword_null": (keyword(null_value="none"), "text", {}),
    "keyword_normalized": (keyword(normalizer="lowercase"), "text", {}),
    "keyword_unindexed": (unindexed(), "text", {}),
    "text": ({"type": "text"}, "text", {}),
    "text_parts": (text(("first", keyword()), ("keyword", keyword(ignore_above=256))), "text",
                   {**KEYWORD, "searchfield": "text_parts.keyword", "ignoreabove": "256"}),
    "text_first": (text(("words", {"type": "text"}), ("raw", keyword()), ("raw2", keyword(ignore_above=2))), "text",
                   {**KEYWORD, "searchfield": "text_first.raw"}),
    "text_bad_parts": (text(("keyword", keyword(normalizer="lowercase")), ("raw", unindexed())), "text", {}),
    "text_number": (text(("number", {"type": "long"})), "text", {}),
    **{kind: ({"type": kind}, "text", {}) for kind in (
        "wildcard", "version", "match_only_text", "search_as_you_type", "binary")},
    **{kind: ({"type": kind}, column, {"search": kind}) for kind, column in {
        "byte": "smallint", "short": "smallint", "integer": "integer", "long": "bigint", "unsigned_long": "numeric",
        "half_float": "real", "float": "real", "double": "double precision", "boolean": "boolean",
        "ip": "inet"}.items()},
    "scaled": ({"type": "scaled_float", "scaling_factor": 100.0}, "numeric",
               {"search": "scaled_float", "scalingfactor": "100.0"}),
    "long_uncoerced": ({"type": "long", "coerce": False}, "bigint", {"search": "long"}),
    "long_unindexed": ({"type": "long", "index": False}, "bigint", {}),
    "long_ignoring": ({"type": "long", "ignore_malformed": True}, "bigint", {}),
    "long_null": ({"type": "long", "null_value": 0}, "bigint", {}),
    **{kind: ({"type": kind}, "jsonb", {}) for kind in (
        "flattened", "geo_point", "geo_shape", "point", "shape", "integer_range", "date_range", "ip_range",
        "histogram", "dense_vector", "rank_feature", "rank_features")},
    "nested": ({"type": "nested", "properties": {"name": keyword()}}, "jsonb", {}),
    "opaque": ({"type": "object", "enabled": False}, "jsonb", {}),
    "vacant": ({"type": "object"}, "jsonb", {}),
    "object.name": (keyword(), "text", KEYWORD),
    "object.inner.number": ({"type": "integer"}, "integer", {"search": "integer"}),
    "date": ({"type": "date"}, TIMESTAMPTZ, DATE),
    "date_default": (date("strict_date_optional_time||epoch_millis"), TIMESTAMPTZ, DATE),
    "date_strict": (date("strict_date_optional_time"), TIMESTAMPTZ, DATE),
    "date_lenient": (date("date_optional_time||epoch_millis"), TIMESTAMPTZ, {}),
    "date_time": (date("strict_date_time"), TIMESTAMPTZ, {}),
    "date_no_millis": (date("strict_date_time_no_millis"), TIMESTAMPTZ, {}),
    "date_local": (date("strict_date_optional_time", locale="de"), TIMESTAMPTZ, {}),
    "date_millis": (date("epoch_millis"), TIMESTAMPTZ, {"format": "epoch_millis", **DATE}),
    "date_seconds": (date("epoch_second"), TIMESTAMPTZ, {"format": "epoch_second", **DATE}),
    "date_seconds_millis": (date("epoch_second||epoch_millis"), "text", {}),
    "day": (date("yyyy-MM-dd"), "date", DATE),
    "day_strict": (date("strict_date"), "date", DATE),
    "day_lenient": (date("date"), "date", {}),
    "day_millis": (date("yyyy-MM-dd||epoch_millis"), "text", {}),
    "date_other": (date("dd/MM/yyyy"), "text", {}),
    "date_nanos": ({"type": "date_nanos"}, TIMESTAMPTZ, {}),
    # What has another name than its path.
    "score": ({"type": "float"}, "real", {"search": "float"}),
    "ctid": (keyword(), "text", KEYWORD),
    "type": (keyword(), "text", KEYWORD),
    # What has no value in the source.
    "alias": ({"type": "alias", "path": "keyword"}, None, None),
    **{kind: ({"type": kind}, None, None) for kind in (
        "constant_keyword", "join", "percolator", "completion", "token_count", "murmur3")},
}
RENAMED = {"score": "score_field", "ctid": "ctid_field"}
FIRST = {"docname": ("text", {}), "score": ("real", {}), "param": ("text", {})}


def mapping_of(fields):
    """The mapping of fields by their dotted paths."""
    root = {}
    for path, definition in fields.items():
        *parents, name = path.split(".")
        place = root
        for parent in parents:
            place = place.setdefault(parent, {}).setdefault("properties", {})
        place[name] = definition
    return {"properties": root}


class Library:
    """A session whose server `documents` is on a search server, with an empty schema to import into."""

    def __init__(self, db, port):
        self.db = db
        db.make_documents(port)
        db.run("SET client_min_messages = notice; DROP SCHEMA IF EXISTS library CASCADE; CREATE SCHEMA library")

    def outcome(self, pattern="*", clauses="", options=""):
        """The tables that an import makes, or its (SQLSTATE, message); they do not stay."""
        self.db.connection.notices.clear()
        options = options and f" OPTIONS ({options})"
        failed = self.db.outcome(f"IMPORT FOREIGN SCHEMA \"{pattern}\" {clauses} FROM SERVER documents INTO library"
                                 + options)
        if failed is not None:
            return failed
        self.notices = [re.sub(r"\s+", " ", line).strip() for line in self.db.connection.notices]
        tables = {}
        for table, column, kind, given in self.db.run(
                "SELECT relname, attname, format_type(atttypid, atttypmod), (SELECT json_object_agg(option_name,"
                " option_value) FROM pg_options_to_table(attfdwoptions)) FROM pg_class c JOIN pg_attribute a"
                " ON attrelid = c.oid WHERE relnamespace = 'library'::regnamespace AND relkind = 'f' AND attnum > 0"
                " ORDER BY relname COLLATE \"C\", attnum"):
            tables.setdefault(table, {})[column] = (kind, given or {})
        self.indices = dict(self.db.run("SELECT relname, option_value FROM pg_foreign_table JOIN pg_class ON"
                                        " pg_class.oid = ftrelid, pg_options_to_table(ftoptions) WHERE relnamespace ="
                                        " 'library'::regnamespace"))
        self.db.run("DROP SCHEMA library CASCADE; CREATE SCHEMA library")
        self.db.connection.notices.clear()
        return tables


@pytest.fixture(params=[6, 9])
def server(request):
    with SearchServer(request.param) as started:
        yield started


@pytest.fixture
def imports(db, server):
    return Library(db, server.port)


@pytest.fixture
def told(db, scripted):
    """told(mappings, ...): what is imported from a cluster that gives these responses, texts or objects."""
    made = Library(db, scripted.port)

    def run(mappings, aliases="{}", streams="{}", settings="{}", **import_):
        responses = {"/_alias/": aliases, "/_data_stream": streams, "/_settings/": settings, "/_mapping": mappings}

        def script(peer):
            found = next(given for part, given in responses.items() if part in peer.path)
            (found if callable(found) else response(found if isinstance(found, str) else json.dumps(found)))(peer)

        scripted.script = script
        outcome = made.outcome(**import_)
        run.notices = getattr(made, "notices", None)
        run.indices = getattr(made, "indices", None)
        return outcome

    return run


def index(**fields):
    return {"mappings": {"properties": fields}}


def test_every_type(server, imports):
    runtime = {"run": {"type": "long"}, "text_first.raw": keyword()} if server.version == 9 else {}
    server.create_index("rich", mappings={**mapping_of({path: given[0] for path, given in FIELDS.items()}),
                                          "runtime": runtime})
    expected = {RENAMED.get(path, path): (column, {**({"field": path} if path in RENAMED else {}), **options})
                for path, (_, column, options) in FIELDS.items() if column}
    if runtime:
        expected["text_first"] = ("text", {})  # a runtime field is searched in place of its part
    made = imports.outcome("rich")
    assert made == {"rich": {**FIRST, **expected}} and imports.indices == {"rich": "rich"}
    # In the mapping's order, which is that of the names in each object; a table of its own makes no other names.
    assert [name.replace("_field", "") for name in list(made["rich"])[3:]] == sorted(
        (path for path in FIELDS if FIELDS[path][1]), key=lambda path: path.split("."))
    (notice,) = imports.notices
    valueless = {path: given[0]["type"] for path, given in FIELDS.items() if not given[1]}
    valueless.update({path: f"runtime {given['type']}" for path, given in runtime.items()})
    assert notice == ('NOTICE: table "rich" leaves out fields without a value of their own in documents DETAIL: ' +
                      ", ".join(f"{path} ({kind})" for path, kind in
                                sorted(valueless.items())))


def test_what_is_a_table(server, imports):
    for name in ("books", "books_old", "notes", "shut", ".dots", "veiled"):
        server.create_index(name, settings={"hidden": name == "veiled"}, mappings=mapping_of({name: keyword()}))
    server.add_alias("all_books", "books", "books_old", "veiled")
    server.add_alias("notes_too", "notes")
    server.add_alias("closed", "shut")
    server.close_index("shut")
    stream = []
    if server.version == 9:
        template = {"index_patterns": ["log*"], "data_stream": {},
                    "template": {"mappings": mapping_of({"m": keyword()})}}
        assert send(server, "/_index_template/t", json.dumps(template).encode(), "PUT")[0] == 200
        assert send(server, "/_data_stream/logs", None, "PUT")[0] == 200
        stream = ["logs"]
    else:
        assert ask(server, "/_data_stream/logs", None)["error"]
    every = sorted(["all_books", "books", "books_old", "notes", "notes_too", *stream])
    for pattern, clauses, expected in [
            ("*", "", every), ("_all", "", every), ("books", "", ["books"]), ("b*", "", ["books", "books_old"]),
            ("*books*,-*old,notes", "", ["all_books", "books", "notes"]), ("*s,*s", "", sorted(
                ["all_books", "books", "notes", *stream])), ("all_books", "", ["all_books"]),
            ("*", "LIMIT TO (notes, nobody)", ["notes"]), ("*", "EXCEPT (notes, books)", sorted(
                {*every} - {"notes", "books"})), *([("log*,.d*", "", stream)] if stream else [])]:
        assert list(imports.outcome(pattern, clauses)) == expected, (pattern, clauses)
        assert not imports.notices and len(server.take_journal()) <= 6
    # A list of names that are not all of one kind asks for each.
    tables = imports.outcome(",".join(["books", "all_books", *stream]))
    assert [*tables["all_books"]][3:] == ["books", "books_old", "veiled"]
    assert not stream or tables["logs"] == {**FIRST, "@timestamp": (TIMESTAMPTZ, DATE), "m": ("text", KEYWORD)}
    nothing = {pattern: imports.outcome(pattern) for pattern in (
        "nothing", "nothing*", ".dots", ".*", "veiled", "shut", "closed", "books,nobody", "_cat", "_search",
        "../books", "books, notes", "-books", ",", *([".ds-logs*"] if stream else []))}
    if server.version == 6:  # nothing there tells that what was named is closed
        del nothing["shut"], nothing["closed"]
    message = 'no index, alias or data stream matches "{}"'
    assert nothing == {pattern: ("HV00Q", message.format(pattern)) for pattern in nothing}


NUMBER = {kind: {"type": kind} for kind in ("byte", "short", "integer", "long", "unsigned_long", "float", "double")}
DIFFERING = {  # definitions in the two indices, None where there is none; type and options
    "same": (keyword(ignore_above=3), keyword(ignore_above=3), "text", {**KEYWORD, "ignoreabove": "3"}),
    "bounds": (keyword(ignore_above=3), keyword(), "text", {}),
    "only_one": (keyword(), None, "text", {}), "only_other": (None, keyword(), "text", {}),
    "unindexed": (keyword(), unindexed(), "text", {}),
    "texts": ({"type": "text"}, keyword(), "text", {}),
    "parts": (text(("keyword", keyword())), text(("raw", keyword())), "text", {}),
    "tiny": (NUMBER["byte"], NUMBER["short"], "smallint", {}),
    "whole": (NUMBER["long"], NUMBER["short"], "bigint", {}),
    "small": (NUMBER["short"], NUMBER["integer"], "integer", {}),
    "large": (NUMBER["long"], NUMBER["unsigned_long"], "numeric", {}),
    "floating": (NUMBER["float"], NUMBER["double"], "double precision", {}),
    "mixed": (NUMBER["byte"], NUMBER["double"], "numeric", {}),
    "dates": ({"type": "date"}, date("yyyy-MM-dd"), TIMESTAMPTZ, {}),
    "date_formats": ({"type": "date"}, date("strict_date_optional_time"), TIMESTAMPTZ, {}),
    "nanos": ({"type": "date_nanos"}, date("strict_date_time"), TIMESTAMPTZ, {}),
    "millis": (date("epoch_millis"), {"type": "date"}, "text", {}),
    "day_millis": (date("epoch_millis"), date("strict_date"), TIMESTAMPTZ, {"format": "epoch_millis"}),
    "seconds": (date("epoch_second"), {"type": "date"}, "text", {}),
    "day_other": (date("dd/MM/yyyy"), date("yyyy-MM-dd"), "text", {}),
    "other_text": (date("dd/MM/yyyy"), {"type": "text"}, "text", {}),
    "date_text": ({"type": "date"}, {"type": "text"}, "jsonb", {}),
    "flag": ({"type": "boolean"}, keyword(), "jsonb", {}),
    "inner": ({"type": "object", "properties": {"x": keyword()}}, keyword(), "jsonb", {}),
    "valueless": ({"type": "constant_keyword"}, keyword(), "text", {}),
}


def test_indices_that_differ(server, imports):
    for place, name in enumerate(("one", "other")):
        server.create_index(name, mappings={"properties": {
            field: given[place] for field, given in DIFFERING.items() if given[place]}})
    server.add_alias("both", "one", "other")
    made = imports.outcome("both")["both"]
    assert made == {**FIRST, **{field: given[2:] for field, given in DIFFERING.items()}, "inner.x": ("text", {})}
    assert not imports.notices
    wanted = "texts,tiny , inner.x,flag,dates, gone,one.x"
    arrays = imports.outcome("both", options=f"arrays '{wanted}'")["both"]
    changed = {"texts": "text[]", "tiny": "smallint[]", "inner.x": "text[]", "dates": f"{TIMESTAMPTZ}[]"}
    assert arrays == {**made, **{field: (kind, {}) for field, kind in changed.items()}}
    assert imports.notices == [f'WARNING: no imported table has the field "{field}" of the option "arrays"'
                               for field in ("gone", "one.x")]


# ---- What a cluster may tell -------------------------------------------------------------------------------


def test_names_as_they_come(db, told):
    """Names are data: whatever they hold, each is the name of one column or table, and the path in its option."""
    odd = ['a"b', "a'b", "a\\b", 'x"); DROP TABLE books; --', "x' OPTIONS (y 'z", "two words", "SELECT", "Upper",
           "é€😀", "a.b", "$1", "%s%n", "docname", "highlights", "tableoid", "xmin", "docname_field",
           "line\nbreak", "a" * 63, "b" * 64, "c" * 64 + "1", "c" * 64 + "2", "é" * 32, "p" * 40 + "." + "q" * 40]
    names = [*odd, *(f"f{number}" for number in range(5))]
    fields = index(**{name: keyword() for name in names})
    one, long, other = "it's", "l" * 70 + "1", "l" * 70 + "2"
    tables = told({one: fields, long: fields, other: index(), "a,b": fields, 'q"; DROP TABLE books; --': index()})
    assert set(told.indices.values()) == {one, long, other} and told.indices[one] == one
    assert all(len(name) == 63 for name in told.indices if name != one)
    made = tables[one]
    paths = {name: options.get("field", name) for name, (_, options) in list(made.items())[3:]}
    assert list(paths.values()) == names and all(len(name.encode()) <= 63 for name in paths)
    assert {name for name in paths if paths[name] == name} == {name for name in names if len(name.encode()) < 64} - {
        "docname", "highlights", "tableoid", "xmin"}
    assert paths["highlights_field"] == "highlights" and paths["docname_field"] == "docname_field"
    # A name depends on nothing but the path, unless another field has taken it.
    assert {name for name in told({"z": index(**{name: keyword() for name in names if name != "docname_field"})})["z"]
            if name in paths} == {name for name in paths if paths[name] != "docname"} - {"docname_field"} | {
                "docname_field", *FIRST} - {"docname", "score", "param"}
    assert db.run("SELECT to_regclass('books') IS NOT NULL") == [(True,)]


def test_room_for_columns(told):
    made = told({"wide": index(**{f"f{number:04}": {"type": "text"} for number in range(1700)})})["wide"]
    assert len(made) == 1600 and list(made)[-1] == "f1596"
    assert told.notices == ['NOTICE: table "wide" has no room for all fields DETAIL: Left out: ' +
                            ", ".join(f"f{number}" for number in range(1597, 1700))]


def test_names_that_a_database_cannot_hold(db, scripted):
    with new_database(db, "western", "ENCODING 'LATIN1' LC_COLLATE 'C' LC_CTYPE 'C'") as western:
        western.install()
        made = Library(western, scripted.port)
        fields = index(**{"é": keyword(), "€": keyword(), "part": text(("€", keyword())), "a.€.b": keyword()})
        bodies = {"_mapping": {"books": fields, "büch": fields}, "_alias": {"books": {"aliases": {"日本": {}}}}}
        scripted.script = lambda peer: response(json.dumps(bodies.get(peer.path.split("/")[-1], bodies["_alias"] if
                                                                      "_alias/" in peer.path else {})))(peer)
        tables = made.outcome("*")
        columns = {**FIRST, "é": ("text", KEYWORD), "part": ("text", {})}
        assert tables == {"books": columns, "büch": columns} and made.indices["büch"] == "büch"
        assert [line.replace("?", "") for line in made.notices] == [
            *(f'NOTICE: table "{table}" leaves out fields whose names this database cannot hold DETAIL: , a..b'
              for table in ("books", "büch")),
            "NOTICE: an index is left out because this database cannot hold its name DETAIL: "]


def test_requests(db, scripted, told):
    told({})
    db.run("CREATE USER MAPPING FOR public SERVER documents OPTIONS (username 'u', password 'p')")
    del scripted.requests[:]
    told({"büch": index()}, pattern="bü?/*,-x,y")
    assert [peer.path for peer in scripted.requests] == [
        "/b%C3%BC%3F%2F*,-x,y/_mapping", "/b%C3%BC%3F%2F*,-x,y/_settings/index.hidden,index.verified_before_close,"
        "index.mode,index.mapping.ignore_malformed,index.mapping.ignore_above?flat_settings=true", "/_data_stream",
        "/_alias/b%C3%BC%3F%2F*,y*"]
    assert {peer.headers["Authorization"] for peer in scripted.requests} == {"Basic dTpw"}


BOOKS = {"books": index(k=keyword(), t=text(("keyword", keyword(ignore_above=9))), n={"type": "long"})}


def test_what_settings_change(told):
    """Mappings are silent about what an index has for all its fields."""
    plain = {"k": KEYWORD, "t": {**KEYWORD, "searchfield": "t.keyword", "ignoreabove": "9"}, "n": {"search": "long"}}
    for settings, changed in [
            ({}, {}), ({"index.mapping.ignore_above": "5"}, {"k": {**KEYWORD, "ignoreabove": "5"}}),
            ({"index.mapping.ignore_malformed": "true"}, {"n": {}}), ({"index.mode": "standard"}, {}),
            ({"index.mode": "logsdb"}, {"n": {}, "k": {**KEYWORD, "ignoreabove": "8191"}})]:
        made = told(BOOKS, settings={"books": {"settings": settings}, "gone": {"settings": {"index.hidden": True}}})
        assert {name: options for name, (_, options) in list(made["books"].items())[3:]} == {**plain, **changed}
    for hiding in ("index.hidden", "index.verified_before_close"):
        assert told(BOOKS, settings={"books": {"settings": {hiding: "true"}}})[0] == "HV00Q"


def alias(**properties):
    return {"books": {"aliases": {"named": properties}}}


STREAM = {"data_streams": [{"name": "stream", "indices": [{"index_name": "books", "index_uuid": "u"}]}]}


def test_aliases_and_streams(told):
    for aliases, streams, expected in [
            (alias(filter={"term": {"k": "v"}}), {}, ["books", "named"]), (alias(is_hidden=True), {}, ["books"]),
            (alias(), STREAM, ["named", "stream"]), ({"stream": alias()["books"]}, STREAM, ["named", "stream"]),
            ({}, {"data_streams": [{**STREAM["data_streams"][0], "hidden": True}]}, None),
            ({"gone": alias()["books"]}, {"data_streams": [{"name": "gone", "indices": []}]}, ["books"]),
            ({}, response("{}", "405 No"), ["books"]), (response('{"a":"x"}', "404 No"), "{}", ["books"])]:
        made = told(BOOKS, aliases, streams)
        assert (list(made) if expected else made[0]) == (expected or "HV00Q"), (aliases, streams)


REFUSED = "HV000", "the search cluster refused the request"
UNREADABLE = "HV000", "the response of the search cluster cannot be read"
TOO_DEEP = "HV000", "the mapping of an index is nested too deeply"
TOO_MANY = "HV000", "the mapping of an index has too many fields"
NOTHING = "HV00Q", 'no index, alias or data stream matches "*"'


def mapped(text):
    return '{"i":{"mappings":{"properties":' + text + "}}}"


def test_refusals(db, told):
    for options, expected in [("arays 'a'", ("HV00D", 'invalid option "arays"')), *(
            (f"arrays '{names}'", ("22023", 'option "arrays" takes names of fields, separated by commas'))
            for names in ("", " ", "a,,b", "a,"))]:
        assert told(BOOKS, options=options) == expected
    for status, expected in (("401 No", REFUSED), ("400 No", REFUSED), ("503 No", REFUSED), ("404 No", NOTHING)):
        assert told(response('{"error":{"type":"t","reason":"r"}}', status)) == expected
    for part in ("aliases", "streams", "settings"):
        assert told(BOOKS, **{part: response("{}", "403 No")}) == REFUSED
    assert told(BOOKS, settings=response("{}", "404 No")) == REFUSED
    db.run("ALTER SERVER documents OPTIONS (SET address 'http://127.0.0.1:1')")
    with pytest.raises(Exception) as caught:
        db.run("IMPORT FOREIGN SCHEMA x FROM SERVER documents INTO library")
    diagnostics = caught.value.diag
    assert (diagnostics.sqlstate, diagnostics.message_primary) == ("HV00N", "could not connect to the search cluster")
    assert diagnostics.message_detail.startswith("GET http://127.0.0.1:1/x/_mapping: ")
    assert "address" in diagnostics.message_hint


DEEP = 1_000_000
ODD = {  # what is told of mappings, and what that leads to: an error, or the columns beside the first
    **{text: UNREADABLE for text in (
        "", " ", "[]", "null", "{", '{"i":', '{"i":5}', '{"i":{"mappings":5}}', '{"i":{"mappings":{}}}x',
        mapped('{"f":5}'), mapped('{"f":{"type":"long"}'), mapped('{"f":{"type":"text","fields":[]}}'),
        mapped('{"f":{"properties":5}}'), mapped('{"f":{"type":tru}}'), '{"i":{"mappings":{"runtime":{"f":1}}}}',
        '{"error":{"reason":"r"},"status":400}')},
    **{text: NOTHING for text in ("{}", '{"i":{}}', '{"":{"mappings":{}}}')},
    '{"i":{"mappings":{"properties":[],"_meta":{"properties":{"f":{}}}}}}': {},
    '{"i":{"mappings":{"one":{"properties":{"f":{"type":"long"}}},"two":{"properties":{"f":{"type":"long"}}}}}}': {
        "f": ("bigint", {"search": "long"})},
    **{mapped(f'{{"f":{{"type":{kind}}}}}'): {"f": ("jsonb", {})} for kind in (
        '"unheard"', "5", "[{}]", '"\\ud800"')},
    mapped('{"f":{"type":"scaled_float"},"f":{"type":"long"}}'): {"f": ("numeric", {})},
    mapped('{"f":{"properties":{"g":{"type":"long"}},"type":"nested"}}'): {"f": ("jsonb", {})},
    mapped('{"z":{"type":"long"},"":{},".a":{},"b.":{},"c..d":{},"\\u0000":{},"y":{"type":"ip"}}'): {
        "z": ("bigint", {"search": "long"}), "y": ("inet", {"search": "ip"})},
    mapped('{"f":' * DEEP): UNREADABLE, mapped('{"f":{"properties":' * 99 + "{}" + "}}" * 99): {},
    mapped('{"f":{"properties":' * 100 + "{}" + "}}" * 100): TOO_DEEP,
    mapped('{"f":{"type":"long","meta":' + "[" * DEEP + "]" * DEEP + "}}"): {"f": ("bigint", {"search": "long"})},
    mapped("{" + ",".join(f'"{number}":{{}}' for number in range(100_002)) + "}"): TOO_MANY,
    json.dumps({name: index(**{f"{name}{number}": {} for number in range(60_000)}) for name in "ij"}): TOO_MANY,
}


def test_mappings_that_are_none(told):
    for text, expected in ODD.items():
        wanted = {**FIRST, **expected} if isinstance(expected, dict) else expected
        made = told(text, {"i": {"aliases": {"both": {}}}, "j": {"aliases": {"both": {}}}})
        assert (made["i"] if isinstance(expected, dict) else made) == wanted, text[:99]
    for text in ("", "[]", '{"books":[]}', '{"books":{"aliases":{"a":5}}}'):
        assert told(BOOKS, aliases=text) == UNREADABLE, text
    for text in ("", "[]", '{"data_streams":{}}', '{"data_streams":[5]}', '{"data_streams":[{"indices":[5]}]}'):
        assert told(BOOKS, streams=text) == UNREADABLE, text
    for text in ("", "[]", '{"books":5}', '{"books":{"settings":[]}}'):
        assert told(BOOKS, settings=text) == UNREADABLE, text


def test_damaged_responses(told):
    """Whatever bytes of a response are lost, doubled or changed: tables, or an error that says so."""
    random, outcomes = Random(1), set()
    whole = [json.dumps(each).encode() for each in (
        {"books": index(**{path.replace(".", "_"): given[0] for path, given in FIELDS.items()})}, alias(filter={}),
        STREAM, {"books": {"settings": {"index.mode": "logsdb", "index.hidden": "false"}}})]
    for number in range(400):
        damaged, hit = list(whole), random.randrange(4)
        text = whole[hit]
        first = random.randrange(len(text))
        last = min(len(text), first + random.choice((0, 1, 9, 99)))
        put = (b"", text[first:last] * 2, bytes([random.randrange(256)]), b'"', b"{}", b"9")
        damaged[hit] = text[:first] + random.choice(put) + text[last:]
        made = told(*(response(each) for each in damaged))
        outcomes.add("tables" if isinstance(made, dict) else made[1].partition('"')[0])
    assert outcomes <= {"tables", UNREADABLE[1], "no index, alias or data stream matches ", "option "}, outcomes
    assert {"tables", UNREADABLE[1]} <= outcomes


@pytest.mark.unsanitized
def test_responses_without_end(db, told):
    start = b'HTTP/1.1 200 OK\r\n\r\n{"i":{"mappings":{"properties":{"a'
    assert told(endless(b"x", start)) == ("HV000", "the response of the search cluster is larger than 1023 MiB")
    assert memory(db.pid, "VmHWM") // 1024 < 2000
    db.run("SET statement_timeout = 300")
    assert told(lambda peer: peer.wait_for_close(10)) == ("57014", "canceling statement due to statement timeout")


# ---- What the tables give ----------------------------------------------------------------------------------

VALUES = {"text": ["whale", "Whale", "a text beyond every bound " * 20, ""], "boolean": [True, False, "true"],
          "inet": ["10.0.0.1", "::1", "192.168.0.1"], "date": ["2024-02-29", "1969-12-31", "1600-02-29"],
          "numeric": [0.1, 2.5, 1, 100.004], "real": [0.1, 2.5, -3, 2049], "double precision": [0.1, 1e300, -3],
          **dict.fromkeys(("smallint", "integer", "bigint"), [1, 0, 100, 5])}
INSTANTS = {None: ["2024-02-29T23:59:59.999Z", "2024-02-29", "2024", "1969-12-31T23:59:59+02:00"],
            "epoch_millis": [1, 1709251199999, 0], "epoch_second": [1, 1709251199, 0]}


def test_conditions_on_what_was_imported(db, server, imports):
    """What the options say of the search is so: with each a condition finds what it finds in a copy."""
    fields = {path: given for path, given in FIELDS.items() if given[2]}
    server.create_index("rich", mappings=mapping_of({path: given[0] for path, given in fields.items()}))
    for number in range(4):
        source = {}
        for path, (_, column, options) in fields.items():
            values = INSTANTS[options.get("format")] if column == TIMESTAMPTZ else VALUES[column]
            source[path] = values[number % len(values)]
        server.put("rich", f"d{number}", source)
    db.run("SET client_min_messages = warning; IMPORT FOREIGN SCHEMA rich FROM SERVER documents INTO library;"
           " CREATE TABLE library.copy AS SELECT * FROM library.rich")
    assert db.value("SELECT count(*) FROM library.copy") == 4
    server.take_journal()
    for path in fields:
        column = f'"{RENAMED.get(path, path)}"'
        for operator in "=", "<", ">=":
            def pairs(table):
                return sorted(db.run(
                    f"SELECT c.docname, t.docname FROM library.copy c CROSS JOIN LATERAL (SELECT docname FROM"
                    f" library.{table} WHERE {column} {operator} c.{column} OFFSET 0) t"))
            assert pairs("rich") == pairs("copy"), (path, operator)
        asked = "".join(request.body.decode() for request in server.take_journal())
        assert f'"{fields[path][2].get("searchfield", path)}":' in asked, path
