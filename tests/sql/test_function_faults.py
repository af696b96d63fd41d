"""The SQL functions of the search wrapper where something is wrong, or somebody else asks, or elsewhere in a statement."""
import itertools
import json
import time

import pytest

from conftest import Database, SearchServer, bodies, memory, new_database, wait_until
from scriptedserver import hits, named, response, silence
from test_functions import found
from test_search_wrapper import agrees, docs, report  # noqa: F401


# ---- what is wrong ------------------------------------------------------------------------------------------

CALLS = {"hits": "veltranesearch_hits('docs', '{}')", "terms": "veltranesearch_terms('docs', '{a}')",
         "aggregate": "veltranesearch_aggregate('docs', '{\"a\": {}}')", "buckets": "veltranesearch_buckets('docs', '[{}]')",
         "explain": "veltranesearch_explain('docs', 'a', '{}')", "analyze": "veltranesearch_analyze('docs', 'a', 'b')"}


def aggregated(text, *documents):
    return hits(*documents, total=9)[:-1] + f',"aggregations":{text}}}'


def terms(bucket, error=0):
    return aggregated('{"0":{"doc_count_error_upper_bound":%s,"buckets":[%s]}}' % (error, bucket))


def page(bucket, after='{"k":1}'):
    return aggregated('{"buckets":{%s"buckets":[%s]}}' % (after and f'"after_key":{after},', bucket))


def token(**members):
    given = {"token": '"a"', "position": 0, "start_offset": 1, "end_offset": 2, "type": '"t"', **members}
    return '{"tokens":[{%s}]}' % ",".join(f'"{name}":{value}' for name, value in given.items() if value is not None)


BUCKET, TERM, WHY = '{"key":{"k":1},"doc_count":2,"key":{"x":1}}', '{"key":1,"doc_count":2}', '"_id":"a","_index":"i","_score":1'
GOOD = [("hits", hits(*named("a")), [(None, "a", 1.0, *[None] * 5)]), ("terms", terms(TERM), [("a", "1", 2)]),
        ("terms", terms('{"key":5,"key_as_string":"\\ud83d\\udc0b","doc_count":0}'), [("a", "\U0001f40b", 0)]),
        ("aggregate", aggregated('{"a":{"b":1e400}}'), [({"a": {"b": 10 ** 400}},)]), ("aggregate", aggregated('{"a":1,"a":2}'), [({"a": 2},)]),
        ("buckets", page(BUCKET), [({"k": 1}, 2, {"key": {"x": 1}})]), ("buckets", page(BUCKET, ""), [({"k": 1}, 2, {"key": {"x": 1}})]),
        ("buckets", page(""), []), ("explain", hits(WHY + ',"_explanation":{}'), [("i", 1.0, {})]), ("explain", hits(), []),
        ("analyze", token(), [("a", 0, 1, 2, "t")]), ("analyze", '{"tokens":[]}', [])]
PART = '{"timed_out":true,'
BAD = [("terms", terms(f'{{"key":{key},"doc_count":{count}}}')) for key, count in (
           ("null", 1), ("[]", 1), ("{}", 1), ('"\\ud800"', 1), (1, -1), (1, "null"), (1, 1.5), (1, "1e3"), (1, '"1"'), (1, 10 ** 19))] + [
       *[("terms", aggregated(text)) for text in ("{}", "[]", "7", '{"0":{}}', '{"0":{"buckets":{}}}', '{"0":[]}', '{"1":{"buckets":[]}}',
                                                   '{"0":{"buckets":[1]}}', '{"0":{"buckets":[{}]}}')],
       *[("buckets", page(text)) for text in ("7", "[]", "{}", '{"key":{}}', '{"key":1,"doc_count":1}', '{"doc_count":1}',
                                              '{"key":{},"doc_count":-1}', '{"key":{},"doc_count":1e3}', '{"key":{},"doc_count":{}}')],
       *[("buckets", page(BUCKET, after)) for after in ("5", '"x"', "null", "[]")], ("buckets", aggregated('{"buckets":[]}')),
       ("buckets", aggregated('{"buckets":{"buckets":{}}}')), ("buckets", aggregated('{"other":{}}')), ("aggregate", aggregated("{}")),
       ("aggregate", aggregated('{"b":1}')), ("aggregate", aggregated('{"a":"\\u0000"}')), ("explain", hits(WHY)), ("explain", hits(*named("a"))),
       *[(call, aggregated('{"a":{},"0":{"buckets":[]},"buckets":{"buckets":[]}}', *named("a"))) for call in ("terms", "aggregate", "buckets")],
       *[("analyze", text) for text in ("{}", '{"tokens":{}}', '{"tokens":[1]}', '{"tokens":[{}]}', "[]", "7", "<html>")],
       *[("analyze", token(**{name: value})) for name in ("position", "start_offset", "end_offset")
         for value in (None, -1, 1.5, '"1"', "null", 1 << 31)], *[("analyze", token(token=value)) for value in (None, 1, "null", '"\\ud800"')],
       *[(call, PART + text[1:]) for call, text, _ in GOOD if call != "analyze"], *[(call, "garbage") for call in CALLS],
       ("hits", hits(*named("a"), total=2)), ("hits", hits('"_id":"a","_source":{"a":}')), ("hits", hits('"_id":"\\ud800"'))]


@pytest.fixture
def hostile(docs, scripted):  # noqa: F811
    """tell(call, text): the outcome when that is the response, with no buckets behind it."""
    docs.make_documents(scripted.port)
    docs.make()

    def tell(call, text):
        scripted.script = lambda peer: response(page("", "") if b'"after"' in peer.body else text)(peer)
        return docs.outcome("SELECT * FROM " + CALLS[call])
    return tell


def test_hostile(hostile, docs, scripted):  # noqa: F811
    """The rows of a response in order, and an error for any other, wherever it is cut."""
    for call, text, rows in GOOD:
        assert hostile(call, text) == rows, text
        for at in range(0, len(text), 3):
            assert hostile(call, text[:at])[0] == "HV000", text[:at]
    for call, text in BAD:
        outcome = hostile(call, text)
        assert isinstance(outcome, tuple) and outcome[0] in ("HV000", "22P02", "22P05", "22021"), (call, text, outcome)
    scripted.script = response(page(BUCKET))
    assert "the same page" in report(docs, "SELECT * FROM " + CALLS["buckets"])[2]
    assert hostile("terms", terms(TERM, 3)) and "up to 3 documents" in "".join(docs.connection.notices[-1:])
    assert hostile("terms", terms(TERM, -1)) and "not known" in docs.connection.notices.pop()
    scripted.script = response(hits(*named("a", "b", "c"), total=3))
    assert len(found(docs, {"size": 2})) == 2
    docs.make(partialresults="warning")
    for call, text, rows in GOOD:
        if call != "analyze":
            del docs.connection.notices[:]
            assert hostile(call, PART + text[1:]) == rows and "lacks hits" in str(docs.connection.notices), text


KNN = '{"knn": {"field": "v", "k": 3}}'
REFUSED = [  # arguments and what is said of them
    ("hits('docs', '[]')", "22023", 'argument "body" takes a JSON object'), ("hits('docs', '7')", "22023", "takes a JSON object"),
    *[(f"hits('docs', '{{\"{name}\": {{}}}}')", "22023", "something else than hits") for name in ("aggs", "aggregations", "suggest", "s\\u0075ggest")],
    *[(f"hits('docs', '{{\"{name}\": {size}}}')", "22023", f'"{name}" of the body takes a whole number')
      for name in ("size", "from") for size in ("-1", "1.5", "1e400", '"5"', "null", "true", "[]", "9223372036854775808")],
    ("terms('docs', '{a,NULL}')", "22004", 'argument "fields" holds a NULL'), ("terms('docs', '{a}', size => 0)", "22023", "from 1 on"),
    ("terms('docs', '{a}', '[]')", "22023", 'argument "query"'), ("aggregate('docs', '{}')", "22023", "names no aggregation"),
    ("aggregate('docs', '[]')", "22023", 'argument "aggregations"'), ("buckets('docs', '{}')", "22023", 'argument "sources" takes a JSON array'),
    ("buckets('docs', '[]', '[]')", "22023", 'argument "aggregations"'), ("explain('docs', 'a', '\"x\"')", "22023", 'argument "query"'),
    *[(f"hits('{name}', '{{}}')", "42809", "is no foreign table of the wrapper veltranesearch") for name in ("local", "seen", "books", "pg_class", "local_i")],
    ("hits(4000000000, '{}')", "42809", "no foreign table"), ("hits('docs', '{\"a\": \"\\u0000\"}')", "22P05", "")]


def test_refused(docs, search):  # noqa: F811
    docs.run("CREATE TEMP TABLE local (a int); CREATE INDEX local_i ON local (a); CREATE TEMP VIEW seen AS SELECT * FROM docs")
    search.take_journal()
    for call, state, message in REFUSED:
        assert agrees(report(docs, f"SELECT * FROM veltranesearch_{call}"), (state, message)), call
    for call in CALLS.values():
        head, *rest = call.rstrip(")").split(", ")
        for place in range(len(rest) + 1):
            values = [head.replace("'docs'", "NULL") if place == 0 else head, *rest[:max(place - 1, 0)], *["NULL"] * (place > 0), *rest[place:]]
            assert docs.run(f"SELECT * FROM {', '.join(values)})") in ([], [(None,)]), values
    assert bodies(search) == []


@pytest.mark.parametrize("body, size", [(KNN, 101), ('{"collapse": {}}', 101), ('{"retriever": {}}', 101), ('{"from": 9950}', 50)])
def test_unpageable(docs, scripted, body, size):  # noqa: F811
    docs.make_documents(scripted.port)
    docs.make(batchsize=100)
    begin = json.loads(body).get("from", 0)
    for count, total in ((size, begin + size), (size, begin + size + 1), (3, begin + 3)):
        scripted.script = response(hits(*named(*map(str, range(count))), total=total))
        outcome = docs.outcome("SELECT * FROM veltranesearch_hits('docs', %s)", (body,))
        assert outcome[:1] == ("22023",) if total > begin + size else len(outcome) == count
        assert '"size":%d}' % size in scripted.requests[-1].body.decode() and "scroll" not in scripted.requests[-1].path


def test_as_many_groups_as_fit(docs, scripted):  # noqa: F811
    """The total counts documents: that there is no further group is known by asking for one more."""
    docs.make_documents(scripted.port)
    docs.make(batchsize=100)
    scripted.script = response(hits(*named(*map(str, range(100))), total=900))
    assert docs.value("SELECT count(*) FROM veltranesearch_hits('docs', '{\"collapse\": {}}')") == 100


def test_injection(docs, scripted):  # noqa: F811
    """Whatever the arguments hold stays in its place of the request."""
    docs.make_documents(scripted.port)
    docs.make(batchsize=5)
    odd = '"},"size":7,"x":{"\\\u00e9\U0001f40b\u2028'
    for call, values, where in (
            ("hits('docs', %s)", ({odd: odd, "query": {odd: 1}},), lambda sent: (sent[odd], sent["query"][odd], sent["size"])),
            ("terms('docs', ARRAY[%s], %s)", (odd, {odd: odd}), lambda sent: (sent["aggs"]["0"]["terms"]["field"], sent["query"][odd] == odd, sent["size"] + 5)),
            ("aggregate('docs', %s)", ({odd: {}},), lambda sent: (*sent["aggs"], 1, sent["size"] + 5)),
            ("buckets('docs', %s, %s)", ([{odd: 1}], {odd: {}}), lambda sent: (*sent["aggs"]["buckets"]["aggs"], sent["aggs"]["buckets"]["composite"]["sources"][0][odd], sent["size"] + 5)),
            ("explain('docs', %s, %s)", (odd, {odd: 1}), lambda sent: (*sent["query"]["bool"]["filter"][0]["ids"]["values"], sent["query"]["bool"]["must"][0][odd], sent["size"])),
            ("analyze('docs', %s, %s)", (odd, odd), lambda sent: (sent["field"], sent["text"] == odd, 5))):
        docs.outcome(f"SELECT * FROM veltranesearch_{call}", [each if isinstance(each, str) else json.dumps(each) for each in values])
        sent = json.loads(scripted.requests[-1].body)
        assert where(sent) in ((odd, 1, 5), (odd, odd, 5)), call


# ---- whose and where ----------------------------------------------------------------------------------------

def test_rights(docs, scripted):  # noqa: F811
    """EXECUTE and SELECT on the whole table, and the credentials of whoever the function runs as."""
    docs.make_documents(scripted.port)
    docs.make()
    docs.run("DROP ROLE IF EXISTS reader, keeper; CREATE ROLE reader; CREATE ROLE keeper; GRANT SELECT ON docs TO keeper; "
             "CREATE USER MAPPING FOR keeper SERVER documents OPTIONS (apikey 'k'); GRANT SELECT (docname) ON docs TO reader; "
             "CREATE USER MAPPING FOR reader SERVER documents OPTIONS (apikey 'r')")
    try:
        functions = docs.run("SELECT oid::regprocedure::text, proname FROM pg_proc WHERE proname ~ '^veltranesearch_' "
                             "AND proargnames[1] = 'relation' AND proname <> 'veltranesearch_check'")
        assert {name for _, name in functions} == {call.partition("(")[0] for call in CALLS.values()}
        for call in CALLS.values():
            assert docs.failure(f"SET ROLE reader; SELECT {call}") == (
                "42501", f"permission denied for function {call.partition('(')[0]}")
            docs.run("RESET ROLE")
        for function, _ in functions:
            docs.run(f"GRANT EXECUTE ON FUNCTION {function} TO reader, keeper")
        for call in CALLS.values():
            told = report(docs, f"SET ROLE reader; SELECT {call}")
            assert agrees(told, ("42501", "permission denied for foreign table docs", "", "SELECT on the whole table")), call
        assert scripted.requests == []
        docs.run("RESET ROLE; CREATE FUNCTION lent() RETURNS bigint SECURITY DEFINER LANGUAGE sql AS "
                 f"$$SELECT count(*) FROM {CALLS['hits']}$$; ALTER FUNCTION lent() OWNER TO keeper; SET ROLE reader; SELECT lent()")
        docs.run(f"RESET ROLE; GRANT SELECT ON docs TO reader; SET ROLE reader; SELECT {CALLS['hits']}; RESET ROLE; SELECT {CALLS['hits']}")
        assert [peer.headers["Authorization"] for peer in scripted.requests] == ["ApiKey k", "ApiKey r", None]
    finally:
        docs.run("RESET ROLE; DROP OWNED BY reader, keeper CASCADE; DROP ROLE reader, keeper")


PLACES = [
    ("SELECT count(*) FROM generate_series(1, 5) n, LATERAL veltranesearch_hits('docs', jsonb_build_object('size', n))", [(15,)]),
    ("SELECT n, (veltranesearch_hits('docs', '{\"size\": 2}')).docname IS NULL FROM generate_series(1, 2) n", [(1, False)] * 2 + [(2, False)] * 2),
    ("SELECT count(*) FROM (SELECT docname FROM docs) a FULL JOIN veltranesearch_hits('docs', '{}') b USING (docname) "
     "WHERE a.docname = b.docname", [(250,)]),
    ("CREATE VIEW shown AS SELECT * FROM veltranesearch_hits('docs', '{}'); SELECT count(*) FROM shown LIMIT 1", [(250,)]),
    ("BEGIN; DECLARE c SCROLL CURSOR FOR SELECT n FROM (SELECT (source->>'number')::int n FROM veltranesearch_hits('docs', "
     "'{\"sort\": [{\"number\": \"asc\"}]}')) s; FETCH 3 FROM c; MOVE ABSOLUTE 200 FROM c; FETCH BACKWARD 1 FROM c", [(198,)]),
    ("COMMIT; PREPARE p(jsonb) AS SELECT count(*) FROM veltranesearch_hits('docs', $1); EXECUTE p('{\"size\": 3}')", [(3,)]),
    ("EXECUTE p(NULL)", [(0,)]), ("SELECT documents FROM veltranesearch_terms('docs', '{type.keyword}') ORDER BY 1", [(25,), (225,)]),
    ("CREATE FUNCTION caught(b jsonb) RETURNS int LANGUAGE plpgsql AS $$DECLARE r record; n int := 0; BEGIN FOR r IN SELECT * FROM "
     "veltranesearch_hits('docs', b) LOOP n := n + 1; END LOOP; RETURN n; EXCEPTION WHEN fdw_error THEN RETURN -1; END$$; "
     "SELECT sum(caught(b)) FROM (VALUES ('{\"size\": 3}'::jsonb), ('{\"query\": {\"no\": {}}}'), ('{}')) v (b)", [(252,)]),
    ("BEGIN; SAVEPOINT s; SELECT 1", [(1,)]), ("SELECT * FROM veltranesearch_hits('docs', '{\"no\": 1}')", "HV000"),
    ("ROLLBACK TO s; SELECT count(*) FROM veltranesearch_hits('docs', '{}')", [(250,)]), ("COMMIT; DROP VIEW shown; DROP FUNCTION caught", None)]


def test_places(docs, search):  # noqa: F811
    """Wherever SQL lets a function stand; nothing stays open."""
    docs.make(batchsize=100)
    for statement, rows in PLACES:
        outcome = docs.outcome(statement)
        assert (outcome[0] if isinstance(outcome, tuple) else outcome) == rows, statement
    assert search.open_scrolls() == 0


@pytest.mark.parametrize("encoding", ["LATIN1", "SQL_ASCII"])
def test_encodings(cluster, encoding, search):
    owner = Database(cluster, search.port)
    with new_database(owner, "functions", f"ENCODING '{encoding}' LC_COLLATE 'C' LC_CTYPE 'C'") as db, SearchServer(7) as server:
        server.create_index("i", 1, {"properties": {"k": {"type": "keyword"}, "na\u00efve": {"type": "keyword"}}})
        server.put_many("i", [("\u00e9", {"k": "na\u00efve", "na\u00efve": "\u00e9"}), ("b", {"k": "\u65e5"})])
        db.install()
        db.make_documents(server.port)
        db.connection.set_client_encoding("UTF8")
        db.run("CREATE FOREIGN TABLE docs (docname text) SERVER documents OPTIONS (indexlist 'i')")
        query = "{\"term\": {\"k\": \"na\u00efve\"}}"
        assert db.run(f"SELECT docname, source->>'k' FROM veltranesearch_hits('docs', '{{\"query\": {query}}}')") == [("\u00e9", "na\u00efve")]
        assert db.run(f"SELECT * FROM veltranesearch_terms('docs', '{{na\u00efve,k}}', '{query}')") == [("na\u00efve", "\u00e9", 1), ("k", "na\u00efve", 1)]
        assert db.run("SELECT term FROM veltranesearch_analyze('docs', 'na\u00efve', '\u00e9')") == [("\u00e9",)]
        assert len(db.run("SELECT score FROM veltranesearch_explain('docs', '\u00e9', '{\"match_all\": {}}')")) == 1
        everything = db.outcome("SELECT value FROM veltranesearch_terms('docs', '{k}')")
        assert everything[0] == "22P05" if encoding == "LATIN1" else len(everything) == 2
        if encoding == "SQL_ASCII":
            assert agrees(report(db, "SELECT * FROM veltranesearch_terms('docs', ARRAY[E'\\377'])"), ("22023", "not valid UTF-8"))
    owner.connection.close()


def test_cancel(docs, search, scripted):  # noqa: F811
    """In the middle of pages, of a context that goes with it, and wherever the cluster is silent."""
    docs.make(batchsize=1)
    search.seconds_per_document = 0.01
    try:
        docs.run("SET statement_timeout = 300")
        assert docs.failure("SELECT * FROM veltranesearch_hits('docs', '{}')")[0] == "57014"
    finally:
        search.seconds_per_document = 0
    docs.run("RESET statement_timeout; SELECT docname FROM docs LIMIT 1")
    wait_until(lambda: search.open_scrolls() == 0)
    docs.make_documents(scripted.port)
    docs.make()
    for call, pages in itertools.product(CALLS.values(), (0, 1)):
        left = itertools.count(pages, -1)
        scripted.script = lambda peer: (response(hits(*named("a"), total=9, scroll_id="s")[:-1] + "," + page(BUCKET)[-75:]) if next(left) > 0 else silence)(peer)
        docs.run("SET statement_timeout = 200")
        begun = time.monotonic()
        assert docs.outcome("SELECT * FROM " + call)[0] in ("57014", "HV000") and time.monotonic() - begun < 2
    docs.run("RESET statement_timeout")


@pytest.mark.unsanitized
def test_memory_is_flat(docs, scripted):  # noqa: F811
    """However often a call fails or succeeds."""
    docs.make_documents(scripted.port)
    docs.make()
    texts = ["garbage", terms('{"key":1}'), hits('"_id":"a","_source":{"a":}'), terms(TERM), hits(*named("a")), page("")]
    docs.run("SET client_min_messages = error")
    calls = [call for call in CALLS.values() if "analyze" not in call]
    for count in range(2400):
        if count == 400:
            before = memory(docs.pid)
        scripted.script = response(texts[count % 6])
        docs.outcome("SELECT * FROM " + calls[count // 6 % 5])
    assert memory(docs.pid) - before < 400


@pytest.mark.unsanitized
def test_memory_of_many_rows(docs, scripted):  # noqa: F811
    """200,000 hits and buckets, of which no more than a page is in memory at a time."""
    docs.make_documents(scripted.port)
    docs.make(batchsize=10000)
    docs.run("SET work_mem = '1MB'; SET client_min_messages = error")
    total, size = 200_000, 10_000

    def pages(peer):
        start = size * len([each for each in scripted.requests if each.verb == "POST"]) - size
        if "_search?" in peer.path and b"aggs" in peer.body:
            there = ",".join('{"key":{"k":%d},"doc_count":1,"m":{"value":1}}' % number for number in range(start, min(start + size, total)))
            response(page(there, '{"k":%d}' % start if there else ""))(peer)
        else:
            start -= size if "scroll" in "".join(each.path for each in scripted.requests) and len(scripted.requests) > 1 else 0
            response(hits(*['"_id":"%d","_source":{"a":"%s"}' % (number, "x" * 50) for number in range(start, start + size)], total=total, scroll_id="s"))(peer)

    scripted.script = pages
    docs.run("SELECT count(*) FROM veltranesearch_hits('docs', '{\"size\": 10000}')")
    for call in ("hits('docs', '{}')", "buckets('docs', '[{}]')"):
        del scripted.requests[:]
        before = memory(docs.pid, "VmHWM")
        assert docs.value(f"SELECT count(*) FROM veltranesearch_{call}") == total
        assert memory(docs.pid, "VmHWM") - before < 16 << 10, call
