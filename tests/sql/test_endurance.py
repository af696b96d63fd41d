"""One backend at length: its memory after failures and over many rows, and how soon a cancel is heeded."""
import os
import threading
import time
from pathlib import Path

import psycopg2
import pytest

from conftest import anonymous_memory, wait_until
from scriptedserver import answer, drip, hits, silence

MIB = 1024  # in KiB, as the kernel counts
QUERY = "SELECT docname, doccontent FROM {} WHERE param = 'query=q'"
SCROLL = {"connectortype": "elasticsearchscroll"}
PATIENCE = 1.5  # seconds that a cancelled query may take to end

LONG = '{"text":"' + "lorem ipsum " * 200 + '"}'


def test_failures_leave_no_memory_behind(db, scripted):
    def script(peer):
        kind = peer.path.split("/")[1]
        page = hits(*[f'"_id":"a{n}","_score":1,"_source":{LONG}' for n in range(20)])
        answer({"error": '{"error":"' + "no " * 500 + '"}', "cut": page[:-20],
                "id": page[:-3] + ',{"_id":"\\ud800"}]}}'}[kind])(peer)
    scripted.script = script
    for name in ("error", "cut", "id"):
        db.make_table("bad_" + name, indexlist=name, port=scripted.port, fullerrormsg="true")
    db.make_table("bad_port", port=1)
    db.make_table("bad_option", compressionlevel="10")
    db.make_table("bad_type", connectortype="x")
    kinds = [(QUERY.format("bad_error"), "ElasticSearch error"), (QUERY.format("bad_cut"), "Elasticsearhc"),
             (QUERY.format("bad_id"), "ElasticSearch error"), (QUERY.format("bad_port"), "Curl error (7)"),
             (QUERY.format("bad_option"), "'compressionlevel'"), (QUERY.format("bad_type"), "unsupported"),
             ("SELECT docname FROM bad_port WHERE docname = 'x' OR score = 1", "inconsistant"),
             ("SELECT docname FROM bad_port WHERE docname = upper(doctype)", "fail to extract"),
             ("SELECT docname FROM bad_port WHERE param = ANY('{query=q,highlight=h,x=y}')", "Unknown fdw"),
             ("SELECT bad_port FROM bad_port WHERE docname = 'x'", "fail to retrieve")]
    for count in range(1000):
        if count == 100:
            before = anonymous_memory(db.pid)
        statement, message = kinds[count % len(kinds)]
        # Long values make a leak of a single text show.
        statement = statement.replace("'x'", f"'{'x' * 10000}'").replace("=q", "=q" + " " * 10000)
        assert db.failure(statement)[1].startswith(message)
    assert anonymous_memory(db.pid) - before <= MIB


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
    before = anonymous_memory(db.pid)
    db.run("MOVE 7900 FROM c")
    assert anonymous_memory(db.pid) - before <= MIB
    assert len(db.run("FETCH ALL FROM c")) == 100
    assert len(scripted.requests) == 100
    db.connection.commit()


def connections_to(pid, port):
    """How many sockets of a process lead to a port of this machine."""
    with open(f"/proc/{pid}/net/tcp", encoding="ascii") as table:
        rows = [line.split() for line in table.readlines()[1:]]
    ours = {f"socket:[{row[9]}]" for row in rows if int(row[2].split(":")[1], 16) == port}
    links = []
    for entry in Path(f"/proc/{pid}/fd").iterdir():
        try:
            links.append(os.readlink(entry))
        except FileNotFoundError:
            pass
    return sum(link in ours for link in links)


def by_timeout(db, act_after):
    db.run(f"SET statement_timeout = {int(act_after * 1000)}")


def by_signal(function):
    def arrange(db, act_after):
        def act():
            with psycopg2.connect(db.cluster.dsn) as other, other.cursor() as cursor:
                cursor.execute(f"SELECT {function}({db.pid})")
            other.close()
        threading.Timer(act_after, act).start()
    return arrange


TIMEOUT = "canceling statement due to statement timeout"
REQUEST = "canceling statement due to user request"


@pytest.mark.parametrize("arrange, message", [
    (by_timeout, TIMEOUT), (by_signal("pg_cancel_backend"), REQUEST)], ids=["timeout", "request"])
@pytest.mark.parametrize("script", [silence, drip])
@pytest.mark.parametrize("verb, options, limit", [
    ("POST", {}, ""), ("GET", SCROLL, ""), ("DELETE", SCROLL, " LIMIT 1")])
def test_cancel(db, scripted, verb, options, limit, script, arrange, message):
    page = answer('{"_scroll_id":"s",' + hits('"_id":"a","_score":1,"_source":{}', total="2")[1:])
    scripted.script = lambda peer: (script if peer.request_line.startswith(verb) else page)(peer)
    db.make_table(port=scripted.port, **options)
    act_after = 0.5
    arrange(db, act_after)
    start = time.monotonic()
    assert db.failure(QUERY.format("books") + limit) == ("57014", message)
    assert act_after <= time.monotonic() - start + 0.1 and time.monotonic() - start < act_after + PATIENCE
    # Nothing is tried twice, and no deletion, which might hang too, goes before the error.
    verbs = [peer.request_line.split(" ")[0] for peer in scripted.requests]
    assert verbs == ["POST", verb][:1 if verb == "POST" else 2]
    assert connections_to(db.pid, scripted.port) == 0
    db.run("RESET statement_timeout")
    scripted.script = page
    assert len(db.run(QUERY.format("books") + " LIMIT 1")) == 1


def test_termination(db, scripted):
    scripted.script = silence
    db.make_table(port=scripted.port)
    by_signal("pg_terminate_backend")(db, 0.3)
    start = time.monotonic()
    with pytest.raises(psycopg2.OperationalError):
        db.run(QUERY.format("books"))
    assert "57P01 FATAL:  terminating connection due to administrator command" in db.log()
    wait_until(lambda: not Path(f"/proc/{db.pid}").exists())
    assert time.monotonic() - start < 0.3 + PATIENCE


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
