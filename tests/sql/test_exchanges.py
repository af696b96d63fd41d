"""What goes over the wire beside the search itself, and what a session tells of it."""
import gzip
import re
import time
import zlib

import pytest

from conftest import Database, memory
from scriptedserver import endless, hits, named, response
from test_kept_connections import BROKEN, WHOLE

# ---- Compression --------------------------------------------------------------------------------------------

BODY = hits(*named(*(f"b{n:03}" for n in range(100)))).encode()
PACKED = gzip.compress(BODY)
GZIP, READ = ("Content-Encoding: gzip",), [(f"b{n:03}",) for n in range(100)]
LARGE = ("HV000", "the response of the search cluster is larger than 1023 MiB")


@pytest.fixture
def compressing(search):
    search.compresses = True
    yield search
    search.compresses = False


def test_compression(wire, compressing):
    """Fewer bytes, the same rows; and nobody is asked for it unasked."""
    sizes = {}
    for compression, asked in (("false", None), ("true", "gzip")):
        wire.make(httpcompression=compression)
        wire.db.run("SELECT veltranesearch_exchanges_reset()")
        for statement, rows in wire.ROWS.items():
            assert wire.outcome(statement) == rows
            searches = [peer for peer in wire.near.requests if peer.purpose != "delete"]
            assert {peer.headers["Accept-Encoding"] for peer in searches} == {asked}
        sizes[compression] = wire.db.value("SELECT bytes FROM veltranesearch_exchanges WHERE server = 'documents'")
    assert sizes["true"] < sizes["false"] / 2


DAMAGED = {"cut": response(PACKED[:-40], headers=GZIP), "no trailer": response(PACKED[:-8], headers=GZIP),
           "half a head": response(PACKED[:5], headers=GZIP), "empty": response(b"", headers=GZIP),
           "checksum": response(PACKED[:-8] + b"1234" + PACKED[-4:], headers=GZIP),
           "length": response(PACKED[:-4] + b"1234", headers=GZIP),
           "flipped": response(PACKED[:99] + bytes([PACKED[99] ^ 255]) + PACKED[100:], headers=GZIP),
           "plain": response(BODY, headers=GZIP), "noise": response(b"\x1f\x8b" + b"noise" * 99, headers=GZIP),
           "another": response(PACKED, headers=("Content-Encoding: br",)),
           "deflate": response(zlib.compress(BODY), headers=("Content-Encoding: deflate",)),
           "twice": response(gzip.compress(PACKED), headers=("Content-Encoding: gzip, gzip",)),
           "more": response(PACKED + b"more", headers=GZIP), "two": response(PACKED + PACKED, headers=GZIP),
           "ten layers": response(PACKED, headers=("Content-Encoding: " + ", ".join(["gzip"] * 10),)),
           "untold": response(PACKED)}
HARMLESS = {"deflate", "twice", "more", "plain", "no trailer"}  # what may be read, being whole


@pytest.mark.parametrize("damage", DAMAGED)
def test_damaged(wire, scripted, damage):
    """An error, never other rows; nor is what nobody asked for taken for text."""
    for compression in ("true", "false"):
        wire.make(httpcompression=compression)
        scripted.script = DAMAGED[damage]
        for statement, rows in ((wire.ALL, READ), (wire.COUNT, None)):
            outcome = wire.db.outcome(statement)
            assert isinstance(outcome, tuple) or (damage in HARMLESS and outcome == rows), outcome
        scripted.script = response(PACKED, headers=GZIP) if compression == "true" else response(BODY)
        assert wire.db.run(wire.ALL) == READ


def deflated(*texts):
    """Each text compressed such that the last may come again and again."""
    packer = zlib.compressobj(9, zlib.DEFLATED, 31)
    *begin, piece = texts
    texts = [*begin, piece * ((1 << 20) // len(piece))]
    return [packer.compress(text) + packer.flush(zlib.Z_FULL_FLUSH) for text in texts]


def bomb(begin, piece):
    start, more = deflated(begin, piece)
    return endless(more, b"HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\n\r\n" + start)


CANCELLED = ("57014", "canceling statement due to statement timeout")


@pytest.mark.unsanitized
@pytest.mark.parametrize("script, option, setting, outcome, seconds", [
    (bomb(b"", b" "), 60_000, 30_000, LARGE, 30), (bomb(b'{"a":', b"["), 60_000, 200, CANCELLED, 1.7),
    (bomb(b'{"a":', b"["), 200, 30_000, BROKEN, 1.7)])
def test_bombs(wire, script, option, setting, outcome, seconds):
    """Few bytes that become endless ones: the bound is that of what they become, and nothing that ends a query waits
    for it."""
    wire.make(httpcompression="true", timeout=option)
    wire.db.run(f"SET statement_timeout = {setting}")
    before, begun = memory(wire.db.pid, "VmHWM"), time.monotonic()
    assert wire.outcome(wire.SEARCH, script) == outcome
    assert memory(wire.db.pid, "VmHWM") - before < 2200 << 10 and time.monotonic() - begun < seconds


@pytest.mark.unsanitized
def test_bomb_in_place_of_a_deletion(wire):
    """Nobody waits for it longer than for any other response that does not matter."""
    wire.make(httpcompression="true")
    wire.db.run("SET statement_timeout = 20000")
    begun = time.monotonic()
    assert wire.outcome(wire.ALL, deletion=bomb(b"", b" ")) == wire.ROWS[wire.ALL]
    assert time.monotonic() - begun < 2.5


# ---- Whose request it is ------------------------------------------------------------------------------------

@pytest.mark.parametrize("name, told", [
    ("psql", "psql"), ("", ""), ("it's \"q\" \\", "it's \"q\" \\"), ("a\r\nX-Evil: 1", None),
    ("n\u00e4\u65e5", None), (" x", None)])
def test_opaque_id(wire, name, told):
    """Every request tells its session; no name makes a header of its own."""
    wire.db.run("SELECT set_config('application_name', %s, false)", (name,))
    wire.make()
    imports = "CREATE SCHEMA s; IMPORT FOREIGN SCHEMA \"books\" FROM SERVER documents INTO s; DROP SCHEMA s CASCADE"
    for statement, kinds in ((wire.LOOK_UP, ["first"]), (wire.COUNT, ["first"]), (wire.ALL, WHOLE),
                             ("ANALYZE docs", None), (imports, None)):
        wire.outcome(statement)
        assert wire.near.requests and kinds in (None, wire.kinds())
        for peer in wire.near.requests:
            given, = peer.headers.get_all("X-Opaque-Id")
            assert given.endswith(f"[{wire.db.pid}]") and told in (None, given[:given.rindex("[")]), given
            assert re.fullmatch("[ -~]*", given) and "X-Evil" not in peer.headers
    wire.db.run("SET application_name = 'other'")
    wire.outcome(wire.LOOK_UP)
    assert wire.near.requests[0].headers["X-Opaque-Id"] == f"other[{wire.db.pid}]", "of a kept connection"
    wire.make(opaqueid="false")
    wire.outcome(wire.ALL)
    assert wire.kinds() == WHOLE and not any(peer.headers["X-Opaque-Id"] for peer in wire.near.requests)


# ---- What is told -------------------------------------------------------------------------------------------

FIGURES = "server, requests, pages, hits, bytes, retries, connections_opened, connections_reused"
TOLD = f"SELECT {FIGURES} FROM veltranesearch_exchanges WHERE server IN ('documents', 'idle')"


def test_figures(wire, cluster):
    """What the wire saw, of this session alone; anybody may look."""
    wire.db.run("CREATE SERVER idle FOREIGN DATA WRAPPER veltranesearch OPTIONS (address 'http://127.0.0.1:1')")
    other = Database(cluster, 0)
    sent = []

    def counted(peer):
        status, _, body = wire.relay.ask(peer)
        sent.append(len(body))
        response(body, status)(peer)

    wire.near.script = counted
    wire.db.run("SELECT veltranesearch_exchanges_reset()")
    del sent[:]
    wire.outcome(wire.ALL)
    wire.outcome(wire.LOOK_UP)
    nothing = ("idle",) + (0,) * 7
    told, idle = sorted(wire.db.run(TOLD))
    assert idle == nothing and told == ("documents", 5, 4, 251, told[4], 0, 1, 4)
    assert sum(sent) <= told[4] <= sum(sent) + 5 * 300, "the headers are counted or not"
    (waited, deflated_ms), = wire.db.run(
        "SELECT waited_ms, deflated_ms FROM veltranesearch_exchanges WHERE server = 'documents'")
    assert 0 < waited < 5000 and deflated_ms == 0
    wire.near.script = wire.relay
    plan = "\n".join(line for line, in wire.outcome("EXPLAIN (ANALYZE) " + wire.LOOK_UP, response("{}", "503 No")))
    assert re.search("Retries: 1$", plan, re.M)
    assert "Retries" not in str(wire.db.run("EXPLAIN (ANALYZE) " + wire.LOOK_UP))
    assert sorted(wire.db.run(TOLD))[0][5] == 1
    assert sorted(other.run(TOLD)) == [("documents",) + (0,) * 7, nothing]
    other.run("DROP ROLE IF EXISTS nobody; CREATE ROLE nobody; SET ROLE nobody")
    assert len(other.run(TOLD)) == 2
    other.run("SELECT veltranesearch_exchanges_reset(); RESET ROLE; DROP ROLE nobody")
    assert sorted(wire.db.run(TOLD))[0][1] == 8
    wire.db.run("SELECT veltranesearch_exchanges_reset()")
    assert sorted(wire.db.run(TOLD)) == [("documents",) + (0,) * 7, nothing]
    wire.db.run("DROP SERVER idle")
    other.connection.close()
