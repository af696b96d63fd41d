"""The search wrapper: what it asks the cluster for, what it refuses and why, how it ends, what it tells."""
import json
import re
import threading
import time

import psycopg2
import pytest

from conftest import Database, SearchServer, bodies, memory, new_database, sockets, unpacked, wait_until
from scriptedserver import response, hits, named, silence

COLUMNS = ("docname text, score real, doctype text OPTIONS (search 'keyword'), docindex text, doccontent jsonb, "
           "highlights jsonb, param text")
ALL = '{"match_all":{}}'
QUERY = """param = 'query={"term":{"title":"whales"}}'"""


@pytest.fixture
def docs(db, search):
    """The session with the table `docs` on the books of the shared search server; docs.make(...) makes it anew."""
    def make(columns=COLUMNS, name="docs", **options):
        texts = ", ".join(f"{key} '{value}'" for key, value in {"indexlist": "books", **options}.items() if value)
        db.run(f"DROP FOREIGN TABLE IF EXISTS {name}; CREATE FOREIGN TABLE {name} ({columns}) SERVER documents "
               f"OPTIONS ({texts})")

    search.expire_scrolls()
    db.make = make
    db.make_documents()
    make()
    return db


def report(db, statement):
    """(SQLSTATE, message, DETAIL, HINT) of a statement that fails."""
    with pytest.raises(psycopg2.Error) as failure:
        db.run(statement)
    diagnostics = failure.value.diag
    return (diagnostics.sqlstate, diagnostics.message_primary, diagnostics.message_detail or "",
            diagnostics.message_hint or "")


# ---- what is asked ------------------------------------------------------------------------------------------

def search(query=ALL, *filters, size=1000, source="false", more=""):
    filtered = f',"filter":[{",".join(filters)}]' if filters else ""
    return f'{{"query":{{"bool":{{"must":[{query}]{filtered}}}}},"size":{size},"track_total_hits":true,"_source":{source}{more}}}'


def ids(*names):
    return '{"ids":{"values":[%s]}}' % ",".join(f'"{name}"' for name in names)


def types(*names):
    return '{"terms":{"type":[%s]}}' % ",".join(f'"{name}"' for name in names)


TERM = '{"term":{"title":"whales"}}'
AS_IT_COMES = ',"sort":["_doc"]'
REQUESTS = [
    ("1 FROM docs", [search(more=AS_IT_COMES)]), ("score FROM docs", [search()]),
    ("doctype FROM docs LIMIT 0", []), ("docname FROM docs LIMIT 3", [search(size=3, more=AS_IT_COMES)]),
    ("docname FROM docs LIMIT 3 OFFSET 2", [search(size=5, more=AS_IT_COMES)]),
    ("docname, score FROM docs ORDER BY score DESC LIMIT 3", [search(size=3)]),
    ("docname FROM docs WHERE length(docname) < 9 LIMIT 3", [search(size=100, more=AS_IT_COMES)]),
    ("docname FROM docs WHERE docname IN ('b001', 'b002', 'b001', '', NULL)",
     [search(ALL, ids("b001", "b002"), size=2, more=AS_IT_COMES)]),
    ("docname FROM docs WHERE docname = 'b001' AND docname IN ('b001', 'b002')",
     [search(ALL, ids("b001"), size=1, more=AS_IT_COMES)]),
    ("docname FROM docs WHERE docname = 'b001' AND docname = 'b002'", []),
    ("docname FROM docs WHERE docname = NULL", []), ("docname FROM docs WHERE docname = ANY ('{}')", []),
    ("docname FROM docs WHERE docname = (SELECT max(docname) FROM docs WHERE docname < 'b000')",
     [search(more=AS_IT_COMES)]),
    ("docname FROM docs WHERE doctype = 'essay'", [search(ALL, types("essay"), source='{"includes":["type"]}', more=AS_IT_COMES)]),
    ("docname FROM plain WHERE doctype = 'essay'", [search(source='{"includes":["type"]}', more=AS_IT_COMES)]),
    ("docname FROM docs WHERE doctype = 'essay' LIMIT 4",
     [search(ALL, types("essay"), size=100, source='{"includes":["type"]}', more=AS_IT_COMES)]),
    (f"doctype, score FROM docs WHERE {QUERY} AND docname = 'b001'",
     [search(TERM, ids("b001"), size=1, source='{"includes":["type"]}')]),
    ("doccontent FROM docs WHERE param = ANY ('{sourceincludefilter=a*,sourceexcludefilter=b,sourceexcludefilter=c}') "
     "AND docname = 'b001'", [search(ALL, ids("b001"), size=1, more=AS_IT_COMES, source='{"includes":["a*"],"excludes":["b","c"]}')]),
    ("""score FROM docs WHERE param IN ('sort=["number"]', 'minscore=0.5') LIMIT 1""",
     [search(size=1, more=',"min_score":0.5,"sort":["number"]')]),
    ("highlights FROM docs WHERE docname = 'b001' AND "
     """param IN ('query={"term":{"title":"whales"}}', 'highlight={"fields":{"title":{}}}')""",
     [search(TERM, ids("b001"), size=1, more=',"highlight":{"fields":{"title":{}}}' + AS_IT_COMES)])]


@pytest.mark.parametrize("statement, expected", REQUESTS)
def test_requests(docs, search, statement, expected):
    docs.make("docname text, doctype text", "plain")
    docs.run("SELECT " + statement)
    assert [json.loads(body) for body in bodies(search) if "scroll" not in body] == list(map(json.loads, expected))
    assert search.open_scrolls() == 0


def test_order(docs):
    """The best by score are those of all: not the first of another order, nor of the first thousand ids."""
    ranked = ('query={"bool":{"should":[{"constant_score":{"filter":{"match_all":{}},"boost":1}},{"constant_score":'
              '{"filter":{"ids":{"values":["b001"]}},"boost":5}}]}}')
    docs.run("CREATE TEMP TABLE ids AS SELECT ARRAY['b002'] || array_agg('x' || n) || ARRAY['b001'] AS all FROM "
             "generate_series(1, 2500) n")
    for more in ("", 'AND docname = ANY ((SELECT "all" FROM ids)::text[])'):
        assert docs.run(f"SELECT docname, score FROM docs WHERE param = '{ranked}' {more} ORDER BY score DESC LIMIT 1") == [
            ("b001", 6.0)]
    for order, first in (("score", 1.0), ("docname DESC", "b249"), ("score DESC, docname DESC LIMIT 1 OFFSET 1", 1.0)):
        row, = docs.run(f"SELECT docname, score FROM docs WHERE param = '{ranked}' ORDER BY {order} " + "LIMIT 1" * ("LIMIT" not in order))
        assert first in row, order
    for sort in ("asc", "desc"):
        param = f"ARRAY['{ranked}', 'sort=[{{\"_score\":\"{sort}\"}}]']"
        assert docs.run(f"SELECT docname FROM docs WHERE param = ANY ({param}) ORDER BY score DESC LIMIT 1") == [("b001",)]


def test_place(docs, scripted):
    """A path prefix is kept, and names of indices cannot leave their place in it."""
    scripted.script = response(hits())
    docs.make_documents(address=f"http://127.0.0.1:{scripted.port}/prefix/")
    docs.make(indexlist="<b\u00f6-{now/d}>,-a*,c?d#e")
    docs.run("SELECT docname FROM docs LIMIT 1")
    assert scripted.requests[-1].path == (
        "/prefix/%3Cb%C3%B6-%7Bnow%2Fd%7D%3E,-a*,c%3Fd%23e/_search?allow_no_indices=false")


def test_proxy(docs, scripted):
    """Requests go to the proxy for a cluster that nobody else knows, with the credentials for that."""
    scripted.script = response(hits())
    docs.make_documents(address="http://cluster.invalid:9200", proxy=f"http://127.0.0.1:{scripted.port}")
    docs.run("CREATE USER MAPPING FOR PUBLIC SERVER documents OPTIONS (apikey 'k')")
    docs.make()
    assert docs.run("SELECT docname FROM docs LIMIT 1") == []
    peer, = scripted.requests
    assert peer.path.startswith("http://cluster.invalid:9200/books/") and peer.headers["Authorization"] == "ApiKey k"
    docs.run("ALTER SERVER documents OPTIONS (SET proxy 'http://nobody.invalid:1')")
    told = report(docs, "SELECT docname FROM docs LIMIT 1")
    assert agrees(told, ("HV00N", "could not connect", "(libcurl 5)", '"proxy"'))


def test_many_ids(docs, search):
    """As many ids as a statement has, a thousand at a time, whoever finds them."""
    docs.run("CREATE TEMP TABLE names AS SELECT 'b' || lpad(n::text, greatest(3, length(n::text)), '0') AS name FROM generate_series(0, 99999) n")
    search.take_journal()
    assert docs.value("SELECT count(docname) FROM docs WHERE docname = ANY (ARRAY(SELECT name FROM names))") == 250
    assert {len(json.loads(body)["query"]["bool"]["filter"][0]["ids"]["values"]) for body in bodies(search)} == {1000}


# ---- what is refused ----------------------------------------------------------------------------------------

BAD_PARAM = "a condition on \"param\" cannot be given to the search"
KINDS = "The parameters are query, highlight, sort"
NO_OPTION = "invalid option \"{}\""


def bad(value, message, detail="", hint=""):
    return f"SELECT * FROM docs WHERE param = '{value}'", ("22023", message, detail, hint)


def far(number, fault, message, detail, hint="", state="HV000"):
    return number, fault, (state, message, detail, hint)


def option(catalog, text, message, hint="", state="22023"):
    statements = {"server": "CREATE SERVER s FOREIGN DATA WRAPPER veltranesearch OPTIONS ({})",
                  "table": "CREATE FOREIGN TABLE t (docname text) SERVER documents OPTIONS ({})",
                  "mapping": "CREATE USER MAPPING FOR PUBLIC SERVER documents OPTIONS ({})",
                  "column": "CREATE FOREIGN TABLE t (doctype text OPTIONS ({})) SERVER documents OPTIONS (indexlist 'i')",
                  "wrapper": "ALTER FOREIGN DATA WRAPPER veltranesearch OPTIONS ({})"}
    return statements[catalog].format(text), (state, message, "", hint)


A, I = "address 'http://h:1', ", "indexlist 'i', "
URL = 'option "address" takes an http or https URL of host, port and path prefix, without credentials'
REFUSALS = [
    *[option("server", f"address '{url}'", URL) for url in ("", "h:9200", "ftp://h", "http://u:p@h", "http://h?x", "http:// h", "http://h,", ",http://h",
                                                                     "http://a,,http://b", "http://a, http://b", "http://a,b:9200", "http://a,http://u@b")],
    option("server", "tlsverify 'no'", 'option "address" of the foreign server is required', state="HV00J"),
    option("server", "adress 'x'", NO_OPTION.format("adress"), 'Perhaps you meant the option "address": URL of the cluster', "HV00D"),
    option("server", "x 'x'", NO_OPTION.format("x"), "Valid options in this context are: address,", "HV00D"),
    option("wrapper", "x 'x'", NO_OPTION.format("x"), "There are no options in this context.", "HV00D"),
    option("server", A + "timeout '1s'", 'option "timeout" takes a whole number from 1 to 2147483647'),
    *[option("server", A + f"{name} '2'", f'option "{name}" takes true or false')
      for name in ("tlsverify", "keepconnections", "pageahead", "httpcompression", "opaqueid")],
    *[option("server", A + f"retries '{number}'", 'option "retries" takes a whole number from 0 to 10') for number in ("-1", "11", "x")],
    option("server", A + "proxy 'h'", 'option "proxy" takes an http or https URL of host and port, without credentials'),
    option("server", A + "rowcost '-1'", 'option "rowcost" takes a number that is not negative'),
    option("server", A + "cafile '/etc'", 'option "cafile" takes the absolute path of a file that the server can read'),
    option("table", "batchsize '1'", 'option "indexlist" of the foreign table is required', "Name the index", "HV00J"),
    *[option("table", f"indexlist '{names}'", 'option "indexlist" takes names of indices, separated by commas, without '
             "blanks") for names in ("", "a b", "..")],
    *[option("table", I + f"batchsize '{size}'", 'option "batchsize" takes a whole number from 1 to 10000')
      for size in ("0", "10001", "x", "")],
    option("table", I + "scrolltimeout '5'", 'option "scrolltimeout" takes a whole number and one of the units ms, s, m, '
           "h and d"),
    option("table", I + "partialresults 'ignore'", 'option "partialresults" takes error or warning'),
    option("table", I + "compressionlevel '10'", 'option "compressionlevel" takes a whole number from -2 to 9'),
    option("table", I + "estimatedrows '0'", 'option "estimatedrows" takes a whole number from 1 to 2000000000'),
    option("table", I + "badvalues 'NULL'", 'option "badvalues" takes error or null'),
    option("column", "search 'text'", 'option "search" takes keyword, byte, short, integer, long, unsigned_long, half_float, '
           "float, double, scaled_float, date, boolean or ip"),
    *[option("column", f"{name} '{path}'", f'option "{name}" takes the name of a field, with dots between the names of objects')
      for name in ("field", "searchfield") for path in ("", ".a", "a.", "a..b")],
    option("column", "format 'iso'", 'option "format" takes epoch_millis or epoch_second'),
    option("column", "ignoreabove '-1'", 'option "ignoreabove" takes a whole number from 0 to 2147483647'),
    *[option("column", f"scalingfactor '{factor}'", 'option "scalingfactor" takes a positive number') for factor in ("0", "inf")],
    option("column", "search 'scaled_float'", "option \"search\" 'scaled_float' takes effect only with option \"scalingfactor\"",
           state="HV00J"),
    option("column", "searchfield 'a'", 'option "searchfield" takes effect only with option "search"', state="HV00J"),
    option("mapping", "username 'a:b', password 'x'", 'option "username" takes a name without colons, blanks and control '
           "characters"),
    option("mapping", "apikey 'a b'", 'option "apikey" takes an encoded key without blanks and control characters'),
    option("mapping", "password 'x'", 'option "password" takes effect only with option "username"', state="HV000"),
    option("mapping", "username 'a', apikey 'x'", 'options "username" and "apikey" exclude each other', state="HV000"),
    option("mapping", "clientcert '/etc/passwd'", 'options "clientcert" and "clientkey" take effect only together',
           state="HV000"),
    bad("query={x}", 'parameter "query" takes a JSON object', "unexpected character, at character 2 of: {x}"),
    bad("query={\"\u00e9\":1,}", 'parameter "query" takes a JSON object', "at character 8 of: "),
    bad("query=[]", 'parameter "query" takes a JSON object', "it begins as something else, at character 1 of: []"),
    bad('query={"a":1', 'parameter "query" takes a JSON object', "it is cut off, at character 7 of: "),
    bad('highlight={}},"size":9', 'parameter "highlight" takes a JSON object', "more stands behind it, at character 3"),
    bad("sort={}", 'parameter "sort" takes a JSON array', "it begins as something else"),
    bad("minscore=1x", 'parameter "minscore" takes a number', "at character 2 of: 1x"),
    bad("compressionlevel=10", 'parameter "compressionlevel" takes a whole number from -2 to 9'),
    bad("whales", 'a value of "param" is no parameter', "whales", KINDS),
    bad("qeury={}", 'there is no parameter "qeury"', "", KINDS),
    ("SELECT * FROM docs WHERE param IN ('query={}', 'query={\"a\":1}')",
     ("22023", 'parameter "query" is given twice', "", "A search has one of it.")),
    *[("SELECT docname FROM docs WHERE " + clause, ("0A000", BAD_PARAM, "", "no column of the same table, no volatile "))
      for clause in ("param = docname", "param = 'query={}' OR score > 1", "param = (random()::text)")],
    ("SELECT 1 FROM docs WHERE param IN ('query={}', 'sort=[]') AND param IN ('minscore=1', 'sort=[]')",
     ("0A000", 'a search takes one condition on "param"', "", "Give all parameters in one")),
    ("SELECT doctype, doccontent FROM docs WHERE param = 'sourceincludefilter=a'",
     ("0A000", 'source filters shape "doccontent" and would shape "doctype" too', "", "Leave one of the two")),
    ("SELECT ctid FROM docs", ("0A000", "documents have no system columns but tableoid", "", "")),
    ("SELECT title FROM odd", ("HV004", 'column "title" is of a type that no field of a document has', "", "Types of ")),
    ("SELECT score FROM odd", ("HV004", 'column "score" should be of type real or double precision', "", "")),
    ("SELECT docname FROM odd WHERE docname = 'b001'", ("23514", "value for domain short violates check", "", "")),
    ("SELECT highlights FROM odd LIMIT 1",
     ("23502", 'null value in column "highlights" of a foreign table violates its not-null constraint', "", "")),
    ("INSERT INTO docs (docname) VALUES ('x')", ("0A000", 'cannot insert into foreign table "docs"', "", ""))]


def agrees(found, expected):
    return found[0] == expected[0] and all(part in whole for part, whole in zip(expected[1:], found[1:]))


@pytest.mark.parametrize("statement, expected", REFUSALS)
def test_refusals(docs, search, statement, expected):
    docs.run("DROP DOMAIN IF EXISTS short CASCADE; CREATE DOMAIN short AS text CHECK (length(VALUE) < 3)")
    docs.make("docname short, title bytea, score int, doctype text, highlights jsonb NOT NULL", "odd")
    search.take_journal()
    assert agrees(report(docs, statement), expected)
    assert not bodies(search) or expected[0].startswith("23")


REFUSED, UNREADABLE = "the search cluster refused the request", "the response of the search cluster cannot be read"
CONTEXT = hits('"_id":"a","_source":{}', total=9, scroll_id="s")
FAULTS = [
    *[far(status, response(body, f"{status} No"), REFUSED, f": HTTP status {status}" + reason, hint)
      for status, body, reason, hint in [
          (400, '{"error":{"type":"parsing_exception","reason":"no [x]","caused_by":{"type":"t","reason":"deep"}}}',
           ": parsing_exception: no [x]; t: deep", "If the query is meant as it is"),
          (401, "", "", 'Check "username" and "password"'), (403, '{"error":"no"}', ": no", "do not allow this search"),
          (404, '{"error":{"type":"index_not_found_exception","reason":"r"}}', ": index_not_found_exception: r",
           'Check the option "indexlist"'), (413, "<html>", ": <html>", "larger than the cluster takes"),
          (400, '{"error":"no handler found for uri [/x]"}', ": no handler", "Check the path in the option"),
          (429, "{}", ": {}", "too many scroll contexts"), (503, "", "", "not available"), (301, "", "", "not followed")]],
    far("quoted", response("x" * 9999, "500 No"), REFUSED, "x" * 2048), far("no search", response("{}"), UNREADABLE, "/_search"),
    far("gone", lambda peer: (response(CONTEXT) if peer.purpose == "first" else response("{}", "404 No"))(peer), REFUSED,
        "POST http://127.0.0.1:", "The scroll context is gone"),
    far("partial", response('{"_shards":{"total":3,"successful":2,"failed":1,"failures":[{"reason":{"type":"t","reason":'
                            '"r"}}]},' + hits()[1:]), "the response of the search cluster lacks hits",
        "1 of 3 shards failed or did not respond: t: r", "Look at the cluster's health."),
    far("late", response('{"timed_out":true,' + hits()[1:]), "lacks hits", "timed out"),
    far("lost", response(hits(*named("a"), total=2)), "the search cluster did not return all hits",
        "1 hits arrived, 2 are said to match", "Try again"),
    far("bound", response(hits(total='{"value":1,"relation":"gte"}')), UNREADABLE, "no exact total of hits"),
    far("sourceless", response(hits(*named("a"))), "a document comes without its source", "Index , id a.", '"_source" switched off'),
    far("id", response(hits('"_id":"\\ud800","_source":{}')), "an id or the name of an index is not valid Unicode", "ud800",
        state="22021"),
    far("source", response(hits('"_id":"a","_source":{"type":-01}')), "the source of a document is no valid JSON object",
        "id a."), far("cut", response("{", length=99), "the exchange with the search cluster broke off", "(libcurl 18)"),
    far("time", silence, "the exchange with the search cluster broke off", "(libcurl 28)", '"connecttimeout" and "timeout"'),
    far("none", None, "could not connect to the search cluster", "(libcurl 7)", "its port included (9200 is usual)", "HV00N")]


@pytest.mark.parametrize("fault, expected", [case[1:] for case in FAULTS], ids=[case[0] for case in FAULTS])
def test_failures(docs, scripted, fault, expected):
    """An error tells where, what and why, and what to do; the next query of the session is not its heir."""
    docs.make_documents(scripted.port if fault else 1, timeout=300)
    docs.run("CREATE USER MAPPING FOR PUBLIC SERVER documents OPTIONS (username 'me', password 'sesame')")
    docs.make()
    scripted.script = fault
    for _ in range(2):
        told = report(docs, "SELECT docname, doctype FROM docs")
        assert agrees(told, expected) and "sesame" not in str(told) and len(told[2]) < 2500, told
    scripted.script = response(hits())
    assert not fault or docs.run("SELECT docname FROM docs") == []


def test_missing_values(docs, scripted):
    """What a hit does not have is NULL, whatever the hit before it had."""
    docs.make_documents(scripted.port)
    docs.make()
    whole = '"_index":"i","_id":"a","_score":1.5,"_source":{"type":"t"},"highlight":{"x":[]}'
    scripted.script = response(hits(whole, '"_id":"b","_source":{}', whole.replace('"a"', '"c"')))
    values = (1.5, "t", "i", {"type": "t"}, {"x": []}, None)
    assert docs.run("SELECT * FROM docs") == [
        ("a", *values), ("b", None, None, None, {}, None, None), ("c", *values)]


def test_warnings(docs, scripted):
    docs.make_documents(scripted.port)
    docs.make(partialresults="warning")
    scripted.script = response('{"timed_out":true,' + hits(*named("a"))[1:])
    assert docs.run("SELECT docname FROM docs") == [("a",)]
    assert "lacks hits" in docs.connection.notices.pop()


# ---- how it ends --------------------------------------------------------------------------------------------

@pytest.mark.parametrize("version", [6, 9])
def test_no_context_stays(cluster, version):
    """A thousand statements, which end in every way; the search server has room for few contexts."""
    endings = ["SELECT count(docname) FROM docs", "SELECT docname FROM docs WHERE length(docname) > 0 LIMIT 1",
               "SELECT 1 / (length(docname) - 4) FROM docs", "SELECT (SELECT docname FROM docs LIMIT 1) FROM docs LIMIT 2",
               "BEGIN; DECLARE c CURSOR FOR SELECT * FROM docs; FETCH 3 FROM c; CLOSE c; COMMIT",
               "BEGIN; DECLARE c CURSOR FOR SELECT * FROM docs; FETCH 3 FROM c; ROLLBACK",
               "BEGIN; DECLARE c CURSOR WITH HOLD FOR SELECT * FROM docs; FETCH 3 FROM c; COMMIT; CLOSE c",
               "BEGIN; SAVEPOINT s; DECLARE c CURSOR FOR SELECT * FROM docs; FETCH 3 FROM c; ROLLBACK TO s; COMMIT",
               "SELECT pg_cancel_backend(pg_backend_pid()), pg_sleep(9) FROM docs", "SELECT EXISTS (SELECT FROM docs WHERE length(docname) > 1)"]
    with SearchServer(version) as server:
        server.create_index("books", 3)
        server.put_many("books", [(f"b{n:03}", {}) for n in range(40)])
        server.max_scroll_contexts = 12
        db = Database(cluster, server.port)
        db.make_documents()
        db.run("CREATE FOREIGN TABLE docs (docname text) SERVER documents OPTIONS (indexlist 'books', batchsize '5')")
        errors = set()
        for number in range(1000):
            outcome = db.outcome(endings[number % len(endings)])
            if isinstance(outcome, tuple):
                errors.add(outcome[0])
                db.run("ROLLBACK")
        assert errors == {"22012", "57014"}
        assert db.value("SELECT count(docname) FROM docs") == 40
        assert server.open_scroll_contexts() == 0
        # A session that ends with an open cursor leaves nothing either.
        db.run("BEGIN; DECLARE c CURSOR FOR SELECT * FROM docs; FETCH 3 FROM c")
        db.connection.close()
        wait_until(lambda: server.open_scroll_contexts() == 0)


@pytest.mark.parametrize("where", ["first", "next", "delete"])
def test_cancel(docs, scripted, where):
    """Wherever the cluster falls silent, a query ends soon after its time, and its connection with it."""
    pages = {"first": CONTEXT, "next": CONTEXT, "delete": "{}"}
    now_silent = lambda peer: (silence if peer.purpose == where else response(pages[peer.purpose]))(peer)
    docs.make_documents(scripted.port, keepconnections="false")
    docs.make("docname text", batchsize=1)
    docs.run("SELECT count(*) FROM docs; SET statement_timeout = 400")
    scripted.script = now_silent
    before, start = sockets(docs.pid), time.monotonic()
    # What is deleted at the end of a query that has its rows takes none of them back.
    statement = "SELECT docname FROM docs WHERE length(docname) > 0" + " LIMIT 1" * (where == "delete")
    assert docs.outcome(statement)[0] == (("a",) if where == "delete" else "57014")
    assert time.monotonic() - start < 1.9
    wait_until(lambda: sockets(docs.pid) == before)
    docs.run("RESET statement_timeout")
    scripted.script = response(hits())
    assert docs.run(statement) == []


@pytest.mark.unsanitized
@pytest.mark.parametrize("statement", ["SELECT * FROM docs", "SELECT * FROM docs WHERE param = 'query={\"x\":{}}'",
                                       "SELECT 1 / (length(docname) - 4) FROM docs"])
def test_memory_is_flat(docs, statement):
    docs.make(batchsize=100)
    for count in range(500):
        if count == 100:
            before = memory(docs.pid)
        docs.outcome(statement)
    assert memory(docs.pid) - before < 300


# ---- what it tells ------------------------------------------------------------------------------------------

def plan(db, statement, options=""):
    return "\n".join(line for (line,) in db.run(f"EXPLAIN ({options}COSTS off) {statement}"))


def test_explain(docs, search):
    """The request with expressions in place of what is not known yet; nothing is sent. ANALYZE counts."""
    shown = plan(docs, "SELECT b.score FROM (VALUES ('b001', 'query={}')) v (n, q) JOIN docs b ON b.docname = lower(v.n) "
                 "AND b.param = v.q AND b.doctype = 'book'", "VERBOSE, ")
    assert not bodies(search)
    assert f"Search: POST http://127.0.0.1:{search.port}/books/_search" in shown and "Body: {\"query\":" in shown
    docs.run("PREPARE s(text, text[]) AS SELECT docname FROM docs WHERE param = $1 AND docname = ANY ($2)")
    docs.make_generic("EXECUTE s('query={}', '{a}')")
    shown = plan(docs, "EXECUTE s('query={}', '{a}')", "VERBOSE, ")
    assert '"must":[<$1>],"filter":[{"ids":{"values":[<$2>]}}]' in shown
    assert '"size":1,' in plan(docs, "SELECT docname FROM docs WHERE docname = 'b001'", "VERBOSE, ")
    told = plan(docs, "SELECT docname FROM docs", "ANALYZE, TIMING off, SUMMARY off, ")
    assert re.search(r"Requests: 1\n *Pages: 1\n *Hits: 250\n *Bytes Received: \d{4,}", told)
    assert "Waited: " in plan(docs, "SELECT docname FROM docs", "ANALYZE, ")
    secret = "CREATE USER MAPPING FOR PUBLIC SERVER documents OPTIONS (apikey 'sesame')"
    docs.run(secret)
    assert "sesame" not in plan(docs, "SELECT docname FROM docs", "VERBOSE, ANALYZE, ")


def test_plans(docs):
    """Look-ups by id where few rows are joined, a hash join where many are; no just-in-time compiler for a few hits."""
    docs.run("CREATE TEMP TABLE names AS SELECT 'b' || n AS name, n FROM generate_series(1, 99999) n; "
             "CREATE INDEX ON names (n); ANALYZE names")
    join = "SELECT * FROM names JOIN docs ON docname = name"
    assert "Nested Loop" in plan(docs, join + " WHERE n < 4") and "Hash Join" in plan(docs, join)
    if docs.set("jit", "on"):
        assert "JIT" not in plan(docs, "SELECT * FROM docs ORDER BY score DESC LIMIT 10", "ANALYZE, ")
    docs.run("ANALYZE docs")
    assert docs.value("SELECT reltuples FROM pg_class WHERE relname = 'docs'") == 250
    assert docs.value("SELECT n_distinct FROM pg_stats WHERE tablename = 'docs' AND attname = 'doctype'") == 2


def test_waits_are_shown(docs, scripted, cluster):
    """The wait event, and the timer of the kernel's that asks a silent cluster whether it is still there."""
    docs.make_documents(scripted.port)
    docs.make()
    other, seen = Database(cluster, 0), []
    scripted.script = lambda peer: (seen.extend(other.run(
        "SELECT wait_event_type, state FROM pg_stat_activity WHERE pid = %s", (docs.pid,))), response(hits())(peer))
    docs.run("SELECT docname FROM docs")
    assert seen == [("Extension", "active")]
    timers = []

    def look(peer):
        time.sleep(0.3)  # until other timers have gone
        lines = [line.split() for line in open("/proc/net/tcp", encoding="ascii").readlines()[1:]]
        timers.extend(line[5].split(":")[0] for line in lines if line[2].endswith(f":{scripted.port:04X}") and line[3] == "01")
        response(hits())(peer)

    scripted.script = look
    docs.run("SELECT docname FROM docs")
    assert timers == ["02"]
    other.connection.close()


# ---- values -------------------------------------------------------------------------------------------------

def check_types(db, encoding):
    db.install()
    db.make_documents()
    db.connection.set_client_encoding("UTF8")
    wanted = "E'na\\303\\257ve'" if encoding == "SQL_ASCII" else "'na\u00efve'"
    for kind in ("jsonb", "json", "text", "bytea")[encoding == "SQL_ASCII":]:  # whose jsonb takes no \\u00e9
        db.run(f"DROP FOREIGN TABLE IF EXISTS i; CREATE FOREIGN TABLE i (doccontent {kind}, gone int, docname text, "
               "score double precision, doctype text, docindex text) SERVER documents OPTIONS (indexlist 'i'); "
               "ALTER FOREIGN TABLE i DROP COLUMN gone")
        (content, *rest), = db.run(f"SELECT * FROM i WHERE docname = {wanted}")
        text = unpacked(content) if kind == "bytea" else content
        assert (text if isinstance(text, dict) else json.loads(text)) == {"type": "\u00e9", "a": "\u00ef"}
        assert rest == ["na\u00efve", 1.0, "\u00e9", "i"]
        other = db.outcome("SELECT doctype FROM i WHERE docname LIKE '_' OR docname LIKE '___'")
        assert other[0] == ("22P05" if encoding == "LATIN1" else (None,))


@pytest.mark.parametrize("encoding", ["UTF8", "LATIN1", "SQL_ASCII"])
def test_types_and_encodings(cluster, encoding):
    """Every type of every column, of documents with and without the value, in the database's encoding."""
    with SearchServer(7) as server:
        server.create_index("i", 1, {"properties": {"type": {"type": "object", "enabled": False}}})
        server.put("i", "na\u00efve", '{"type":"\\u00e9","a":"\u00ef"}')
        server.put("i", "\u65e5", {"type": {"no": 1}})
        owner = Database(cluster, server.port)
        with new_database(owner, "typed", f"ENCODING '{encoding}' LC_COLLATE 'C' LC_CTYPE 'C'") as db:
            check_types(db, encoding)
        owner.connection.close()


# ---- other sessions -----------------------------------------------------------------------------------------

BESIDE_LOANS = "SELECT name, n, score FROM loans JOIN {0} ON docname = name WHERE n < 9 FOR UPDATE OF loans"
COUNTED_BESIDE_LOANS = ("SELECT n, (SELECT count(*) FROM {0} WHERE docname = name) FROM loans, (SELECT count(*) AS c FROM {0}) s "
                        "WHERE n < c - 241 AND (SELECT count(*) FROM {0}) = 250 FOR UPDATE OF loans")


@pytest.mark.parametrize("off, asked", [("enable_nestloop", BESIDE_LOANS), ("enable_hashjoin", BESIDE_LOANS),
                                        ("enable_sort", COUNTED_BESIDE_LOANS)])
def test_rows_that_others_change_meanwhile(docs, cluster, off, asked):
    """A row that was locked late is joined again as it is then: with the document, as with a local copy of it."""
    other = Database(cluster, 0)
    docs.run("CREATE TABLE loans (name text, n int); CREATE TABLE kept AS SELECT docname, score FROM docs")
    waiting = "SELECT wait_event_type = 'Lock' FROM pg_stat_activity WHERE pid = %s"
    for change in ("n = n + 1", "n = 1000", "name = 'b009'"):
        outcomes = []
        for relation in ("kept", "docs"):
            docs.run(f"TRUNCATE loans; INSERT INTO loans VALUES ('b001', 1), ('b002', 2); SET {off} = off")
            other.run("BEGIN")
            other.run(f"UPDATE loans SET {change} WHERE name = 'b001'")
            locked = threading.Thread(target=lambda text=relation: outcomes.append(docs.outcome(
                asked.format(text))))
            locked.start()
            wait_until(lambda: other.value(waiting, (docs.pid,)))
            other.run("COMMIT")
            locked.join()
        assert sorted(map(repr, outcomes[0])) == sorted(map(repr, outcomes[1])), change
    docs.run("DROP TABLE loans, kept")
    other.connection.close()


# ---- rights -------------------------------------------------------------------------------------------------

def test_rights(docs, scripted):
    """Each user's credentials go with the user's own queries, the view owner's with those of its view; files are the
    superuser's to name."""
    scripted.script = response(hits(*named("a")))
    docs.make_documents(scripted.port)
    docs.make("docname text")
    docs.run("DROP ROLE IF EXISTS reader, keeper; CREATE ROLE reader; CREATE ROLE keeper; GRANT SELECT ON docs TO keeper; "
             "CREATE USER MAPPING FOR keeper SERVER documents OPTIONS (username 'keeper', password 'k'); "
             "CREATE USER MAPPING FOR reader SERVER documents OPTIONS (apikey 'r'); "
             "CREATE VIEW shown AS SELECT * FROM docs; ALTER VIEW shown OWNER TO keeper; GRANT SELECT ON shown TO reader; "
             "GRANT USAGE ON FOREIGN SERVER documents TO reader; GRANT USAGE ON FOREIGN DATA WRAPPER veltranesearch TO reader")
    try:
        docs.run("SET ROLE reader")
        for shown in ("*", "count(*)"):
            assert docs.outcome(f"SELECT {shown} FROM docs")[0] == "42501"
        assert docs.run("SELECT * FROM shown") == [("a",)]
        scripted.script = response(hits(total=7))
        assert docs.value("SELECT count(*) FROM shown") == 7
        scripted.script = response(hits(*named("a")))
        for statement in ("CREATE SERVER own FOREIGN DATA WRAPPER veltranesearch OPTIONS (address 'http://h', cafile '/etc/passwd')",
                          "ALTER USER MAPPING FOR reader SERVER documents OPTIONS (ADD clientcert '/etc/passwd')"):
            assert report(docs, statement)[1].startswith("only superusers may set the option")
        docs.run("RESET ROLE; GRANT SELECT ON docs TO reader; SET ROLE reader; SELECT * FROM docs")
        sent = [peer.headers["Authorization"] for peer in scripted.requests]
        assert sent == ["Basic a2VlcGVyOms="] * 2 + ["ApiKey r"]
    finally:
        docs.run("RESET ROLE; DROP OWNED BY reader, keeper CASCADE; DROP ROLE reader, keeper")
