"""Every error text, and one backend after very many failing queries of each: its memory stays where it was.

VELTRANE_FAILURES is how often each query is repeated: 1000 by default, 10000 for a run at full length; below
200 only the texts count. Texts that a query cannot have within milliseconds are left out, such as that of an answer
larger than 1023 MiB.
"""
import json
import os

import pytest

from conftest import SET_UP, Database, memory
from scriptedserver import answer, hits, silence

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


def fails(message, clause=QUERY, state="HV000", select="docname", full=None, **settings):
    """(statement, SQLSTATE, message, the one with `fullerrormsg` or None for the same, settings): `script`,
    `database`, options of the `server` and of the user `mapping`, and those of the table."""
    return f"SELECT {select} FROM books WHERE {clause}", state, message, full or message, settings


def wrong(name, takes, *values, of=None):
    """Bad values of an option, one of the table or `of` the server or the user mapping."""
    return [fails(f"option '{name}' takes {takes}", **({of: f"{name} '{value}'"} if of else {name: value}))
            for value in values]


def wrong_column(position, name, *declared):
    wanted = ["text", "bytea", "real", "text", "bytea"]
    for each in declared:
        types = [*wanted[:position - 1], each, *wanted[position:]]
        columns = "docname {}, doccontent {}, score {}, doctype {}, highlights {}, param text".format(*types)
        yield fails(f'column "{name}" at position {position} should be of type {wanted[position - 1]}',
                    select=name, columns=columns)


def failing_search(script, text, **settings):
    """An answer that is taken for an error of the search, which the full message quotes with the request."""
    return fails("ElasticSearch error", full=f"ElasticSearch error, query was '{BODY}', error was '{text}'",
                 script=script, **settings)


def failing_transfer(code, script=None, **settings):
    return fails(f"Curl error ({code})", full=f"Curl error ({code}), query was {BODY}, ",
                 **({"script": script} if script else {}), **settings)


def unreadable(text, **settings):
    message = "Elasticsearhc result parser error"
    return fails(message, full=f"{message}, query was {BODY}", script=answer(text), **settings)


def raw(document, value):
    """An answer with a document in which @ stands for these bytes."""
    return answer(hits(document).encode().replace(b"@", value))


def second(failing):
    """A script with a first page that is good."""
    first = answer(hits(HIT, total=2, scroll_id="s"))
    return lambda peer: (first if peer.purpose == "first" else failing)(peer)


REFUSED = '":"' + LONG + '","status":400}'
GONE = '":{"root_cause":[],"type":"phase","reason":"all shards failed"},"status":404}'
SHARDS = {"reason": {"type": "illegal", "why": {"a": "}"}}, "shard": 0}
CUT = hits(HIT, HIT)[:-20]
BAD_ID = "json to utf8 conversion error"
NUL = "ElasticSearch document {} with a NUL character"
RANGE = "'compressionlevel' should be in range [-2;9]"
MARKS = "no question marks and number signs"
DOTS = "no path segments '.' and '..'"
BLANKS = "no blanks, line breaks or other control characters"
SCHEMES = "addresses of the schemes http and https only"
NUMBER = "a whole number of milliseconds from 1 to 2147483647"
NO_NUMBERS = "", "0", "-1", "1s", "2147483648", "99999999999999999999", "1.5"
NO_EURO = ('character with byte sequence 0xe2 0x82 0xac in encoding "UTF8" '
           'has no equivalent in encoding "LATIN1"')
LATERAL = "a scan of this foreign table cannot compute values of another table's columns"
JSON_CONTENT = "docname text, doccontent json, score real, doctype text, highlights bytea, param text"
BROKEN = r"'\xc328'::bytea::text"

FAILURES = [
    # the query
    fails("need docname or query clause", "true"),
    fails("need only one param clause", f"{QUERY} AND param = ANY('{{highlight=h}}')"),
    fails(f"Malformed fdw param {LONG} ", f"param = '{LONG}'"),
    fails(f"Unknown fdw param x={LONG} ", f"param = 'x={LONG}'"),
    fails("Unknown fdw param %s%n=x ", "param = '%s%n=x'"),
    fails(RANGE, "param IN ('query=q', 'compressionlevel=10')"),
    fails("docname and query clause not supported on same select", f"{QUERY} AND docname = 'x'"),
    fails("'highlight' param could only be used with 'query' param",
          "docname = 'x' AND param = 'highlight=h'"),
    fails("inconsistant OR clause", f"docname = '{LONG}' OR score = 1"),
    fails("fail to extract clause of type N for docname", "docname = upper(doctype)"),
    fails("fail to retrieve column name", select="books"),
    fails("utf8 to json conversion error", f"docname = ANY(ARRAY['ok', {BROKEN}])", "HV00B"),
    fails("utf8 to json conversion error", f"{QUERY} AND doctype = {BROKEN}", "HV00B"),
    # the options
    fails("unsupported connector type", state="HV00D", connectortype="x"),
    fails("missing options on elastic search table", address=None),
    fails(RANGE, compressionlevel="10"),
    *wrong("address", SCHEMES, "ftp://127.0.0.1", "file:///etc", "FILE:/etc", "gopher://127.0.0.1"),
    *wrong("address", BLANKS, "a b", "127.0.0.1\r\nX: y"), *wrong("indexlist", BLANKS, "a\tb"),
    fails(f"option 'scrolltimeout' takes {BLANKS}", **SCROLL, scrolltimeout="1m \x7f"),
    *wrong("indexlist", MARKS, "books/_delete_by_query#", "b?q=1#"), *wrong("address", MARKS, "h?", "http://h#"),
    *wrong("indexlist", DOTS, "..", "a/../_all", "./a", "a/%2e%2E"), *wrong("address", DOTS, "h/.."),
    *wrong("port", "a number from 1 to 65535", "", "x", "0", "65536", "9200#", "+9200", "80\n", "99999999999999999999"),
    *wrong("port", "a number from 1 to 65535", "9200#", of="server"),
    *wrong("address", SCHEMES, "ftp://127.0.0.1", of="server"),
    *wrong("esversion", "a whole number, the major version of the search servers", "", "0", "-7", "7.8", "v7",
           "2147483648"),
    *wrong("partialresults", "'ignore', 'warning' or 'error'", "Error"),
    *wrong("timeout", NUMBER, *NO_NUMBERS, of="server"), *wrong("connecttimeout", NUMBER, *NO_NUMBERS, of="server"),
    *wrong("tlsverify", "'true' or 'false'", "", "TRUE", "off", of="server"),
    *wrong("cafile", "the absolute path of a file that the server can read", "", "ca.pem", "/no/file", "/etc", "/dev/null",
           of="server"),
    *wrong("username", "a name without colons, blanks and control characters", "", "a:b", "a b", of="mapping"),
    *wrong("apikey", "an encoded key without blanks and control characters", "", "k x", "k\r\nX: y", of="mapping"),
    fails("option 'password' takes effect only with option 'username'", mapping="password 'p'"),
    fails("options 'username' and 'apikey' exclude each other", mapping="username 'u', apikey 'k'"),
    # the columns
    *wrong_column(1, "docname", "int", "varchar(1)", "char(3)", "json", "shout"), *wrong_column(2, "doccontent", "bigint"),
    *wrong_column(3, "score", "int", "double precision", "text"), *wrong_column(4, "doctype", "date", "json"),
    *wrong_column(5, "highlights", "text[]"),
    fails('invalid input syntax for type json', state="22P02", select="doccontent", columns=JSON_CONTENT,
          compressionlevel=-2, script=raw('"_id":"a","_source":{"x":@}', b"wrong")),
    fails("the credentials of the user mapping are only sent where the options 'address' and 'port' of the foreign "
          "server say", mapping="apikey 'k'"),
    ("SELECT n, x.* FROM generate_series(1, 2) n LEFT JOIN LATERAL (SELECT docname, n AS m FROM books WHERE "
     "param = 'query=q') x ON true", "0A000", LATERAL, LATERAL, {}),
    # the connection
    fails("Curl error (3)", address="[x"),
    failing_transfer(7, port="closed"),
    failing_transfer(1, lambda peer: peer.send(b"\0\1\2\3" * 10 + b"\r\n\r\n")),
    failing_transfer(18, answer(hits(f'"_id":"{LONG}"'), length=99999)),
    failing_transfer(23, answer('{"hits":{"total":1,"total":2,"hits":[]}}')),
    failing_transfer(28, silence, server="timeout '1'"),
    failing_transfer(52, lambda peer: None),
    fails("Curl error (77)", script=silence, address="https://127.0.0.1", server="cafile '/etc/passwd'"),
    # the answer
    failing_search(answer('{"error' + REFUSED, "400 Bad Request"), REFUSED),
    failing_search(answer('{"error' + REFUSED), REFUSED, **SCROLL),
    failing_search(answer('{"error":"%s%n","status":400}'), '":"%s%n","status":400}'),
    # The innermost object that is four levels deep is the reason.
    failing_search(answer(json.dumps({"error": {"failed_shards": [SHARDS]}, "status": 400})),
                   json.dumps(SHARDS["reason"])),
    failing_search(answer(hits('"_id":"a"')[:-1] + ',"error":"late"}'), '":"late"}'),
    failing_search(answer(LONG, "503 Unavailable"), "HTTP status 503"),
    failing_search(answer(hits('"_id":"a"', '"_id":"\\ud83d\\ude00"')), BAD_ID),
    failing_search(answer(hits('"_id":"\\x"')), BAD_ID),
    failing_search(raw('"_id":"@"', b"\xc3("), BAD_ID),
    unreadable(CUT), unreadable(hits(HIT)[:10]), unreadable("{}"),
    fails("ElasticSearch answer is partial: timed out", partialresults="error",
          script=answer('{"timed_out":true,' + hits(HIT)[1:])),
    *[fails("es search result bigger than batch size, use a scroll", script=answer(hits(HIT, total=total)), batchsize=1)
      for total in ("2", f"{2**32}", '{"value":1,"relation":"gte"}')],
    fails(NUL.format("id"), script=answer(hits(HIT, '"_id":"a\\u0000b"'))),
    fails(NUL.format("type"), select="doctype", script=raw('"_id":"a","_source":{"type":"a@b"}', b"\0")),
    fails('invalid input syntax for type real: "null"', state="22P02", select="score",
          script=answer(hits(HIT, '"_id":"a","_score":null'))),
    fails('invalid byte sequence for encoding "UTF8": 0xc3 0x28', state="22021", select="doctype",
          script=raw('"_id":"a","_source":{"type":"@"}', b"\xc3(")),
    fails(NO_EURO, state="22P05", database="latin1", script=answer(hits(HIT, '"_id":"\u20ac"'))),
    # the second page, whose request has no body but from version 7 on
    fails("ElasticSearch error", full=f"ElasticSearch error, query was '', error was '{GONE}'",
          script=second(answer('{"error' + GONE, "404 Not Found")), **SCROLL),
    fails("ElasticSearch error", script=second(answer('{"error' + GONE, "404 Not Found")), **SCROLL, esversion="7",
          full=f"""ElasticSearch error, query was '{{"scroll":"5m","scroll_id":"s"}}', error was '{GONE}'"""),
    fails("Elasticsearhc result parser error", full="Elasticsearhc result parser error, query was ",
          script=second(answer(CUT)), **SCROLL),
    fails("Curl error (18)", full="Curl error (18), query was , ", script=second(answer("{", length=9)), **SCROLL),
]


@pytest.fixture(scope="module")
def databases(cluster):
    """A second database, for texts that its encoding does not have."""
    owner = Database(cluster, 0)
    owner.run("CREATE DATABASE latin1 TEMPLATE template0 ENCODING 'LATIN1' LC_COLLATE 'C' LC_CTYPE 'C'")
    latin1 = Database(cluster, 0, "latin1")
    latin1.run(SET_UP.format(module=cluster.module_path))
    latin1.connection.close()
    # The way in for a text that is not valid in the database's encoding.
    owner.run("CREATE CAST (bytea AS text) WITHOUT FUNCTION")
    owner.run("CREATE DOMAIN shout AS text CHECK (value = upper(value))")
    yield
    owner.run("DROP CAST (bytea AS text); DROP DOMAIN shout CASCADE")
    owner.run("DROP DATABASE latin1")
    owner.connection.close()


def prepare(db, closed_port, server="", mapping="", **options):
    """Makes the tables `books` and `told` as the settings of a failure say, in a session that logs no errors."""
    db.run("SET log_min_messages = fatal")
    db.run("DROP SERVER IF EXISTS failing CASCADE")
    db.run(f"CREATE SERVER failing FOREIGN DATA WRAPPER veltranepgfdw {server and f'OPTIONS ({server})'}")
    db.run(f"CREATE USER MAPPING FOR CURRENT_USER SERVER failing {mapping and f'OPTIONS ({mapping})'}")
    if options.get("port") == "closed":
        options["port"] = closed_port
    db.make_table(server="failing", **options)
    db.make_table("told", server="failing", fullerrormsg="true", **options)


@pytest.mark.parametrize("statement, state, message, full, settings", FAILURES, ids=[
    f"{number:02} {failure[2][:40]}" for number, failure in enumerate(FAILURES)])
def test_message_and_memory(cluster, databases, scripted, closed_port, statement, state, message, full, settings):
    options = dict(settings)
    scripted.script = options.pop("script", None)
    sends = [[], ["first"], ["first", "next"]] if scripted.script else [[]]
    db = Database(cluster, scripted.port, options.pop("database", "postgres"), jit=False)
    prepare(db, closed_port, **options)
    forms = [(statement, (state, message))]
    if full != message:
        forms.append((statement.replace("books", "told"), (state, full)))
    before = 0
    for count in range(REPEATS):
        if count == FIRST:
            before = memory(db.pid)
        for query, expected in forms:
            assert db.failure(query) == expected
            # Nothing is tried twice. A request that was given up may come in late.
            assert [peer.purpose for peer in scripted.requests] in sends or scripted.script is silence
            del scripted.requests[:]
    growth = memory(db.pid) - before
    db.run("DROP SERVER failing CASCADE")
    db.connection.close()
    print(f"{growth:+} KiB after {REPEATS}: {message[:60]}")
    assert REPEATS < 2 * FIRST or growth <= GROWTH
