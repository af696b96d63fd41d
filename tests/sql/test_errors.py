"""What a query says when the search fails, in its short form and with `fullerrormsg`."""
import json
import socket

import pytest

from scriptedserver import answer, hits

QUERY = "SELECT docname FROM books WHERE param = 'query=q'"
BODY = '{"query":q,"size":100,"_source":false}'
TOO_MANY = ("HV000", "es search result bigger than batch size, use a scroll")
NAMELESS = ("HV000", "fail to retrieve column name")

SHARDS = {"reason": {"type": "illegal", "why": {"a": "}"}}, "shard": 0}
HIT = '"_id":"a","_score":1.5'
CUT = hits(HIT, HIT)[:-20]


def search_error(text):
    return "ElasticSearch error", f"ElasticSearch error, query was '{BODY}', error was '{text}'"


BAD_ID = search_error("json to utf8 conversion error")


def curl_error(code):
    return f"Curl error ({code})", f"Curl error ({code}), query was {BODY}, "


PARSER = ("Elasticsearhc result parser error", f"Elasticsearhc result parser error, query was {BODY}")

# name, script, (short message, full message)
FAILURES = [
    ("error text", answer('{"error":"no such index","status":404}', "404 Not Found"),
     search_error('":"no such index","status":404}')),
    ("error object", answer('{"error":{"type":"x","reason":"no query [q]"},"status":400}', "400 Bad Request"),
     search_error('":{"type":"x","reason":"no query [q]"},"status":400}')),
    # The innermost object that is four levels deep is the reason.
    ("error of a shard", answer(json.dumps({"error": {"failed_shards": [SHARDS]}, "status": 400})),
     search_error(json.dumps(SHARDS["reason"]))),
    ("error after hits", answer(hits(HIT)[:-1] + ',"error":"late"}'), search_error('":"late"}')),
    ("surrogate pair in an id", answer(hits(HIT, '"_id":"\\ud83d\\ude00"')), BAD_ID),
    ("bad escape in an id", answer(hits('"_id":"\\x"')), BAD_ID),
    ("bad UTF-8 in an id", answer(hits('"_id":"@"').encode().replace(b"@", b"\xc3(")), BAD_ID),
    ("NUL in an id", answer(hits('"_id":"a\\u0000b"')),
     2 * ("ElasticSearch document id with a NUL character",)),
    ("cut off, with a length that fits", answer(CUT), PARSER),
    ("cut off in a string", answer(hits(HIT)[:10]), PARSER),
    ("cut off before its length", answer(CUT, length=len(CUT) + 20), curl_error(18)),
    ("no answer at all", lambda peer: None, curl_error(52)),
    ("not an answer", lambda peer: peer.send(b"\x00\x01\x02\x03" * 10 + b"\r\n\r\n"), curl_error(1)),
    ("two totals", answer('{"hits":{"total":1,"total":2,"hits":[]}}'), curl_error(23)),
]


@pytest.mark.parametrize("full", [False, True])
@pytest.mark.parametrize("script, messages", [pytest.param(*case[1:], id=case[0]) for case in FAILURES])
def test_failing_answers(db, scripted, script, messages, full):
    scripted.script = script
    db.make_table(port=scripted.port, fullerrormsg="true" if full else None)
    assert db.failure(QUERY) == ("HV000", messages[full])
    assert len(scripted.requests) == 1  # nothing is tried twice
    scripted.script = answer(hits(HIT))
    assert db.run(QUERY) == [("a",)]


def test_refused_connection(db):
    with socket.socket() as idle:
        idle.bind(("127.0.0.1", 0))
        for value, full in (("true", True), ("TRUE", False), ("yes", False), ("1", False), ("true ", False)):
            db.make_table(port=idle.getsockname()[1], fullerrormsg=value)
            assert db.failure(QUERY) == ("HV000", curl_error(7)[full])


@pytest.mark.parametrize("options, name, takes", [
    *(({"address": address}, "address", "addresses of the schemes http and https only")
      for address in ("file:///etc", "FILE:/etc", "gopher://127.0.0.1", "dict://127.0.0.1", "ftp://127.0.0.1")),
    *(({name: value}, name, "no blanks, line breaks or other control characters")
      for name, value in (("address", "127.0.0.1\r\nX: y"), ("port", "1 HTTP/1.1"), ("port", "80\n"),
                          ("indexlist", "a\tb"), ("scrolltimeout", "1m \x7f")))])
def test_no_way_out(db, scripted, options, name, takes):
    db.make_table(**{"port": scripted.port, **options})
    assert db.failure(QUERY) == ("HV000", f"option '{name}' takes {takes}")
    assert scripted.requests == []


def test_percent_signs_are_no_placeholders(db, scripted):
    scripted.script = answer('{"error":"%s%n","status":400}')
    db.make_table(port=scripted.port, fullerrormsg="true")
    assert db.failure("SELECT docname FROM books WHERE param = 'query=%s%d%n'") == (
        "HV000", "ElasticSearch error, query was '{\"query\":%s%d%n,\"size\":100,\"_source\":false}', "
                 "error was '\":\"%s%n\",\"status\":400}'")
    assert db.failure("SELECT docname FROM books WHERE param = '%s%n=x'") == (
        "HV000", "Unknown fdw param %s%n=x ")


def test_redirects_are_not_followed(db, scripted):
    def script(peer):
        if peer.path == "/found":
            answer(hits(HIT))(peer)
        else:
            answer("<html>{</html>", "302 Found", [f"Location: http://127.0.0.1:{scripted.port}/found"])(peer)
    scripted.script = script
    db.make_table(port=scripted.port)
    assert db.failure(QUERY) == ("HV000", "ElasticSearch error")
    assert [peer.path for peer in scripted.requests] == ["/books//_search"]


def test_errors_of_the_search_server(db, search):
    assert db.failure(QUERY) == ("HV000", "ElasticSearch error")
    db.make_table(indexlist="nothere", fullerrormsg="true")
    sqlstate, message = db.failure("SELECT docname FROM books WHERE param = 'query={\"match_all\":{}}'")
    assert sqlstate == "HV000" and "index_not_found_exception" in message
    assert message.startswith("ElasticSearch error, query was '{\"query\":{\"match_all\":{}},\"size\":100,")


@pytest.mark.parametrize("total", ["{total}", '{{"value":{total},"relation":"eq"}}'])
@pytest.mark.parametrize("hit_count, limit, refused", [
    (250, "", True), (250, "LIMIT 101", True), (250, "LIMIT 100", False), (250, "LIMIT 10", False),
    (250, "LIMIT 60 OFFSET 40", False), (250, "LIMIT 60 OFFSET 41", True), (101, "", True), (100, "", False),
    (3, "LIMIT 500", False)])
def test_more_hits_than_a_batch(db, scripted, total, hit_count, limit, refused):
    scripted.script = answer(hits(HIT, total=total.format(total=hit_count)))
    db.make_table(port=scripted.port)
    expected = TOO_MANY if refused else [] if "OFFSET" in limit else [("a",)]
    assert db.outcome(f"{QUERY} {limit}") == expected


@pytest.mark.parametrize("columns", [
    "books", "books.*::text", "row_to_json(books)", "tableoid", "docname, ctid", "count(books)"])
def test_whole_rows_and_system_columns(db, columns):
    assert db.failure(f"SELECT {columns} FROM books WHERE docname = 'b001'") == NAMELESS


@pytest.mark.parametrize("statement, sqlstate", [
    ("INSERT INTO books (docname) VALUES ('x')", "0A000"), ("DELETE FROM books WHERE docname = 'x'", "0A000"),
    # The server asks for the whole row before it would refuse these.
    ("UPDATE books SET docname = 'y' WHERE docname = 'x'", "HV000"),
    ("SELECT docname FROM books WHERE docname = 'x' FOR UPDATE", "HV000")])
def test_tables_are_read_only(db, statement, sqlstate):
    if statement.startswith("UPDATE") and db.connection.server_version < 140000:
        sqlstate = "0A000"  # an UPDATE needs the whole row from version 14 on
    assert db.failure(statement)[0] == sqlstate
