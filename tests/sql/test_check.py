"""The check functions: each check once as it should be and once not, and nothing that makes them fail."""
import re
import subprocess
import time

import pytest

from conftest import every_version, new_database, secured_with
from scriptedserver import Relay, ScriptedServer, endless, response, silence

SECRET = "s3cr3t-v4lu3"
OPTIONS = ["options of the foreign server", "user mapping", "encryption", "time-outs"]
TABLE, CLUSTER = ["options of the foreign table", "columns"], ["scroll contexts", "round trip"]
NODE, INDICES = ["host name", "connection", "credentials", "version"], ["search", "shards", "page size", "mapping"]


class Checked:
    """The table `docs` of the books, through the scripted server `near`, which plays `script` for one `path`."""

    def __init__(self, db, search, near):
        self.db, self.search, self.near, near.script, self.path = db, search, near, self.answer, "-"

    def answer(self, peer):
        (self.script if re.fullmatch(self.path, peer.path) else Relay(self.search.port).forward)(peer)

    def make(self, columns="docname text, number bigint OPTIONS (search 'long')", index="books", **options):
        self.db.make_documents(**{"address": f"http://127.0.0.1:{self.near.port}", **options})
        self.db.run(f"CREATE FOREIGN TABLE docs ({columns}) SERVER documents OPTIONS (indexlist '{index}')")

    def rows(self, function="veltranesearch_check('docs')"):
        rows = self.db.run(f"SELECT what, ok, concat_ws(' | ', detail, hint) FROM {function}")
        assert SECRET not in str(rows)
        return rows

    def odd(self):
        """[(what, ok)] of what is not as it should be, the texts of that, and whether all was looked at."""
        rows = self.rows()
        odd = [row for row in rows if row[1] is not True]
        return [row[:2] for row in odd], " ".join(row[2] for row in odd), rows[-1][0] == CLUSTER[-1]


@pytest.fixture
def checked(db, search, scripted):
    made = Checked(db, search, scripted)
    made.make()
    yield made
    db.run("DROP SERVER documents CASCADE")


@every_version
def test_all_is_well(checked):
    rows = checked.rows()
    assert [row[:2] for row in rows] == [(what, True) for what in OPTIONS + TABLE + NODE + INDICES + CLUSTER]
    assert [row[:2] for row in checked.rows("veltranesearch_checkserver('documents')")] == [
        (what, True) for what in OPTIONS + NODE + CLUSTER]
    texts = {what: text for what, _, text in rows}
    assert texts["search"] == "250 documents" and f"version {checked.search.dialect.number}" in texts["version"]
    assert re.search(r"to 127\.0\.0\.1, in \d+\.\d ms", texts["connection"])
    assert [peer.number for peer in checked.near.requests] == [1] * 9 + [2] * 5, "a connection for each node"
    checked.make(address=f"http://127.0.0.1:{checked.near.port},http://127.0.0.1:{checked.search.port}")
    assert [row[0] for row in checked.rows()] == OPTIONS + TABLE + NODE * 2 + INDICES + CLUSTER
    assert len(checked.near.requests) == 9 + 5 + 9, "the first node goes on"


# What catalogs may hold, though no CREATE takes it now.
CATALOGS = {"server": "pg_foreign_server SET srvoptions = %s WHERE srvname = 'documents'",
            "mapping": "pg_user_mapping SET umoptions = %s",
            "table": "pg_foreign_table SET ftoptions = %s WHERE ftrelid = 'docs'::regclass",
            "column": "pg_attribute SET attfdwoptions = %s WHERE attrelid = 'docs'::regclass AND attname = 'number'"}


@pytest.mark.parametrize("catalog, options, what, text, goes_on", [
    ("server", "address=h:9200", OPTIONS[0], "takes an http or https URL", False),
    ("server", "@ adress=x", OPTIONS[0], 'Perhaps you meant the option "address"', True),
    ("server", "", OPTIONS[0], "required", False), ("server", "@ timeout=9999", OPTIONS[3], "connecttimeout", True),
    ("mapping", f"password={SECRET}", OPTIONS[1], 'only with option "username"', False),
    ("mapping", f"token={SECRET}", OPTIONS[1], 'invalid option "token"', True),
    ("mapping", f"apikey={SECRET}", OPTIONS[2], "in clear", True),
    ("table", "indexlist=books batchsize=0", TABLE[0], "takes a whole number", False),
    ("table", "indexlist=books future=1", TABLE[0], 'invalid option "future"', True),
    *[("column", option, 'column "number"', text, True) for option, text in (
        ("search=text", "takes keyword"), ("future=1", '"future"'), ("search=scaled_float", '"scalingfactor"'))]])
def test_options(checked, catalog, options, what, text, goes_on):
    checked.db.run("CREATE USER MAPPING FOR CURRENT_USER SERVER documents")
    options = options.replace("@", f"address=http://127.0.0.1:{checked.near.port}").split()
    checked.db.run("UPDATE " + CATALOGS[catalog], (options,))
    found, told, is_whole = checked.odd()
    assert found == [(what, False)] and text in told and is_whole == goes_on == bool(checked.near.requests)


def test_what_is_declared(checked):
    for who, said in (None, "none"), ("PUBLIC", "public"), ("CURRENT_USER", "user postgres"):
        checked.db.run(f"CREATE USER MAPPING FOR {who} SERVER documents" if who else "SELECT")
        assert said in checked.rows()[1][2]
    checked.make('docname integer, a point, "B" text OPTIONS (field \'title\')')
    assert checked.odd()[0] == [('column "docname"', False), ('column "a"', False)]
    for each in ("('pg_class')", "(4294967295)", "('books')", "server('x')", "server('search')"):
        what = "foreign server" if "server" in each else "foreign table"
        assert [row[:2] for row in checked.rows("veltranesearch_check" + each)] == [(what, False)]


def info(version, more=""):
    return response('{"cluster_name":"c","version":{"number":"%s"%s}}' % (version, more))


SEARCH, HEALTH, STATS = "/books/_search.*", "/_cluster/health/books", "/_nodes/stats/indices/search"
MAPPINGS, SETTINGS, CONTEXTS = "/books/_mapping", "/books/_settings.*", CLUSTER[0]
DENIED, UNKNOWN, BROKEN = response("{}", "403 No"), response("{}", "400 No"), response('{"a":')
PARTIAL = '{"took":1,"_shards":{"total":2,"successful":1},"hits":{"total":{"value":1,"relation":"eq"},"hits":[]}}'
LOAD = '{"nodes":{"x":{"name":"n1","indices":{"search":{"scroll_current":%s}}},"y":{"indices":{"search":{}}}}}'
SLOW = lambda peer: (time.sleep(0.15), info("7.0.0")(peer))
HEALTHY, WINDOW = '{"status":"%s","unassigned_shards":3}', '{"books":{"settings":{"index.max_result_window":"999"}}}'
# Answers to "/" after which nothing makes sense; others, by paths; and those that leave it open.
ENDS = [(response('{"error":{"type":"t","reason":"who?"}}', "401 No"), "credentials", "who?"),
        (response("", "302 Found"), "response", "Redirects"), (endless(b"["), "response", "256 MiB"),
        (response("no", "503 No"), "response", "503: no"), (lambda peer: None, "response", "(libcurl 52)"),
        (lambda peer: peer.send(b"SSH-2.0\r\n"), "response", "(libcurl 1)"), (silence, "response", "(libcurl 28)"),
        (response("<html>"), "version", "cannot be read"), (response("{}"), "version", "no Elasticsearch")]
OTHERS = [
    ("/", info("5.6.0"), "version", "5.6.0"), ("/", info("10.0.0"), "version", "10.0.0"),
    ("/", info("7.1.0", ',"distribution":"else"'), "version", "of else"), ("/", SLOW, "round trip", "requestcost"),
    (SEARCH, DENIED, "search", "do not allow this search"), (SEARCH, BROKEN, "search", "cannot be read"),
    (SEARCH, response(PARTIAL), "search", "1 of 2 shards"), (SEARCH, silence, "search", "(libcurl 28)"),
    (HEALTH, response(HEALTHY % "red"), "shards", "without a node: 3"), (HEALTH, BROKEN, "shards", "cannot be read"),
    (HEALTH, response(HEALTHY % "yellow"), None, ""), (STATS, response(LOAD % 400), None, ""),
    (STATS, response(LOAD % 401), CONTEXTS, "401 are open on a node (n1)"),
    (SETTINGS, response(WINDOW), "page size", "takes 999"),
    (MAPPINGS, response("", "500 No"), "mapping", "status 500")]
OPEN = [("/", DENIED, "credentials", "monitor"), (STATS, response("{}"), CONTEXTS, "not tell"), *[
    (path, answer, what, text) for answer, text in ((DENIED, "privilege"), (UNKNOWN, "no such path"))
    for path, what in ((HEALTH, "shards"), (STATS, CONTEXTS), (MAPPINGS, "mapping"), (SETTINGS, "page size"))]]


@pytest.mark.parametrize("path, answer, what, text, ok, goes_on", [
    *[("/", *each, False, False) for each in ENDS], *[(*each, False, True) for each in OTHERS],
    *[(*each, None, True) for each in OPEN]])
def test_responses(checked, path, answer, what, text, ok, goes_on):
    checked.make(connecttimeout="900", timeout="1000" if answer is silence else "20000")
    checked.path, checked.script = path, answer
    found, told, is_whole = checked.odd()
    assert found == [(what, ok)] * bool(what) and text in told and is_whole == goes_on
    assert goes_on or len(checked.near.requests) == 1, "nothing is tried again"


@pytest.mark.parametrize("place, options, what, text", [
    ("http://n.invalid", {}, "host name", "(libcurl 6)"), ("http://127.0.0.1:1", {}, "connection", "(libcurl 7)"),
    ("http://127.0.0.1:{full}", {"connecttimeout": "300"}, "connection", "(libcurl 28)"),
    ("http://h", {"proxy": "http://n.invalid"}, "host name", '"proxy"'),
    ("https://127.0.0.1:{near}", {}, "TLS", "35)")])
def test_unreachable(checked, full_port, place, options, what, text):
    """A node that cannot be used; with another one beside it all goes on."""
    place, checked.near.unread = place.format(full=full_port, near=checked.near.port), 9
    checked.make(address=place, **options)
    found, told, is_whole = checked.odd()
    assert found == [(what, False)] and text in told and not is_whole
    checked.make(address=f"{place},http://127.0.0.1:{checked.search.port}", **options)
    assert checked.odd()[::2] == ([(what, False)] * (1 + len(options.keys() & {"proxy"})), "proxy" not in options)


@pytest.mark.parametrize("certificate, options, ok, text", [
    ("fresh", "cafile '{}/fresh.pem'", True, "verified, issued by"), ("good", "cafile '{}/good.pem'", False, "Renew"),
    ("fresh", "cafile '{}/good.pem'", False, "self"), ("fresh", "tlsverify 'false'", True, "not verified, issued"),
    ("elsewhere", "cafile '{}/elsewhere.pem'", False, "host name '127.0.0.1'")])
def test_tls(checked, certificates, certificate, options, ok, text):
    make = "openssl req -x509 -newkey rsa:2048 -nodes -days 60 -keyout fresh.key -out fresh.pem -subj /CN=fresh"
    subprocess.run([*make.split(), "-addext", "subjectAltName=IP:127.0.0.1"], cwd=certificates, check=True)
    (certificates / "fresh.pem").chmod(0o644)
    with ScriptedServer(checked.answer, secured_with(certificates, certificate)) as node:
        checked.make(address=f"https://127.0.0.1:{node.port}")
        checked.db.run(f"ALTER SERVER documents OPTIONS (ADD {options.format(certificates)})")
        checked.db.run(f"CREATE USER MAPPING FOR PUBLIC SERVER documents OPTIONS (apikey '{SECRET}')")
        rows = {row[0]: row[1:] for row in checked.rows()}
        assert rows["TLS"][0] is ok and text in rows["TLS"][1] and rows["encryption"][0] is ("cafile" in options)
        assert (CLUSTER[-1] in rows) == (ok or text == "Renew") == bool(node.requests)


KEYWORD, RAW = {"type": "keyword"}, {"type": "keyword", "ignore_above": 9}
FIELDS = {"k": KEYWORD, "l": {"type": "long"}, "d": {"type": "double"}, "null": {**KEYWORD, "null_value": "x"},
          "raw": RAW, "t": {"type": "text", "fields": {"keyword": KEYWORD, "raw": RAW}}, "n": {"type": "nested"},
          "o": {"properties": {"k": KEYWORD}}, "a": {"type": "alias", "path": "k"}, "day": {"type": "date"},
          "ms": {"type": "date", "format": "epoch_millis"}, "odd": {"type": "date", "format": "yyyy"},
          "scaled": {"type": "scaled_float", "scaling_factor": 100}}
# A field, the type of its column, and the column's further options, by what the check makes of them.
COLUMNS = {True: """k text; l text; l integer; d numeric[]; day date; odd text; o jsonb; n jsonb; o.k text; n.any text
    ms date format='epoch_millis' search='date'; day date format='epoch_millis'; k text search='keyword'
    raw text search='keyword' ignoreabove='9'; raw text search='keyword' ignoreabove='8'
    t text search='keyword' searchfield='t.keyword'; t text search='keyword' searchfield='t.raw' ignoreabove='9'
    scaled numeric search='scaled_float' scalingfactor='1e2'""", False: """k integer; l boolean; d integer; d text
    ms timestamptz; odd date; o text; a text; lost text; t.raw text; ms date format='epoch_second'; k text search='ip'
    day date format='epoch_second'; raw text search='keyword'; t text search='keyword'; null text search='keyword'
    t text search='keyword' searchfield='t.raw' ignoreabove='10'; l integer search='integer'
    scaled numeric search='scaled_float' scalingfactor='10'""", None: "t text search='keyword' searchfield='k'"}
SEVERAL = [("typed,other", "k boolean", "other the field k is mapped as long"), ("typed,other", "k text, d real", ""),
           ("typed,other", "d real OPTIONS (search 'double')", "other does not"), ("none", "k text", "no such index")]


def test_columns(checked):
    checked.search.create_index("typed", mappings={"properties": FIELDS})
    checked.search.create_index("other", mappings={"properties": {"k": FIELDS["l"]}})
    for ok, columns in COLUMNS.items():
        made = []
        for field, kind, *options in map(str.split, re.split("[;\n]", columns)):
            options = ", ".join([f"field '{field}'", *options]).replace("=", " ")
            made.append(f"c{len(made)} {kind} OPTIONS ({options})")
        checked.make(", ".join(made), "typed")
        assert checked.odd()[0] == [(f'column "{each.split()[0]}"', ok) for each in made if not ok]
    for indices, columns, text in SEVERAL:
        checked.make(columns, indices)
        assert text in (told := checked.odd())[1] and len(told[0]) == bool(text)


def test_privileges_and_cancel(checked):
    run, fail = checked.db.run, checked.db.failure
    table, server = (f"SELECT ok FROM veltranesearch_check{each}')" for each in ("('docs", "server('documents"))
    run("CREATE ROLE guest; SET ROLE guest")
    for grant in ("EXECUTE ON FUNCTION veltranesearch_check, veltranesearch_checkserver", "SELECT ON docs"):
        assert fail(table)[0] == fail(server)[0] == "42501" and not checked.near.requests
        run(f"RESET ROLE; GRANT {grant} TO guest; SET ROLE guest")
    assert {ok for ok, in run(table)} == {True} and fail(server)[0] == "42501"
    run("RESET ROLE; GRANT USAGE ON FOREIGN SERVER documents TO guest; SET ROLE guest")
    assert {ok for ok, in run(server)} == {True}
    run("RESET ROLE; DROP OWNED BY guest; DROP ROLE guest")
    for path in "/", SEARCH, STATS:
        checked.path, checked.script, begin = path, silence, time.monotonic()
        assert fail(f"SET statement_timeout = 300; {table}")[0] == "57014" and time.monotonic() - begin < 2


def test_encodings(checked):
    """Names of columns are in that of the database, the cluster's texts and the requests are not."""
    with new_database(checked.db, "japanese", "ENCODING 'EUC_JP' LC_COLLATE 'C' LC_CTYPE 'C'") as session:
        session.install()
        session.connection.set_client_encoding("UTF8")
        there = Checked(session, checked.search, checked.near)
        there.make('"\u65e5" text, docname text')
        there.path, there.script = "/", info("5.0", ',"distribution":"\u65e5\u20ac"')
        found, text, _ = there.odd()
        assert found == [("version", False), ('column "\u65e5"', False)]
        assert "of \u65e5? |" in text and "field \u65e5." in text
        there.path, there.script = "/.*", response(b"\xc3(\xe4", "503 No")
        there.make(address=f"http://127.0.0.1:{checked.near.port}/\u65e5")
        assert ": ?(? |" in there.odd()[1]
