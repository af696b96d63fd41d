"""Which node is asked, and what is tried again: by what goes over the wire."""
import threading
import time

import pytest

from scriptedserver import ScriptedServer, response, silence
from test_kept_connections import BROKEN, WHOLE
from test_search_wrapper import report

REFUSED = ("HV000", "the search cluster refused the request")
UNREACHED = ("HV00N", "could not connect to the search cluster")
SEARCHES = ["LOOK_UP", "COUNT", "SEARCH"]


def status(number, *headers):
    return response("{}", f"{number} No", headers)


def seconds(action):
    start = time.monotonic()
    action()
    return time.monotonic() - start


# ---- Retries ------------------------------------------------------------------------------------------------

# For what, what it meets, and how often it is sent when it meets that once.
ONCE = [*[(kind, number, 2) for kind in SEARCHES for number in (429, 502, 503, 504)],
        *[(kind, number, 1) for kind in SEARCHES for number in (400, 401, 404, 408, 413, 500, 501)],
        *[("ALL", number, 2) for number in (429, 503)], *[("ALL", number, 1) for number in (404, 408, 500, 502, 504)]]


@pytest.mark.parametrize("kind, number, sent", ONCE)
def test_once(wire, kind, number, sent):
    outcome = wire.outcome(getattr(wire, kind), status(number))
    assert outcome == (REFUSED if sent == 1 else wire.ROWS[getattr(wire, kind)])
    first = "open" if kind == "ALL" else "first"
    assert wire.kinds() == [first] * sent + WHOLE[1:] * (kind == "ALL" and sent == 2)
    assert wire.search.open_scrolls() == 0


@pytest.mark.parametrize("number", [429, 502, 503, 504])
def test_never(wire, number):
    """A later page, ahead or not, and the deletion of a scroll."""
    for place in (1, 2):
        assert wire.outcome(wire.ALL, *[None] * place, status(number)) == REFUSED
        assert wire.kinds() == WHOLE[:place + 1] + ["delete"]
    assert wire.outcome(wire.ALL, deletion=status(number)) == wire.ROWS[wire.ALL] and wire.kinds() == WHOLE


# Options, headers of each refusal, requests that are sent when all are refused, and how long that takes.
ALWAYS = [({}, (), 4, (0.6, 2)), ({"retries": 0}, (), 1, (0, 1)), ({"retries": 1}, (), 2, (0.09, 1)),
          ({"retries": 1}, ("Retry-After: 1",), 2, (0.9, 2.5)), ({}, ("Retry-After: 3600",), 1, (0, 1)),
          ({}, ("Retry-After: 99999999999999999999",), None, (0, 2)), ({}, ("Retry-After: -1",), None, (0, 2)),
          ({}, ("Retry-After: Fri, 31 Dec 2100 23:59:59 GMT",), None, (0, 2)),
          ({"timeout": 400}, (), 3, (0.25, 1)), ({"timeout": 400}, ("Retry-After: 1",), 1, (0, 0.9))]


@pytest.mark.parametrize("options, headers, sent, taken", ALWAYS)
def test_always(wire, options, headers, sent, taken):
    """The last refusal is the error; and it comes in time."""
    wire.make(**options)
    wire.db.run("SET statement_timeout = 5000")
    for statement in (wire.LOOK_UP, wire.ALL):
        assert taken[0] <= seconds(lambda: wire.outcome(statement, *[status(429, *headers)] * 12)) <= taken[1]
        assert len(wire.near.requests) == (sent or len(wire.near.requests))
        assert wire.outcome(statement) == wire.ROWS[statement]


def test_cancel(wire):
    wire.db.run("SET statement_timeout = 300")
    taken = seconds(lambda: wire.outcome(wire.LOOK_UP, status(503, "Retry-After: 30")))
    assert 0.2 < taken < 1.5 and wire.kinds() == ["first"]


@pytest.mark.parametrize("kind", [*SEARCHES, "ALL"])
def test_refused_connections(wire, kind):
    """A server that starts again is waited for; but not with a page of a scroll."""
    statement = getattr(wire, kind)
    wire.near.stop_listening()
    threading.Timer(0.2, wire.near.listen_again).start()
    assert wire.outcome(statement) == wire.ROWS[statement]
    wire.make(retries=0)
    wire.near.stop_listening()
    wire.near.hang_up()
    assert wire.outcome(statement) == UNREACHED
    wire.make()

    def leave(peer):
        wire.near.stop_listening()
        wire.relay.forward(peer)
        peer.keeps_connection = False

    wire.near.listen_again()
    assert seconds(lambda: wire.outcome(wire.ALL, leave)) < 0.5
    wire.near.listen_again()
    assert wire.kinds() == ["open"]


# ---- Nodes --------------------------------------------------------------------------------------------------

@pytest.fixture
def second(wire):
    """Another node of the cluster of `wire`; its requests are its own."""
    with ScriptedServer(wire.relay.forward) as server:
        wire.make(wire.near.port, server.port, timeout=600, connecttimeout=300)
        yield server


def gone(node):
    node.stop_listening()
    node.hang_up()


# What the first node does, and what becomes of a search and of one that opens a scroll; None where it gets its rows.
FAULTS = [(None, None, None), (status(503), None, None), (status(502), None, REFUSED), (status(504), None, REFUSED),
          (lambda peer: None, BROKEN, BROKEN), (silence, BROKEN, BROKEN),
          (lambda peer: peer.send(b"HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n{"), BROKEN, BROKEN)]


@pytest.mark.parametrize("fault, of_search, of_scroll", FAULTS)
@pytest.mark.parametrize("kind", [*SEARCHES, "ALL"])
def test_a_node_that_fails(wire, second, kind, fault, of_search, of_scroll):
    """It is passed over: by this query where that may be, by the next ones in any case; then the other one stays."""
    statement = getattr(wire, kind)
    if fault is None:
        wire.near.stop_listening()
    outcome = of_scroll if kind == "ALL" else of_search
    assert wire.outcome(statement, fault) == (outcome or wire.ROWS[statement])
    if fault is None:
        wire.near.listen_again()
    wire.near.requests.clear()
    for _ in range(2):
        assert wire.db.run(statement) == wire.ROWS[statement]
    assert not wire.near.requests and second.requests


@pytest.mark.parametrize("page, kinds", [(1, ["next", "next", "delete"]), (2, ["next", "delete"])])
def test_a_node_that_goes_in_the_midst(wire, second, page, kinds):
    """What was not sent goes to the other node, a page too, with no retry to spare; no row is lost or comes twice."""
    wire.make(wire.near.port, second.port, retries=0, pageahead="false")
    wire.db.run(f"BEGIN; DECLARE c CURSOR FOR {wire.ALL}")
    rows = wire.db.run(f"FETCH {page * 100} FROM c")
    assert not second.requests
    gone(wire.near)
    wire.near.requests.clear()
    assert rows + wire.db.run("FETCH ALL FROM c") == wire.ROWS[wire.ALL]
    wire.db.run("COMMIT")
    assert not wire.near.requests and [peer.purpose for peer in second.requests] == kinds
    assert wire.search.open_scrolls() == 0


def test_a_node_that_goes_with_a_page_ahead(wire, second):
    """The page may have been taken: no other node is asked for it."""
    wire.outcome(f"BEGIN; DECLARE c CURSOR FOR {wire.ALL}", None, None, silence)
    assert wire.db.run("FETCH 200 FROM c") == wire.ROWS[wire.ALL][:200]
    gone(wire.near)
    assert wire.db.failure("FETCH 1 FROM c") == BROKEN
    wire.db.run("ROLLBACK")
    assert [peer.purpose for peer in second.requests] == ["delete"] and wire.search.open_scrolls() == 0
    assert wire.db.run(wire.ALL) == wire.ROWS[wire.ALL]


def test_a_node_out_of_reach(wire, second, full_port):
    wire.make(full_port, second.port, connecttimeout=300, retries=0)
    assert 0.25 < seconds(lambda: wire.db.run(wire.ALL)) < 1
    assert seconds(lambda: wire.db.run(wire.ALL)) < 0.25


def test_all_nodes_gone(wire, second):
    """The error names the last one; and whoever comes back is found at once."""
    wire.make(wire.near.port, second.port, retries=0)
    assert wire.outcome(wire.SEARCH) == wire.ROWS[wire.SEARCH] and not second.requests
    gone(wire.near)
    gone(second)
    told = report(wire.db, wire.SEARCH)
    assert told[:2] == UNREACHED and f"127.0.0.1:{second.port}/" in told[2]
    for node in (wire.near, second):
        node.listen_again()
        assert wire.db.run(wire.ALL) == wire.ROWS[wire.ALL]
        gone(node)
