"""One backend after very many failing queries of each error text: its memory stays where it was.

VELTRANE_FAILURES is how often each query is repeated: 1000 by default, 10000 for a run at full length. Texts
that a query cannot have within milliseconds are left out, such as that of an answer larger than 1023 MiB.
"""
import os
import socket

import pytest

from conftest import SET_UP, Database, anonymous_memory
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


def fails(message, clause=QUERY, state="HV000", select="docname", **settings):
    """(statement, SQLSTATE, message, settings): `script`, `database`, options of the `server` and of the user
    `mapping`, and those of the table."""
    return f"SELECT {select} FROM books WHERE {clause}", state, message, settings


def wrong(name, takes, value="", **settings):
    """A bad option: one of the table unless the settings say otherwise."""
    return fails(f"option '{name}' takes {takes}", **(settings or {name: value}))


def wrong_column(position, name, declared):
    types = ["text", "bytea", "real", "text", "bytea"]
    right, types[position - 1] = types[position - 1], declared
    columns = "docname {}, doccontent {}, score {}, doctype {}, highlights {}, param text".format(*types)
    message = f'column "{name}" at position {position} should be of type {right}'
    return fails(message, select=name, columns=columns)


def raw(document, value):
    """An answer with a document in which @ stands for these bytes."""
    return answer(hits(document).encode().replace(b"@", value))


REFUSED = '{"error":"' + LONG + '","status":400}'
REFUSAL = f"ElasticSearch error, query was '{BODY}', error was "
PARSER = "Elasticsearhc result parser error"
RANGE = "'compressionlevel' should be in range [-2;9]"
BLANKS = "no blanks, line breaks or other control characters"
NUMBER = "a whole number of milliseconds from 1 to 2147483647"
NO_EURO = ('character with byte sequence 0xe2 0x82 0xac in encoding "UTF8" '
           'has no equivalent in encoding "LATIN1"')
BROKEN = r"'\xc328'::bytea::text"

FAILURES = [
    # the query
    fails("need docname or query clause", "true"),
    fails("need only one param clause", f"{QUERY} AND param = ANY('{{highlight=h}}')"),
    fails(f"Malformed fdw param {LONG} ", f"param = '{LONG}'"),
    fails(f"Unknown fdw param x={LONG} ", f"param = 'x={LONG}'"),
    fails(RANGE, "param IN ('query=q', 'compressionlevel=10')"),
    fails("docname and query clause not supported on same select", f"{QUERY} AND docname = 'x'"),
    fails("'highlight' param could only be used with 'query' param",
          "docname = 'x' AND param = 'highlight=h'"),
    fails("inconsistant OR clause", f"docname = '{LONG}' OR score = 1"),
    fails("fail to extract clause of type ", "docname = upper(doctype)"),
    fails("fail to retrieve column name", select="books"),
    fails("utf8 to json conversion error", f"docname = ANY(ARRAY['ok', {BROKEN}])", "HV00B"),
    fails("utf8 to json conversion error", f"{QUERY} AND doctype = {BROKEN}", "HV00B"),
    # the options
    fails("unsupported connector type", state="HV00D", connectortype="x"),
    fails("missing options on elastic search table", address=None),
    fails(RANGE, compressionlevel="10"),
    wrong("address", "addresses of the schemes http and https only", "ftp://127.0.0.1"),
    *(wrong(name, BLANKS, "a b") for name in ("address", "port", "indexlist", "scrolltimeout")),
    wrong("timeout", NUMBER, server="timeout '0'"),
    wrong("connecttimeout", NUMBER, server="connecttimeout 'x'"),
    wrong("tlsverify", "'true' or 'false'", server="tlsverify 'off'"),
    wrong("cafile", "the absolute path of a file that the server can read", server="cafile 'x'"),
    wrong("username", "a name without colons, blanks and control characters", mapping="username 'a:b'"),
    wrong("apikey", "an encoded key without blanks and control characters", mapping="apikey 'a b'"),
    fails("option 'password' takes effect only with option 'username'", mapping="password 'p'"),
    fails("options 'username' and 'apikey' exclude each other", mapping="username 'u', apikey 'k'"),
    # the columns
    wrong_column(1, "docname", "integer"), wrong_column(2, "doccontent", "integer"),
    wrong_column(3, "score", "text"), wrong_column(4, "doctype", "integer"),
    wrong_column(5, "highlights", "real"),
    # the connection
    fails("Curl error (3)", port="x"),
    fails(f"Curl error (7), query was {BODY}, ", port="closed", fullerrormsg="true"),
    fails("Curl error (1)", script=lambda peer: peer.send(b"\0\1\2\3" * 10 + b"\r\n\r\n")),
    fails("Curl error (18)", script=answer(hits(f'"_id":"{LONG}"'), length=99999)),
    fails("Curl error (23)", script=answer('{"hits":{"total":1,"total":2,"hits":[]}}')),
    fails("Curl error (28)", script=silence, server="timeout '1'"),
    fails("Curl error (52)", script=lambda peer: None),
    fails("Curl error (77)", script=silence, address="https://127.0.0.1", server="cafile '/etc/passwd'"),
    # the answer
    fails("ElasticSearch error", script=answer(REFUSED, "400 Bad Request")),
    fails("ElasticSearch error", script=answer(REFUSED), connectortype="elasticsearchscroll"),
    fails(f"{REFUSAL}'{REFUSED[7:]}'", script=answer(REFUSED), fullerrormsg="true"),
    fails(f"{REFUSAL}'HTTP status 503'", script=answer(LONG, "503 Unavailable"), fullerrormsg="true"),
    fails(PARSER, script=answer(hits(HIT)[:-20])),
    fails(f"{PARSER}, query was {BODY}", script=answer("{}"), fullerrormsg="true"),
    fails("es search result bigger than batch size, use a scroll", script=answer(hits(HIT, total="101"))),
    fails("ElasticSearch error", script=answer(hits(HIT, '"_id":"\\ud83d\\ude00"'))),
    fails("ElasticSearch error", script=raw('"_id":"@"', b"\xc3(")),
    fails("ElasticSearch document id with a NUL character", script=answer(hits(HIT, '"_id":"a\\u0000b"'))),
    fails("ElasticSearch document type with a NUL character", select="doctype",
          script=raw('"_id":"a","_source":{"type":"a@b"}', b"\0")),
    fails('invalid input syntax for type real: "null"', state="22P02", select="score",
          script=answer(hits(HIT, '"_id":"a","_score":null'))),
    fails('invalid byte sequence for encoding "UTF8": 0xc3 0x28', state="22021", select="doctype",
          script=raw('"_id":"a","_source":{"type":"@"}', b"\xc3(")),
    fails(NO_EURO, state="22P05", database="latin1", script=answer(hits(HIT, '"_id":"\u20ac"'))),
]


@pytest.fixture(scope="module")
def closed_port():
    """A port that refuses connections."""
    with socket.socket() as idle:
        idle.bind(("127.0.0.1", 0))
        yield idle.getsockname()[1]


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
    yield
    owner.run("DROP CAST (bytea AS text)")
    owner.run("DROP DATABASE latin1")
    owner.connection.close()


def prepare(db, closed_port, server="", mapping="", **options):
    """Makes the table as the settings of a failure say."""
    # Without the expression compiler, which keeps memory of its own.
    db.run("SET jit = off")
    db.run("SET client_min_messages = error")
    db.run(f"CREATE SERVER failing FOREIGN DATA WRAPPER veltranepgfdw {server and f'OPTIONS ({server})'}")
    db.run(f"CREATE USER MAPPING FOR CURRENT_USER SERVER failing {mapping and f'OPTIONS ({mapping})'}")
    if options.get("port") == "closed":
        options["port"] = closed_port
    db.make_table(server="failing", **options)


@pytest.mark.parametrize("statement, state, message, settings", FAILURES, ids=[
    f"{number:02} {message[:40]}" for number, (_, _, message, _) in enumerate(FAILURES)])
def test_no_memory_behind(cluster, databases, scripted, closed_port, statement, state, message, settings):
    options = dict(settings)
    scripted.script = options.pop("script", scripted.script)
    db = Database(cluster, scripted.port, options.pop("database", "postgres"))
    prepare(db, closed_port, **options)
    for count in range(REPEATS):
        if count == FIRST:
            before = anonymous_memory(db.pid)
        found = db.failure(statement)
        assert found[0] == state and found[1].startswith(message), found
        del scripted.requests[:]
    growth = anonymous_memory(db.pid) - before
    db.run("DROP SERVER failing CASCADE")
    db.connection.close()
    print(f"{growth:+} KiB after {REPEATS}: {message[:60]}")
    assert growth <= GROWTH
