"""One backend at length: its memory after failures and over many rows, and how soon a cancel is heeded."""
import contextlib
import ctypes
import os
import re
import socket
import subprocess
import tempfile
import threading
import time
from pathlib import Path

import pytest

from conftest import (SET_UP, Database, PrivateCluster, connections_to, crash_signs, descriptors, memory,
                      module_path, wait_until)
from scriptedserver import ScriptedServer, answer, drip, hits, silence

QUERY = "SELECT docname, doccontent FROM {} WHERE param = 'query=q'"
SCROLL = {"connectortype": "elasticsearchscroll"}
PATIENCE = 1.5  # seconds that a cancelled query may take to end

LONG = '{"text":"' + "lorem ipsum " * 200 + '"}'


@pytest.mark.parametrize("column, values, rescans", [
    ("param", ["query=q"], 100), ("docname", ["x", "y"], 100),
    ("docname", [f"x{n}" for n in range(10000)], 1)],
    ids=["searches", "look-ups", "one look-up of many batches"])
def test_rows_leave_no_memory_behind(db, scripted, column, values, rescans):
    scripted.script = answer(hits(*[f'"_id":"a{n}","_score":1,"_source":{LONG}' for n in range(100)]))
    db.make_table(port=scripted.port, compressionlevel=-2)
    db.connection.autocommit = False
    db.run("SET enable_material = off")
    db.run(f"DECLARE c CURSOR FOR SELECT length(doccontent), docname FROM generate_series(1, {rescans}) "
           f"LEFT JOIN books ON {column} = ANY(%s)", (values,))
    db.run("MOVE 2000 FROM c")
    before = memory(db.pid)
    db.run("MOVE 7900 FROM c")
    assert memory(db.pid) - before <= 1024
    assert len(db.run("FETCH ALL FROM c")) == 100
    assert len(scripted.requests) == 100
    db.connection.commit()


def by_timeout(db, act_after):
    db.run(f"SET statement_timeout = {int(act_after * 1000)}")


def by_request(db, act_after):
    def act():
        other = Database(db.cluster, 0)
        other.run("SELECT pg_cancel_backend(%s)", (db.pid,))
        other.connection.close()
    threading.Timer(act_after, act).start()


CANCELS = [(by_timeout, ("57014", "canceling statement due to statement timeout")),
           (by_request, ("57014", "canceling statement due to user request"))]
TERMINATED = "57P01 FATAL:  terminating connection due to administrator command"

PAGE = answer(hits('"_id":"a","_score":1,"_source":{}', total=2, scroll_id="s"))
# Where a query hangs: in which request and how, the options of the table; or while it connects.
HANGING = [pytest.param(verb, script, options, id=f"{verb} {script.__name__}")
           for verb, options in (("POST", {}), ("GET", SCROLL))
           for script in (silence, drip)] + [pytest.param(None, None, {}, id="connecting")]


@pytest.fixture
def full_port():
    """A port whose queue is full of connections that nobody accepts: any further one waits."""
    with contextlib.ExitStack() as stack:
        listener = stack.enter_context(socket.create_server(("127.0.0.1", 0), backlog=0))
        for _ in range(100):
            filler = stack.enter_context(socket.socket())
            filler.settimeout(0.2)
            try:
                filler.connect(listener.getsockname())
            except socket.timeout:
                break
        else:
            pytest.fail("the queue does not fill")
        yield listener.getsockname()[1]


def hang(db, scripted, full_port, verb, script, options):
    """Arranges for a query to hang; returns it."""
    scripted.script = lambda peer: (script if peer.verb == verb else PAGE)(peer)
    db.make_table(port=scripted.port if verb else full_port, **options)
    return QUERY.format("books")


@pytest.mark.parametrize("arrange, error", CANCELS, ids=["timeout", "request"])
@pytest.mark.parametrize("verb, script, options", HANGING)
def test_cancel(db, scripted, full_port, verb, script, options, arrange, error):
    query = hang(db, scripted, full_port, verb, script, options)
    act_after = 0.8  # a busy machine needs some time to come to where the query hangs
    arrange(db, act_after)
    start = time.monotonic()
    assert db.failure(query) == error
    assert act_after <= time.monotonic() - start + 0.1 and time.monotonic() - start < act_after + PATIENCE
    # Nothing is tried twice, and no deletion, which would take its time, goes before the error.
    verbs = [peer.verb for peer in scripted.requests]
    assert verbs == {None: [], "POST": ["POST"]}.get(verb, ["POST", verb])
    assert connections_to(db.pid, scripted.port) == connections_to(db.pid, full_port) == 0
    db.run("RESET statement_timeout")
    scripted.script = PAGE
    db.make_table(port=scripted.port, **options)
    assert len(db.run(QUERY.format("books") + " LIMIT 1")) == 1


def endless(peer):
    """Answers as fast as the other side reads."""
    peer.send(b"HTTP/1.1 200 OK\r\n\r\n")
    while True:
        peer.send(b" " * 65536)


@pytest.mark.parametrize("script", [silence, drip, endless])
@pytest.mark.parametrize("arrange, ends_after", [
    (None, 1), (lambda db: by_timeout(db, 0.4), 0.4), (lambda db: by_request(db, 0.4), 0.4)],
    ids=["alone", "statement_timeout", "cancel"])
def test_a_deletion_that_hangs(db, scripted, script, arrange, ends_after):
    """It holds up a COMMIT for a second at most, takes nothing away from the transaction, and leaves no time-out
    behind that would strike the next statement."""
    scripted.script = lambda peer: (script if peer.verb == "DELETE" else PAGE)(peer)
    db.make_table(port=scripted.port, **SCROLL)
    db.run("CREATE TEMP TABLE kept (n integer)")
    db.run("BEGIN; INSERT INTO kept VALUES (1); DECLARE c CURSOR FOR " + QUERY.format("books"))
    assert len(db.run("FETCH 1 FROM c")) == 1
    if arrange:
        arrange(db)
    start = time.monotonic()
    db.run("COMMIT")
    assert ends_after - 0.2 < time.monotonic() - start < ends_after + 0.4
    assert db.run("SELECT n FROM kept") == [(1,)]
    db.run("RESET statement_timeout")
    assert [peer.verb for peer in scripted.requests] == ["POST", "DELETE"]
    assert connections_to(db.pid, scripted.port) == 0


# Stands in for the name service, so that no test asks a real one: "slow.invalid" is looked up for long, no
# name of that domain is found, and anything else is resolved as ever.
NAME_SERVICE = """
#define _GNU_SOURCE
#include <dlfcn.h>
#include <netdb.h>
#include <string.h>
#include <unistd.h>
int getaddrinfo(const char *node, const char *service, const struct addrinfo *hints, struct addrinfo **result)
{
    int (*real)(const char *, const char *, const struct addrinfo *, struct addrinfo **);
    if (node && strstr(node, ".invalid")) {
        if (strcmp(node, "slow.invalid") == 0)
            sleep(%d);
        return EAI_NONAME;
    }
    *(void **)&real = dlsym(RTLD_NEXT, "getaddrinfo");
    return real(node, service, hints, result);
}
"""
SLOW = 4  # seconds


@pytest.fixture
def own_cluster():
    """A private cluster of the test's own with a name service of its own."""
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)  # the server runs as another user
        library = os.path.join(folder, "names.so")
        subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", library, "-ldl"], check=True,
                       text=True, input=NAME_SERVICE % SLOW)
        preload = ":".join(filter(None, [os.environ.get("VELTRANE_SERVER_PRELOAD"), library]))
        with PrivateCluster(module_path(), environment={"LD_PRELOAD": preload}) as cluster:
            db = Database(cluster, 0)
            db.run(SET_UP.format(module=cluster.module_path))
            db.connection.close()
            yield cluster
            assert not crash_signs(cluster.log_path)


def threads_and_sockets(pid):
    """How many of each a process has."""
    return len(os.listdir(f"/proc/{pid}/task")), sum(link.startswith("socket:") for link in descriptors(pid))


def test_names(own_cluster, scripted, full_port):
    """Nothing waits for a name that is slow, and what is left of the look-up goes away unnoticed."""
    db = Database(own_cluster, scripted.port)
    before = threads_and_sockets(db.pid)
    libcurl = ctypes.CDLL("libcurl.so.4").curl_version
    libcurl.restype = ctypes.c_char_p
    # The transport library can leave a look-up behind from this version on; before it has to wait.
    can_leave = [int(part) for part in re.findall(rb"\d+", libcurl())[:2]] >= [7, 87]
    patience = PATIENCE if can_leave else SLOW + PATIENCE
    db.make_table("good")
    for table, address in (("unknown", "no-such-host.invalid"), ("slow", "slow.invalid")):
        db.make_table(table, address=address)
    assert db.failure(QUERY.format("unknown")) == ("HV000", "Curl error (6)")
    db.run("CREATE SERVER impatient FOREIGN DATA WRAPPER veltranepgfdw OPTIONS (connecttimeout '300')")
    for arrange, error in CANCELS:
        arrange(db, 0.3)
        start = time.monotonic()
        assert db.failure(QUERY.format("slow")) == error
        assert time.monotonic() - start < 0.3 + patience
        db.run("RESET statement_timeout")
        assert db.run(QUERY.format("good")) == []
    for where in ({"address": "slow.invalid"}, {"port": full_port}):
        db.make_table("impatient", server="impatient", **where)
        start = time.monotonic()
        assert db.failure(QUERY.format("impatient")) == ("HV000", "Curl error (28)")
        assert time.monotonic() - start < 0.3 + patience
    wait_until(lambda: threads_and_sockets(db.pid) == before)
    assert db.run(QUERY.format("good")) == []
    db.connection.close()


def test_fast_shutdown(own_cluster, full_port):
    """It ends every session at once, whatever its query waits for."""
    ends = []

    def end(db, query):
        outcome = db.outcome(query)
        ends.append((time.monotonic(), outcome))

    with contextlib.ExitStack() as stack:
        sessions = []
        for verb, script, options in [each.values for each in HANGING] + [("name", None, {})]:
            server = stack.enter_context(ScriptedServer(None))
            db = Database(own_cluster, server.port)
            table = f"t{len(sessions)}"
            query = hang(db, server, full_port, verb, script, options)
            if verb == "name":
                db.run("ALTER FOREIGN TABLE books OPTIONS (SET address 'slow.invalid')")
            db.run(f"ALTER FOREIGN TABLE books RENAME TO {table}")
            sessions.append((db, verb, server))
            threading.Thread(target=end, args=(db, query.replace("books", table)), daemon=True).start()
        for db, verb, server in sessions:
            if verb in ("POST", "GET"):
                wait_until(lambda: server.requests and server.requests[-1].verb == verb)
        time.sleep(0.5)
        assert ends == []
        start = time.monotonic()
        stopping = own_cluster.run_as([f"{own_cluster.pg_bindir}/pg_ctl", "stop", "--mode", "fast",
                                       "--silent", "--pgdata", f"{own_cluster.directory}/data"])
        wait_until(lambda: len(ends) == len(sessions))
        assert max(moment for moment, _ in ends) - start < PATIENCE
        assert stopping.wait() == 0
        assert [db.log()[-2:].count(TERMINATED) for db, _, _ in sessions] == [1] * len(sessions)


def test_an_abandoned_cursor_and_a_savepoint_leave_no_connection(db, scripted):
    scripted.script = answer(hits(*[f'"_id":"a{n}","_score":1' for n in range(50)]))
    db.make_table(port=scripted.port)
    db.connection.autocommit = False
    db.run("DECLARE c CURSOR FOR SELECT docname FROM books WHERE param = 'query=q'")
    assert db.run("FETCH 1 FROM c") == [("a0",)]
    db.run("SAVEPOINT s")
    scripted.script = answer("{")
    assert db.failure("SELECT docname FROM books WHERE param = 'query=q'")[0] == "HV000"
    db.run("ROLLBACK TO s")
    assert db.run("FETCH 1 FROM c") == [("a1",)]
    db.connection.rollback()
    assert connections_to(db.pid, scripted.port) == 0
