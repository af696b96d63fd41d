"""Kept connections: nothing goes out twice that must not, and nobody gets what was made for another."""
import pytest

from conftest import Database, secured_with, sockets
from scriptedserver import Peer, ScriptedServer, response, hits, named

BROKEN = ("HV000", "the exchange with the search cluster broke off")
WHOLE = ["open", "next", "next", "delete"]


# ---- Connections that break ---------------------------------------------------------------------------------

def lose_and(end):
    """The search server has the request, and the connection ends without a response."""
    return lambda wire: lambda peer: (wire.lose(peer), end(peer))


def half(wire):
    """So much comes that the scroll context is told."""
    def fault(peer):
        body = wire.relay.ask(peer)[2]
        peer.send(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(body) + body[:-9])
    return fault


CUTS = {"unread": None, "closed": lose_and(lambda peer: None), "reset": lose_and(Peer.reset), "half": half}


@pytest.mark.parametrize("cut", CUTS)
@pytest.mark.parametrize("kind, place", [
    ("LOOK_UP", 0), ("COUNT", 0), ("SEARCH", 0), ("ALL", 0), ("ALL", 1), ("ALL", 2)])
def test_cut(wire, cut, kind, place):
    """What opens or advances a scroll is taken once at most, whatever becomes of the connection; all else may be
    asked for again."""
    def cut_the_next(peer):
        wire.near.unread = 1
        wire.relay.forward(peer)

    wire.db.run(wire.LOOK_UP)
    statement, scrolls = getattr(wire, kind), kind == "ALL"
    faults = [None] * place + [CUTS[cut](wire)] if CUTS[cut] else [None] * (place - 1) + [cut_the_next] * (place > 0)
    wire.near.unread = int(cut == "unread" and place == 0)
    outcome = wire.outcome(statement, *faults)
    if isinstance(outcome, list):
        assert sorted(outcome) == wire.ROWS[statement] and not wire.relay.faults
        # What was cut before its body had left may go out anew.
        assert not scrolls or (wire.kinds() == WHOLE and cut == "unread")
    else:
        assert outcome == BROKEN and (scrolls or cut == "half"), "a look-up can be asked for again"
        deleted = place > 0 or cut == "half"
        assert wire.kinds() == (WHOLE[:place + (cut != "unread")] + ["delete"] * deleted if scrolls else ["first"])
        assert wire.search.open_scrolls() == (scrolls and not deleted and cut != "unread"), "of which nobody was told"
    assert sorted(wire.outcome(wire.ALL)) == wire.ROWS[wire.ALL] and wire.kinds() == WHOLE
    assert len(wire.near.connections) <= 3


def test_cut_deletion(wire):
    """It has no more rows to take back."""
    for cut in filter(None, CUTS.values()):
        assert wire.outcome(wire.ALL, deletion=cut(wire)) == wire.ROWS[wire.ALL]
        assert wire.kinds()[:4] == WHOLE and wire.search.open_scrolls() == 0


@pytest.mark.parametrize("options", [{}, {"pageahead": "false"}])
def test_closed_between(wire, options):
    """A server closes connections that rest: nobody notices, between queries nor in the midst of one."""
    wire.make(**options)
    for statement, rows in wire.ROWS.items():
        assert sorted(wire.outcome(statement)) == rows
        wire.near.hang_up()
    wire.db.run(f"BEGIN; DECLARE c CURSOR FOR {wire.ALL}")
    wire.near.requests.clear()
    rows = []
    while more := wire.db.run("FETCH 60 FROM c"):
        rows += more
        wire.near.hang_up()
        if options == {} and len(rows) > 100:
            break  # A page ahead may have been under way: see above.
    assert options == {} or (rows == wire.ROWS[wire.ALL] and wire.kinds() == WHOLE)
    wire.db.run("ROLLBACK")


# ---- How many ------------------------------------------------------------------------------------------------

def test_how_many(wire, certificates):
    """One for all queries, over TLS too, for which one handshake will do; or one each."""
    with ScriptedServer(wire.relay, secured_with(certificates, "good")) as secured:
        for server, more in ((wire.near, {}), (secured, {"scheme": "https", "cafile": f"{certificates}/good.pem"})):
            for keeps in ("true", "false"):
                wire.make(server.port, keepconnections=keeps, **more)
                wire.db.run(wire.LOOK_UP)
                before, start = sockets(wire.db.pid), len(server.connections)
                server.requests.clear()
                for _ in range(3):
                    for statement, rows in wire.ROWS.items():
                        assert sorted(wire.db.run(statement)) == rows
                used = [peer.number for peer in server.requests]
                assert len(used) == 3 * (3 + len(WHOLE))
                assert len(set(used)) == (1 if keeps == "true" else len(used))
                assert len(server.connections) - start == (0 if keeps == "true" else len(used))
                assert sockets(wire.db.pid) == before


def test_scans_at_a_time(wire):
    """Several scans of one query need a connection each only while a page ahead is under way on it."""
    rows = wire.db.run("SELECT a.docname, (SELECT count(*) FROM docs c WHERE c.docname = b.docname) FROM docs a "
                       "JOIN docs b USING (docname) WHERE length(a.docname) > 0 AND length(b.docname) > 0")
    assert sorted(rows) == [(name, 1) for name, in wire.ROWS[wire.ALL]]
    assert len(wire.near.connections) <= 3 and wire.search.open_scrolls() == 0


# ---- Whose --------------------------------------------------------------------------------------------------

MAPPING = "CREATE USER MAPPING FOR {} SERVER documents OPTIONS (apikey '{}')"
ALTER = "ALTER USER MAPPING FOR CURRENT_USER SERVER documents OPTIONS (SET apikey '{}')"
DROP = "DROP USER MAPPING FOR {} SERVER documents"
# What changes in the catalogs, and which key goes out afterwards; None where none does.
CATALOGS = [(MAPPING.format("PUBLIC", "p"), "p"), (MAPPING.format("CURRENT_USER", "a"), "a"), (ALTER.format("b"), "b"),
            (f"{DROP.format('CURRENT_USER')}; {MAPPING.format('CURRENT_USER', 'c')}", "c"),
            ("ALTER SERVER documents OPTIONS (ADD timeout '99999')", "c"), (DROP.format("CURRENT_USER"), "p"),
            (DROP.format("PUBLIC"), None)]
# What changes in the session, where what was kept may serve again.
SESSION = [("SET ROLE reader", "r"), ("RESET ROLE", "b"), ("SET SESSION AUTHORIZATION reader", "r"),
           ("RESET SESSION AUTHORIZATION", "b"), ("BEGIN; " + ALTER.format("x"), "x"), ("ROLLBACK", "b")]


@pytest.mark.parametrize("who", ["the session", "another"])
def test_credentials(wire, cluster, who):
    """Whatever changes, and whoever changes it: requests go out as the catalogs say now, and no connection carries the
    credentials of two."""
    db, other = wire.db, Database(cluster, 0)
    db.run("DROP ROLE IF EXISTS reader; CREATE ROLE reader; GRANT SELECT ON docs TO reader")
    db.run(MAPPING.format("reader", "r"))
    try:
        carried = {}  # by each connection: the key, and the last change of the catalogs before
        changes = [(change, key, number) for number, (change, key) in enumerate(CATALOGS)]
        for change, key, number in [*changes[:3], *[(*step, 2) for step in SESSION], *changes[3:]]:
            (other if who == "another" and change in dict(CATALOGS) else db).run(change)
            for statement in (wire.LOOK_UP, wire.ALL):
                wire.outcome(statement)
                for peer in wire.near.requests:
                    assert peer.headers["Authorization"] == (key and f"ApiKey {key}"), change
                    assert carried.setdefault(peer.number, (key, number)) == (key, number), change
        before = len(wire.near.connections)
        db.run(f"{wire.LOOK_UP}; SET ROLE reader; {wire.LOOK_UP}; RESET ROLE; {wire.LOOK_UP}")
        assert len(wire.near.connections) <= before + 1, "each keeps its own"
    finally:
        db.run("ROLLBACK; RESET SESSION AUTHORIZATION; RESET ROLE; DROP OWNED BY reader CASCADE; DROP ROLE reader")
        other.connection.close()


def test_a_scan_goes_on_as_it_began(wire):
    """A cursor's requests do not change with the catalogs, its deletion included; the next scan's do."""
    wire.db.run(MAPPING.format("PUBLIC", "a"))
    wire.db.run(f"BEGIN; DECLARE c CURSOR FOR {wire.ALL}; FETCH 1 FROM c")
    wire.near.requests.clear()
    wire.db.run("ALTER USER MAPPING FOR PUBLIC SERVER documents OPTIONS (SET apikey 'b')")
    wire.db.run(wire.LOOK_UP)
    assert wire.db.run("FETCH ALL FROM c") == wire.ROWS[wire.ALL][1:]
    wire.db.run("COMMIT")
    assert [(kind, peer.headers["Authorization"][-1]) for kind, peer in zip(wire.kinds(), wire.near.requests)] == [
        ("first", "b"), ("next", "a"), ("next", "a"), ("delete", "a")]


def test_another_place(wire):
    """ALTER SERVER leads elsewhere at once, and two servers of one cluster share no connection."""
    with ScriptedServer(response(hits(*named("far")))) as far:
        wire.db.run(wire.SEARCH)
        wire.db.run(f"ALTER SERVER documents OPTIONS (SET address 'http://127.0.0.1:{far.port}')")
        assert wire.outcome(wire.SEARCH) == [("far",)] and not wire.near.requests
        wire.db.run("CREATE SERVER twin FOREIGN DATA WRAPPER veltranesearch OPTIONS (address 'http://127.0.0.1:"
                    f"{far.port}'); CREATE FOREIGN TABLE also (docname text) SERVER twin OPTIONS (indexlist 'books')")
        wire.db.run("SELECT docname FROM also LIMIT 3; " + wire.SEARCH)
        wire.db.run("DROP SERVER twin CASCADE")
        assert [peer.number for peer in far.requests] == [1, 2, 1]
