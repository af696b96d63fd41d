"""Every error text, and one backend after very many failing queries of each kind: its memory stays where it was."""
# The queries that stand for their path through the module are repeated VELTRANE_FAILURES times: 1000 by default,
# 10000 for a run at full length; below 200 only the texts count. All others share such a path and are asked a few
# times. Texts that a query cannot have within milliseconds are left out, such as that of a response above 1023 MiB.
import json
import os

import pytest

from conftest import COLUMNS, Database, memory
from scriptedserver import response, hits, raw, silence

REPEATS = int(os.environ.get("VELTRANE_FAILURES", "1000"))
FIRST = 100  # after so many, all that is made once and kept is there
GROWTH = 1024  # KiB
# Long values make a leak of a single text show.
PAD = " " * 5000
LONG = "lorem ipsum " * 400
QUERY = f"param = 'query=q{PAD}'"
BODY = f'{{"query":q{PAD},"size":100,"_source":false}}'
HIT = f'"_id":"a","_score":1,"_source":{{"type":"t","text":"{LONG}"}}'
SCROLL = {"connectortype": "elasticsearchscroll"}
OFTEN = {"often": True}  # stands for its path
# How the messages begin of what only shows when the query runs; all else shows when it is planned or begun.
RUNNING = ("Curl", "Elastic", "es search", "invalid", "utf8")


def fails(message, clause=QUERY, state="HV000", full=None, **settings):
    """(statement, its error, the one with `fullerrormsg` or None for the same, settings): `often`, `script`, what to
    `select` or the whole `statement`, options of the `server` and of the user `mapping`, and those of the table."""
    statement = settings.pop("statement", f"SELECT {settings.pop('select', 'docname')} FROM books WHERE {clause}")
    return statement, (state, message), full and (state, full), settings


def wrong(name, takes, *values, of=None):
    """Bad values of an option, one of the table or `of` the server or the user mapping."""
    return [fails(f"option '{name}' takes {takes}", **({of: f"{name} '{value}'"} if of else {name: value}))
            for value in values]


def failing_search(script, text, body=BODY, **settings):
    """A response that is taken for an error of the search, which the full message quotes with the request."""
    return fails("ElasticSearch error", full=f"ElasticSearch error, query was '{body}', error was '{text}'",
                 script=script, **settings)


def failing_transfer(code, script=None, body=BODY, **settings):
    return fails(f"Curl error ({code})", full=f"Curl error ({code}), query was {body}, ", script=script, **settings)


def unreadable(script, body=BODY, **settings):
    message = "Elasticsearhc result parser error"
    return fails(message, full=f"{message}, query was {body}", script=script, **settings)


def second(failing):
    """A script with a first page that is good."""
    first = response(hits(HIT, total=2, scroll_id="s"))
    return lambda peer: (first if peer.purpose == "first" else failing)(peer)


REFUSED = '":"' + LONG + '","status":400}'
GONE = '":{"root_cause":[],"type":"phase","reason":"all shards failed"},"status":404}'
SHARDS = {"reason": {"type": "illegal", "why": {"a": "}"}}, "shard": 0}
CUT = hits(HIT, HIT)[:-20]
LARGE = '{"text":"' + "x" * 100_000
BAD_ID = "json to utf8 conversion error"
NUL = "ElasticSearch document {} with a NUL character"
NAMELESS = "fail to retrieve column name"
UNSUPPORTED = {"message": "unsupported connector type", "state": "HV00D"}
MISSING = "missing options on elastic search table"
NEED = "need docname or query clause"
BOTH = "docname and query clause not supported on same select"
RANGE = "'compressionlevel' should be in range [-2;9]"
HIGHLIGHT = "'highlight' param could only be used with 'query' param"
MIXED = "inconsistant OR clause"
ESCAPE = "utf8 to json conversion error"
TOO_MANY = "es search result bigger than batch size, use a scroll"
LATERAL = "a scan of this foreign table cannot compute values of another table's columns"
ELSEWHERE = ("the credentials of the user mapping are only sent where the options 'address' and 'port' of the "
             "foreign server say")
MARKS = "no question marks and number signs"
DOTS = "no path segments '.' and '..'"
BLANKS = "no blanks, line breaks or other control characters"
SCHEMES = "addresses of the schemes http and https only"
NUMBER = "a whole number of milliseconds from 1 to 2147483647"
NO_NUMBERS = "", "0", "-1", "1s", "2147483648", "99999999999999999999", "1.5"
BROKEN = r"'\xc328'::bytea::text"
NO_PLACE = {"address": None}
PARTIAL = response('{"timed_out":true,' + hits(HIT, scroll_id="s")[1:])

FAILURES = [
    # the query
    fails(NEED, "true", **NO_PLACE), fails(NEED, "true", compressionlevel="10"),
    fails("need only one param clause", f"{QUERY} AND param = ANY('{{highlight=h}}')"),
    fails(f"Malformed fdw param {LONG} ", f"param = '{LONG}'", **OFTEN), fails("Malformed fdw param  ", "param = ''"),
    fails("Malformed fdw param query ", "docname = 'x' AND param = 'query'", **NO_PLACE),
    *[fails(f"Unknown fdw param {name}=x ", f"param = '{name}=x'")
      for name in (LONG, "%s%n", "Query", " query", "", "quer", "queryx")],
    *[fails(RANGE, f"param IN ('query=q', 'compressionlevel={level}')") for level in (-3, 10, 2147483648)],
    fails(RANGE, "param = 'compressionlevel=10'", compressionlevel="10"),
    fails(BOTH, f"{QUERY} AND docname = 'x'"), fails(BOTH, f"{QUERY} AND docname = ANY('{{}}')", **NO_PLACE),
    fails(HIGHLIGHT, "docname = 'x' AND param = 'highlight=h'", **NO_PLACE),
    fails(HIGHLIGHT, "param = 'highlight=h'"),
    fails(MIXED, f"docname = '{LONG}' OR score = 1", **OFTEN, **NO_PLACE),
    fails("fail to extract clause of type N for docname", "docname = upper(doctype)", **OFTEN),
    *[fails(NAMELESS, "docname = 'b001'", select=row, **OFTEN) for row in ("books", "docname, ctid")],
    *[fails(NAMELESS, "docname = 'b001'", select=row) for row in ("books.*::text", "row_to_json(books)", "tableoid")],
    fails(NAMELESS, statement="SELECT docname FROM books WHERE docname = 'x' FOR UPDATE"),
    fails(ESCAPE, f"docname = ANY(ARRAY['ok', {BROKEN}])", "HV00B", **OFTEN),
    fails(ESCAPE, f"{QUERY} AND doctype = {BROKEN}", "HV00B", **OFTEN),
    fails(LATERAL, state="0A000", **OFTEN,
          statement="SELECT n, x.* FROM generate_series(1, 2) n LEFT JOIN LATERAL (SELECT docname, n AS m FROM books "
          "WHERE param = 'query=q') x ON true"),
    *[fails(f'cannot {what} foreign table "books"', state="0A000", statement=statement) for what, statement in (
        ("insert into", "INSERT INTO books VALUES ('x')"), ("delete from", "DELETE FROM books WHERE docname = 'x'"))],
    # the options
    *[fails(**UNSUPPORTED, connectortype=value) for value in ("x", None, "", "ElasticSearch", "elasticsearch ")],
    fails(**UNSUPPORTED, connectortype=None, Connectortype="elasticsearch"),
    fails(**UNSUPPORTED, clause="docname = 'x' OR score = 1", connectortype="x"),
    fails(MISSING, **NO_PLACE, **OFTEN), fails(MISSING, port=None),
    *[fails(RANGE, "docname = 'x'", compressionlevel=value, **NO_PLACE) for value in ("10", "-3", "2147483648")],
    *wrong("address", SCHEMES, "ftp://127.0.0.1", "file:///etc", "FILE:/etc", "gopher://127.0.0.1"),
    *wrong("address", SCHEMES, "ftp://127.0.0.1", of="server"),
    *wrong("address", BLANKS, "a b", "127.0.0.1\r\nX: y"), *wrong("indexlist", BLANKS, "a\tb"),
    fails(f"option 'scrolltimeout' takes {BLANKS}", **SCROLL, scrolltimeout="1m \x7f", **OFTEN),
    *wrong("indexlist", MARKS, "books/_delete_by_query#", "b?q=1#"), *wrong("address", MARKS, "h?", "http://h#"),
    *wrong("indexlist", DOTS, "..", "a/../_all", "./a", "a/%2e%2E"), *wrong("address", DOTS, "h/.."),
    *wrong("port", "a number from 1 to 65535", "", "x", "0", "65536", "9200#", "+9200", "80\n", "9" * 20),
    *wrong("port", "a number from 1 to 65535", "9200#", of="server"),
    *wrong("esversion", "a whole number, the major version of the search servers", "", "0", "-7", "7.8", "v7",
           "2147483648"),
    *wrong("partialresults", "'ignore', 'warning' or 'error'", "", "Error", "ignore ", "true"),
    *wrong("timeout", NUMBER, *NO_NUMBERS, of="server"), *wrong("connecttimeout", NUMBER, *NO_NUMBERS, of="server"),
    *wrong("tlsverify", "'true' or 'false'", "", "TRUE", "off", of="server"),
    *wrong("cafile", "the absolute path of a file that the server can read", "", "ca.pem", "/no/file", "/etc",
           "/dev/null", of="server"),
    *wrong("username", "a name without colons, blanks and control characters", "", "a:b", "a b", of="mapping"),
    *wrong("apikey", "an encoded key without blanks and control characters", "", "k x", "k\r\nX: y", of="mapping"),
    fails("option 'password' takes effect only with option 'username'", mapping="password 'p'"),
    fails("options 'username' and 'apikey' exclude each other", mapping="username 'u', apikey 'k'", **OFTEN),
    fails(ELSEWHERE, mapping="apikey 'k'", **OFTEN),
    # the columns
    *[fails(f'column "{name}" at position {at} should be of type {wanted}', select=name,
            columns=COLUMNS.replace(f"{name} {wanted}", f"{name} {other}"), **OFTEN) for at, name, wanted, others in (
        (1, "docname", "text", ["int", "varchar(1)", "char(3)", "json", "shout"]),
        (2, "doccontent", "bytea", ["bigint"]), (3, "score", "real", ["int", "double precision", "text"]),
        (4, "doctype", "text", ["date", "json"]), (5, "highlights", "bytea", ["text[]"])) for other in others],
    fails('invalid input syntax for type json', state="22P02", select="doccontent", compressionlevel=-2, **OFTEN,
          columns=COLUMNS.replace("content bytea", "content json"), script=response(hits('"_id":"a","_source":{x}'))),
    # the connection
    fails("Curl error (3)", address="[x", **OFTEN), failing_transfer(7, port=1, **OFTEN),
    *[fails("Curl error (7)", port=1, fullerrormsg=value) for value in ("TRUE", "yes", "1", "true ")],
    failing_transfer(1, lambda peer: peer.send(b"\0\1\2\3" * 10 + b"\r\n\r\n")),
    failing_transfer(18, response(hits(f'"_id":"{LONG}"'), length=99999), **OFTEN),
    *[failing_transfer(23, response('{"hits":{"total":%d,"total":2,"hits":[]}}' % total)) for total in (1, -1)],
    failing_transfer(28, silence, server="timeout '1'"),
    failing_transfer(52, lambda peer: None),
    fails("Curl error (77)", script=silence, address="https://127.0.0.1", server="cafile '/etc/passwd'"),
    # the response
    failing_search(response('{"error' + REFUSED, "400 Bad Request"), REFUSED, **OFTEN),
    failing_search(response('{"error' + REFUSED), REFUSED, **SCROLL),
    failing_search(response('{"error":"%s%n","status":400}'), '":"%s%n","status":400}'),
    # The innermost object that is four levels deep is the reason.
    failing_search(response(json.dumps({"error": {"failed_shards": [SHARDS]}, "status": 400})),
                   json.dumps(SHARDS["reason"])),
    failing_search(response(hits('"_id":"a"')[:-1] + ',"error":"late"}'), '":"late"}'),
    # What was read of a document when the connection broke: its first 64 KiB.
    failing_search(response(hits(f'"_id":"a","_source":{LARGE}')[:-4], length=999_999), LARGE[:65536],
                   BODY.replace(',"_source":false', ""), select="doccontent", **OFTEN),
    failing_search(response(LONG, "503 Unavailable"), "HTTP status 503", **OFTEN),
    failing_search(response(hits('"_id":"a"', '"_id":"\\ud83d\\ude00"')), BAD_ID),
    failing_search(response(hits('"_id":"\\x"')), BAD_ID), failing_search(raw(hits('"_id":"@"'), b"\xc3("), BAD_ID),
    unreadable(response(CUT), **OFTEN), unreadable(response(hits(HIT)[:10])), unreadable(response("{}")),
    fails("ElasticSearch answer is partial: timed out", partialresults="error", script=PARTIAL, **OFTEN),
    fails("ElasticSearch answer is partial: timed out", partialresults="error", script=second(PARTIAL), **SCROLL),
    fails(TOO_MANY, script=response(hits(HIT, total=2)), batchsize=1, **OFTEN),
    fails(TOO_MANY, script=response(hits(HIT, total='{"value":1,"relation":"gte"}')), batchsize=1),
    *[fails(NUL.format("id"), script=raw(hits(HIT, f'"_id":"a{nul}b"'), b"\0")) for nul in ("\\u0000", "@")],
    fails(NUL.format("type"), select="doctype", script=raw(hits('"_id":"a","_source":{"type":"@"}'), b"\0"), **OFTEN),
    fails('invalid input syntax for type real: "null"', state="22P02", select="score",
          script=response(hits(HIT, '"_id":"a","_score":null')), **OFTEN),
    fails('invalid byte sequence for encoding "UTF8": 0xc3 0x28', state="22021", select="doctype",
          script=raw(hits('"_id":"a","_source":{"type":"@"}'), b"\xc3("), **OFTEN),
    # the second page, whose request has no body but from version 7 on
    failing_search(second(response('{"error' + GONE, "404 Not Found")), GONE, "", **SCROLL, **OFTEN),
    failing_search(second(response('{"error' + GONE, "404 Not Found")), GONE, '{"scroll":"5m","scroll_id":"s"}',
                   **SCROLL, esversion="7"),
    unreadable(second(response(CUT)), "", **SCROLL),
    failing_transfer(18, second(response("{", length=9)), "", **SCROLL, **OFTEN),
]


@pytest.fixture(scope="module", autouse=True)
def odd_types(cluster):
    """A domain with a condition, and the way in for a text that is not valid in the database's encoding."""
    owner = Database(cluster, 0)
    owner.run("CREATE DOMAIN shout text CHECK (value = upper(value)); CREATE CAST (bytea AS text) WITHOUT FUNCTION")
    yield
    owner.run("DROP DOMAIN shout CASCADE; DROP CAST (bytea AS text)")


def prepare(db, server="", mapping="", **options):
    """Makes the tables `books` and `told` as the settings of a failure say, in a session that logs no errors."""
    db.run("SET log_min_messages = fatal; DROP SERVER IF EXISTS failing CASCADE")
    db.run(f"CREATE SERVER failing FOREIGN DATA WRAPPER veltranepgfdw {server and f'OPTIONS ({server})'}")
    db.run(f"CREATE USER MAPPING FOR CURRENT_USER SERVER failing {mapping and f'OPTIONS ({mapping})'}")
    db.make_table(server="failing", **options)
    db.make_table("told", server="failing", **{**options, "fullerrormsg": "true"})


@pytest.mark.parametrize("statement, error, full, settings", FAILURES, ids=[
    f"{number:02} {failure[1][1][:40]}" for number, failure in enumerate(FAILURES)])
def test_message_and_memory(cluster, scripted, statement, error, full, settings):
    options = dict(settings)
    repeats = REPEATS if options.pop("often", False) else max(1, REPEATS // 100)
    scripted.script = options.pop("script", None)
    sends = [[], ["first"], ["first", "next"]] if scripted.script else [[]]
    db = Database(cluster, scripted.port)
    prepare(db, **options)
    assert db.failure(statement) == error
    assert db.outcome("EXPLAIN " + statement) == error or error[1].startswith(RUNNING)
    before = 0
    for count in range(repeats):
        if count == FIRST:
            before = memory(db.pid)
        del scripted.requests[:]
        assert db.failure(statement.replace("books", "told") if full else statement) == (full or error)
        # Nothing is tried twice. A request that was given up may come in late.
        assert [peer.purpose for peer in scripted.requests] in sends or scripted.script is silence
    growth = memory(db.pid) - before
    db.run("DROP SERVER failing CASCADE")
    print(f"{growth:+} KiB after {repeats}: {error[1][:60]}")
    assert repeats < 2 * FIRST or growth <= GROWTH
