"""Pages that are requested before they are needed: when, how they end, and whose errors they are."""
import threading
import time

import pytest

from conftest import Database, memory, sockets, wait_until
from scriptedserver import hits, named, response, silence
from test_kept_connections import WHOLE

CURSOR = "BEGIN; DECLARE c CURSOR FOR "
FEW = "SELECT docname FROM docs WHERE length(docname) > 0 LIMIT "  # of which the search is not told
CANCELLED = "57014"


@pytest.mark.parametrize("ahead", ["true", "false"])
def test_when(wire, ahead):
    """The second page when a row of it is needed, the third as soon as the second is there, and none to no end."""
    wire.make(pageahead=ahead)
    wire.outcome(CURSOR + wire.ALL)
    second = ["open", "next"] + ["next"] * (ahead == "true")
    for fetched, kinds in ((1, ["open"]), (99, ["open"]), (1, second), (99, second), (1, WHOLE)):
        wire.db.run(f"FETCH {fetched} FROM c")
        time.sleep(0.05)  # for a request too many to be seen
        wait_until(lambda expected=kinds: wire.kinds() == expected)
    assert len(wire.db.run("FETCH ALL FROM c")) == 49
    wire.db.run("COMMIT")
    for limit, kinds in ((100, ["open"]), (101, second), (200, second)):
        assert wire.outcome(FEW + str(limit)) == wire.ROWS[wire.ALL][:limit]
        wait_until(lambda expected=kinds: sorted(wire.kinds()) == sorted([*expected, "delete"]))
    assert wire.search.open_scrolls() == 0


# How a query ends that has a page ahead, and whether that is an error.
ENDINGS = {"close": "CLOSE c; COMMIT", "rollback": "ROLLBACK", "commit": "COMMIT", "need": "FETCH ALL FROM c",
           "savepoint": "ROLLBACK TO s; COMMIT", "another": "SELECT 1 / 0"}


@pytest.mark.parametrize("arrives", [True, False])
@pytest.mark.parametrize("ending", [*ENDINGS, "limit", "error", "rescan", "session", "terminated", "outside"])
def test_endings(wire, cluster, ending, arrives):
    """However a query ends, and whether its page ahead has come or not: no context stays, nor a socket."""
    db = Database(cluster, wire.near.port)
    db.run(wire.LOOK_UP)
    before = sockets(db.pid)
    faults = [None, None, None if arrives else silence]
    db.run("SET statement_timeout = 700")  # for what waits for a page that does not come
    wire.outcome("SELECT", *faults)
    inside, outside = "SAVEPOINT s; " * (ending == "savepoint"), "SAVEPOINT s; " * (ending == "outside")
    if ending == "limit":
        assert len(db.run(FEW + "150")) == 150
    elif ending == "error":
        assert db.failure("SELECT 1 / (150 - substr(docname, 2)::int) FROM docs")[0] == "22012"
    elif ending == "rescan":
        db.run("SELECT n, (SELECT count(*) FROM (SELECT docname FROM docs WHERE length(docname) > n - n LIMIT 120) "
               "d) FROM generate_series(1, 2) n")
    else:
        db.run(f"BEGIN; {inside}DECLARE c CURSOR FOR {wire.ALL}; FETCH 120 FROM c; {outside}")
        wait_until(lambda: wire.kinds() == ["open", "next", "next"])
    if ending in ENDINGS:
        db.outcome(ENDINGS[ending])
        db.run("ROLLBACK")
    elif ending == "outside":
        db.run("SELECT docname FROM docs LIMIT 1; ROLLBACK TO s")
        assert len(db.run("FETCH 50 FROM c")) == 50
        db.run("COMMIT")
    elif ending == "terminated":
        wire.db.run(f"SELECT pg_terminate_backend({db.pid})")
    if ending in ("session", "terminated"):
        db.connection.close()
    wait_until(lambda: wire.search.open_scrolls() == 0)
    wire.relay.faults.clear()
    if not db.connection.closed:
        # Two scans at a time may have had a connection each, which are kept.
        wait_until(lambda: sockets(db.pid) <= before + (ending == "outside"))
        assert sorted(db.run(wire.ALL)) == wire.ROWS[wire.ALL]
        db.connection.close()


def test_its_error_waits(wire):
    """Rows that are before the page that fails are delivered, and nothing fails that does not need it."""
    fails = response("{}", "500 No")
    assert wire.outcome(FEW + "200", None, None, fails) == wire.ROWS[wire.ALL][:200]
    assert wire.outcome(FEW + "201", None, None, fails) == ("HV000", "the search cluster refused the request")
    wire.outcome(CURSOR + wire.ALL, None, None, fails)
    assert wire.db.run("FETCH 200 FROM c") == wire.ROWS[wire.ALL][:200]
    assert wire.db.failure("FETCH 1 FROM c") == ("HV000", "the search cluster refused the request")
    wire.db.run("ROLLBACK")
    assert wire.search.open_scrolls() == 0


def test_cancel(wire):
    """Who waits for a page ahead that does not come is not kept from ending."""
    wire.db.run("SET statement_timeout = 400")
    start = time.monotonic()
    assert wire.outcome(wire.ALL, None, None, silence)[0] == CANCELLED
    assert time.monotonic() - start < 1.9 and wire.search.open_scrolls() == 0


LARGE = '"_id":"large","_source":{"a":"' + "x" * (24 << 20) + '"}'


def test_a_pause_is_no_time_out(wire, scripted):
    """Time in which nobody waits is not counted, whether the page has come, fits into no buffer or comes late."""
    pages = [hits(*named("a"), total=4, scroll_id="s"), hits(*named("b"), total=4, scroll_id="s"),
             hits(LARGE, total=4), hits(*named("z"), total=4)]
    late = threading.Event()

    def script(peer):
        if peer.purpose != "delete":
            page = pages.pop(0)
            if not pages:
                late.wait(10)
            response(page)(peer)

    scripted.script = script
    wire.make(timeout=600)
    wire.db.run(CURSOR + wire.ALL)
    for name in ("a", "b", "large"):
        assert wire.db.run("FETCH 1 FROM c") == [(name,)]
        time.sleep(0.8)
    threading.Timer(0.3, late.set).start()
    assert wire.db.run("FETCH ALL FROM c") == [("z",)]
    wire.db.run("COMMIT")


@pytest.mark.unsanitized
def test_two_pages_of_memory(wire, scripted):
    """Not one more, however slow the consumer and however many the pages."""
    count, page = 40, '"_id":"x%d","_source":{"a":"' + "x" * (4 << 20) + '"}'
    scripted.script = lambda peer: response(hits(page % len(scripted.requests), total=count, scroll_id="s"))(peer)
    wire.db.run(wire.LOOK_UP.replace("b007", "x"))
    del scripted.requests[:]
    before = memory(wire.db.pid, "VmHWM")
    assert len(wire.db.run(wire.ALL)) == count
    assert memory(wire.db.pid, "VmHWM") - before < (2 * 2 * 4 + 8) << 10
