"""The bundled search server: its answers against recorded exchanges, and what its queries find."""

import http.client
import json
import re
import signal
import subprocess
import sys

import pytest

from conftest import ROOT, SearchServer

pytestmark = pytest.mark.unsanitized

RECORDINGS = ROOT / "tests" / "data" / "recordings"
JSON = {"Content-Type": "application/json"}


def send(server, path, body=None, method="POST", headers=JSON):
    """(status, headers, text) of one exchange; a body that is no text is sent as JSON."""
    connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=20)
    try:
        data = body if body is None or isinstance(body, (str, bytes)) else json.dumps(body)
        connection.request(method, path, data.encode() if isinstance(data, str) else data, headers)
        response = connection.getresponse()
        return response.status, response.headers, response.read().decode()
    finally:
        connection.close()


def ask(server, path, body=None, method="POST"):
    """The answer to a request that succeeds."""
    status, _, text = send(server, path, body, method, JSON if body is not None else {})
    assert status == 200, text
    return json.loads(text)


def find(server, body, path="/books//_search"):
    return ask(server, path, body)["hits"]


def ids(hits):
    return [hit["_id"] for hit in hits["hits"]]


# Recorded exchanges

def recording(name):
    return json.loads((RECORDINGS / f"{name}.json").read_text(encoding="utf-8"))


def recorded_sources(text):
    """{id: raw source} of a recorded answer's text."""
    found = {}
    for place in re.finditer(r'"_id":("(?:[^"\\]|\\.)*"),"_score":[^,]*,"_source":', text):
        end = json.JSONDecoder().raw_decode(text, place.end())[1]
        found[json.loads(place[1])] = text[place.end():end]
    return found


# By version, what belongs together in the order of the recording: up to "delete", the pages of one scroll.
SCROLLS = {7: [f"scroll-{name}" for name in (
    "1 2 3 4 delete delete-again after-delete malformed-id bad-timeout empty body-2 body-delete").split()],
    8: [f"v8-scroll-{name}" for name in "1 2 delete body-2 body-delete".split()]}
SINGLE = sorted({path.stem for path in RECORDINGS.glob("*.json")} - {"terms-aggregation", *SCROLLS[7], *SCROLLS[8]})
SCROLL_ID_HEAD = 45  # characters that are the same in every scroll id of as many shards


@pytest.fixture(scope="module")
def recorded_servers():
    """{version: server} with the recorded documents."""
    def documents(name):
        return recorded_sources(recording(name)["response"])

    books = documents("search-large")
    indices = {"books": books, "notes": {f"n{place}": raw for place, raw in enumerate(list(books.values())[:50])},
               "emoji": documents("ids-emoji"), "oldbooks": documents("partial-shard-failure"),
               "wide": {**{f"w{number}": "{}" for number in range(120)}, **documents("scroll-wide-1")}}
    with SearchServer(7) as seven, SearchServer(8) as eight:
        for server in (seven, eight):
            for name, sources in indices.items():
                server.create_index(name, 60 if name == "wide" else 2)
                server.put_many(name, sources.items())
        yield {7: seven, 8: eight}


def shape(value, key=None):
    """Member names in their order and JSON types; of a source only that it is an object."""
    if key == "_source":
        return "object"
    if isinstance(value, dict):
        return [(name, shape(inner, name)) for name, inner in value.items()]
    if isinstance(value, list):
        return [shape(inner) for inner in value]
    return type(value).__name__


def masked(value):
    """An error without names that a server makes up and texts that come from its libraries; shards that differ in
    nothing but their numbers count as one."""
    if isinstance(value, dict):
        from_library = str(value.get("type", "")).startswith(("json_", "array_index_"))
        hidden = {"node", "index_uuid", "reason"} if from_library else {"node", "index_uuid"}
        return {name: None if name in hidden else masked(inner) for name, inner in value.items()}
    if isinstance(value, list):
        items = [masked(inner) for inner in value]
        return [item for place, item in enumerate(items) if item not in items[:place]]
    return re.sub(r" for id \[\d+\]$", " for id []", value) if isinstance(value, str) else value


@pytest.mark.parametrize("name", SINGLE)
def test_answers_like_the_recording(recorded_servers, name):
    recorded = recording(name)
    request, server = recorded["request"], recorded_servers[8 if name.startswith("v8-") else 7]
    status, headers, text = send(server, request["path"], request["body"], request["method"])
    assert (status, headers["content-type"]) == (recorded["status"], recorded["headers"]["content-type"])
    assert int(headers["content-length"]) == len(text.encode())
    assert ("warning" in headers) == ("warning" in recorded["headers"])
    ours, theirs = json.loads(text), json.loads(recorded["response"])
    assert shape(ours) == shape(theirs)
    mine, recorded_id = ours.get("_scroll_id", ""), theirs.get("_scroll_id", "")
    assert (len(mine), mine[:SCROLL_ID_HEAD]) == (len(recorded_id), recorded_id[:SCROLL_ID_HEAD])
    if "error" in theirs:
        assert masked(ours) == masked(theirs)
    elif "hits" in theirs:
        assert ours["hits"]["total"] == theirs["hits"]["total"]
        assert {**ours["_shards"], "failures": 0} == {**theirs["_shards"], "failures": 0}
        size = json.loads(request["body"]).get("size", 10)
        if len(theirs["hits"]["hits"]) < size:
            assert sorted(ids(ours["hits"])) == sorted(ids(theirs["hits"]))
        # Scores differ, and so does the order: what both answers show must be the same to the byte.
        mine, sources = {hit["_id"]: hit for hit in ours["hits"]["hits"]}, recorded_sources(text)
        for hit in (hit for hit in theirs["hits"]["hits"] if hit["_id"] in mine):
            assert {**mine[hit["_id"]], "_score": 0} == {**hit, "_score": 0}
        for doc_id, raw in recorded_sources(recorded["response"]).items():
            assert sources.get(doc_id, raw) == raw
    assert name != "ids-emoji" or '"_id":"\\uD83D\\uDC0B"' in text


@pytest.mark.parametrize("version, opened, left", [(7, 3, 1), (8, 2, 0)])
def test_scrolls_like_the_recordings(recorded_servers, version, opened, left):
    server, names = recorded_servers[version], SCROLLS[version]
    server.expire_scrolls()
    before = server.opened_scrolls
    # No recording tells how the scroll of "body-2" began; its page is the last ten of 250 hits.
    first = ask(server, "/books/_search?scroll=1m", {"size": 240})
    known = {json.loads(recording(names[-2])["request"]["body"])["scroll_id"]: first["_scroll_id"]}
    pages, recorded_pages, first_scroll = {}, [], True
    for name in names:
        recorded = recording(name)
        path, body = recorded["request"]["path"], recorded["request"]["body"] or ""
        for theirs, ours in known.items():
            path, body = path.replace(theirs, ours), body.replace(theirs, ours)
        # None of the requests that carry no body says of what type it is.
        status, _, text = send(server, path, body or None, recorded["request"]["method"], JSON if body else {})
        ours, theirs = json.loads(text), json.loads(recorded["response"])
        assert (name, status) == (name, recorded["status"])
        if "hits" not in theirs:
            assert masked(ours) == masked(theirs)
            first_scroll = False
            continue
        assert shape(ours) == shape(theirs)
        known[theirs["_scroll_id"]] = ours["_scroll_id"]
        assert {**ours["hits"], "hits": 0} == {**theirs["hits"], "hits": 0} and ours["_shards"] == theirs["_shards"]
        if first_scroll:
            pages.update((hit["_id"], hit) for hit in ours["hits"]["hits"])
            recorded_pages += theirs["hits"]["hits"]
    # The order of equal scores is the server's own; with it, which hits the pages of half a scroll show.
    assert len(pages) == len(recorded_pages) == {7: 250, 8: 200}[version]
    assert all(pages.get(hit["_id"], hit) == hit for hit in recorded_pages)
    assert (server.opened_scrolls - before, server.open_scrolls()) == (opened, left)


# What queries find

BOOKS = {
    "whale": {"title": "The white whale", "text": "A whale, a whale! The sea hid the Whale.", "year": 1851,
              "type": "novel", "tags": ["sea", "hunt"], "author": {"name": "Herman", "born": 1819}},
    "pond": {"title": "Life at a pond", "text": "The pond was still. No whale was seen in it, and no ship.",
             "year": 1854, "type": "essay", "tags": ["nature"], "author": {"name": "Henry", "born": 1817}},
    "café": {"title": "Café talk", "text": "Don't shout 漢字 in the café.", "year": 1990.5, "type": "novel",
             "tags": [], "sold": True},
    "blank": {"title": "Nothing", "year": None},
}


@pytest.fixture(scope="module")
def server():
    with SearchServer() as server:
        server.put_many("books", BOOKS.items())
        server.put("notes", "n1", {"title": "A note on the whale", "year": "old"})
        yield server


MATCH_WHALE = {"match": {"text": "whale"}}


@pytest.mark.parametrize("query, expected", [
    (MATCH_WHALE, ["whale", "pond"]),
    ({"match": {"text": "WHALE ship still"}}, ["pond", "whale"]),
    ({"match": {"text": {"query": "WHALE ship", "operator": "and"}}}, ["pond"]),
    ({"match": {"text": "don't"}}, ["café"]),
    ({"match": {"title": "cafe"}}, []),
    ({"match": {"author.name": "henry"}}, ["pond"]),
    ({"term": {"tags": "hunt"}}, ["whale"]),
    ({"terms": {"_id": ["blank", "café", "nope", "blank"]}}, ["café", "blank"]),
    ({"range": {"year": {"gt": 1851, "lte": "1990.5"}}}, ["pond", "café"]),
    ({"range": {"title.keyword": {"lt": "L"}}}, ["café"]),
    ({"exists": {"field": "year"}}, ["whale", "pond", "café"]),
    ({"bool": {"must": MATCH_WHALE, "filter": [{"term": {"type": "essay"}}]}}, ["pond"]),
    ({"bool": {"must_not": MATCH_WHALE}}, ["café", "blank"]),
    ({"bool": {"should": [{"term": {"type": "essay"}}, {"term": {"sold": True}}]}}, ["pond", "café"]),
    ({"bool": {"filter": {"prefix": {"type": "nov"}}, "should": {"term": {"sold": True}}}}, ["café", "whale"]),
    ({"bool": {"should": [MATCH_WHALE, {"term": {"type": "essay"}}], "minimum_should_match": "100%"}}, ["pond"]),
], ids=str)
def test_query(server, query, expected):
    hits = find(server, {"query": query})
    assert ids(hits) == expected
    assert hits["total"] == {"value": len(expected), "relation": "eq"}
    scores = [hit["_score"] for hit in hits["hits"]]
    assert scores == sorted(scores, reverse=True) and hits["max_score"] == (scores[0] if scores else None)


SOURCES = [
    (False, None),
    (["title", "author.b*"], {"title": "The white whale", "author": {"born": 1819}}),
    ({"includes": ["t*"], "excludes": ["text"]},
     {"title": "The white whale", "type": "novel", "tags": ["sea", "hunt"]}),
    ({"include": "author", "exclude": "*.name"}, {"author": {"born": 1819}}),
]
LONG = "One whale came first. " + "Then a calm grey winter followed them all. " * 4 + "The last whale left."
HIGHLIGHTS = [
    ("books", {"fields": {"t*": {}}, "require_field_match": False, "pre_tags": ["<b>"], "post_tags": ["</b>"]},
     {"title": ["The white <b>whale</b>"], "text": ["A <b>whale</b>, a <b>whale</b>! The sea hid the <b>Whale</b>."]}),
    ("books", {"fields": [{"text": {"fragment_size": 15, "number_of_fragments": 2}, "title": {}}]},
     {"text": ["A <em>whale</em>, a", "<em>whale</em>!"]}),
    ("long", {"fields": {"text": {}}},
     {"text": ["One <em>whale</em> came first. Then a calm grey winter followed them all.",
               "The last <em>whale</em> left."]}),
]
SORTS = [
    ("year", [("whale", 1851), ("pond", 1854), ("café", 1990.5), ("blank", 2 ** 63 - 1)]),
    ([{"year": {"order": "desc"}}], [("café", 1990.5), ("pond", 1854), ("whale", 1851), ("blank", -2 ** 63)]),
    ({"title.keyword": "desc"},
     [("whale", "The white whale"), ("blank", "Nothing"), ("pond", "Life at a pond"), ("café", "Café talk")]),
]


def test_parts_of_a_search(server):
    server.put("long", "1", {"text": LONG})
    for wanted, expected in SOURCES:
        hit, = find(server, {"query": {"ids": {"values": "whale"}}, "_source": wanted})["hits"]
        assert (wanted, hit.get("_source")) == (wanted, expected)
    for index, highlight, expected in HIGHLIGHTS:
        hit = find(server, {"query": MATCH_WHALE, "highlight": highlight}, f"/{index}/_search")["hits"][0]
        assert (highlight, hit.get("highlight")) == (highlight, expected)
    for sort, expected in SORTS:
        hits = find(server, {"sort": sort})
        assert [(hit["_id"], *hit["sort"]) for hit in hits["hits"]] == expected
        assert hits["max_score"] is None and all(hit["_score"] is None for hit in hits["hits"])
        assert find(server, {"sort": sort, "track_scores": True})["max_score"] == 1.0
    assert ids(find(server, {}, "/n*,books/_search/")) == ["n1", *BOOKS]
    assert find(server, {"query": {"bool": {"filter": MATCH_WHALE}}})["max_score"] == 0.0


# What differs between the versions

@pytest.mark.parametrize("version, total, doc_type, warned", [
    (6, 1, "_doc", False), (7, {"value": 1, "relation": "eq"}, "_doc", True),
    (8, {"value": 1, "relation": "eq"}, None, False), (9, {"value": 1, "relation": "eq"}, None, False)])
def test_dialects(version, total, doc_type, warned):
    with SearchServer(version) as server:
        assert send(server, "/books/_doc/1", {"title": "x"}, "PUT")[0] == 201
        assert ask(server, "/", method="GET")["version"]["number"].startswith(f"{version}.")
        for path in ("/books/_search", "/books/_search/", "/_search", "/_all/_search"):
            hits = find(server, {}, path)
            assert (hits["total"], hits["hits"][0].get("_type")) == (total, doc_type)
        status, headers, _ = send(server, "/books//_search", {})
        assert (status, "warning" in headers) == (200 if version < 8 else 400, warned)


def test_scroll_contexts_end(monkeypatch):
    now = 0.0
    monkeypatch.setattr("searchserver.scroll.monotonic", lambda: now)
    with SearchServer() as server:
        server.put_many("books", [(str(number), {}) for number in range(9)])

        def page(scroll_id):
            """The ids of the next page, or the status of a refusal."""
            status, _, text = send(server, "/_search/scroll", {"scroll_id": scroll_id, "scroll": "400ms"})
            return "".join(ids(json.loads(text)["hits"])) if status == 200 else status

        short, last, none = (ask(server, f"/books/_search?scroll={time}", {"size": 2})["_scroll_id"]
                             for time in ("400ms", "1m", "0"))
        for expected in ("23", "45", "67"):  # each page renews the time
            now += 0.3
            assert page(short) == expected
        # Without a time it is the last page.
        assert "_scroll_id" not in ask(server, f"/_search/scroll?scroll_id={last}", method="GET")
        now += 0.5
        assert [page(each) for each in (short, last, none)] == [404, 404, 404] and server.open_scrolls() == 0


REFUSALS = [
    ("_search?scroll=2d", {}, "Keep alive for scroll (172800s) is too large"),
    ("_search?scroll=1h", {"size": 0, "from": 1}, "is not allowed in a scroll context;2: [size] cannot be [0] in a"),
    ("_search?scroll=9nanos", {"size": 10001}, "Batch size is too large, size must be less than or equal to:"),
    ("_search/scroll", {"scroll_id": "x", "size": 1}, "Unknown parameter [size]"),
    ("_search/scroll?scroll_id=FA==", None, "Cannot parse scroll id"),
    ("books/_search", {"query": {"match": {"a": "x", "b": "y"}}}, "doesn't support multiple fields"),
    ("books/_search", {"query": {"terms": {"_id": ["x"] * 65537}}}, "allowed maximum of [65536]"),
    ("books/_search", b'{"query":"\xff"}', "Invalid UTF-8"),
    ("books/_search?odd=1", {}, "unrecognized parameter: [odd]"),
]


def test_refusals(server):
    for path, body, reason in REFUSALS:
        status, _, text = send(server, "/" + path, body)
        error = json.loads(text)["error"]
        said = error if isinstance(error, str) else error["root_cause"][0]["reason"]
        assert (status, reason) == (400, reason if reason in said else said)
    # A body must say that it is JSON.
    for headers in ({"Content-Type": "application/x-www-form-urlencoded"}, {}):
        assert send(server, "/books/_search", "{}", headers=headers)[0] == 406


def test_sources_come_back_byte_for_byte_and_replaced_ones_are_gone():
    raw = '{ "title" : "caf\\u00e9 \\ud83d\\udc0b é 🐋",\t"n":1.50 }'
    gone = {"query": {"match": {"title": "gone"}}}
    with SearchServer() as server:
        server.put("raw", "1", {"title": "gone"})
        assert ids(find(server, gone, "/raw/_search")) == ["1"]
        assert send(server, "/raw/_doc/1?refresh=true", raw, "PUT")[0] == 200
        lines = '{"index":{"_id":"2"}}\n' + raw + '\n{"create":{"_index":"other"}}\n{"title":"gone"}\n'
        assert ask(server, "/raw/_bulk", lines)["errors"] is False
        assert send(server, "/raw/_search", {})[2].count(f'"_source":{raw}') == 2
        assert [hit["_index"] for hit in find(server, gone, "/_all/_search")["hits"]] == ["other"]


def test_kept_connections_end_with_the_server():
    with SearchServer() as server:
        connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=20)
        connection.request("GET", "/_search")
        connection.getresponse().read()
        assert connection.sock  # the client gives it up when it is not to be kept
        assert ask(server, "/_journal", method="GET")[0]["path"] == "/_search"
    assert connection.sock.recv(1) == b""
    connection.close()


def test_command_line(tmp_path):
    (tmp_path / "books.ndjson").write_text('{"index":{"_id":"a"}}\n{"title":"x"}\n', encoding="utf-8")
    process = subprocess.Popen([sys.executable, "-m", "searchserver", "--documents", tmp_path / "books.ndjson",
                                "--version", "6"], cwd=ROOT / "demo", stdout=subprocess.PIPE, text=True)
    with process:
        try:
            process.port = int(process.stdout.readline())
            assert find(process, {}, "/books//_search")["total"] == 1
        finally:
            process.send_signal(signal.SIGTERM)
        assert process.wait(10) == 0
