"""The options of a table: what each value means, and where an option counts. What is refused: test_failures."""
import json

import test_failures
from conftest import ROOT
from scriptedserver import response, hits, named

SEARCH = "SELECT docname FROM books WHERE param = 'query=q'"
LOOK_UP = "SELECT docname FROM books WHERE docname IN ('a', 'c')"


def test_sizes_and_what_is_passed_over(db, sent, scripted):
    sizes = {None: 10, "0": 10, "-5": 10, "abc": 10, "": 10, "25": 25, " 25 rows": 25, 2**31: 10, 2**32 + 1: 1}
    for options, size in [*[({"batchsize": value}, size) for value, size in sizes.items()],
                          ({"nonsense": "x", "batchSize": "-1", "fullerrormsg": ""}, 100),
                          ({"scrolltimeout": "a b"}, 100),  # nothing uses it
                          ({"compressionlevel": "x"}, 100), ({"compressionlevel": "4294967305"}, 100)]:
        db.make_table(port=scripted.port, **options)
        assert sent(SEARCH) == [f'{{"query":q,"size":{size},"_source":false}}'], options


def test_options_count_where_they_belong(db, scripted):
    db.run("CREATE SERVER optioned FOREIGN DATA WRAPPER veltranepgfdw "
           f"OPTIONS (connectortype 'elasticsearch', port '{scripted.port}', batchsize '-1')")
    db.run("CREATE USER MAPPING FOR CURRENT_USER SERVER optioned OPTIONS (address '127.0.0.1', nonsense 'x')")
    for options, message in (({"connectortype": None}, test_failures.UNSUPPORTED["message"]),
                             ({"address": None, "port": None}, test_failures.MISSING)):
        db.make_table(server="optioned", **options)
        assert db.failure(LOOK_UP)[1] == message
    # The server may say where; what the table says goes before it.
    db.run("ALTER SERVER optioned OPTIONS (ADD address '127.0.0.1')")
    assert db.run(LOOK_UP) == []
    db.run("ALTER SERVER optioned OPTIONS (SET address '[x', SET port '1')")
    db.make_table(server="optioned", port=scripted.port)
    assert db.run(LOOK_UP) == []
    db.run("DROP SERVER optioned CASCADE")


# Responses that lack hits because shards failed, did not respond, or time ran out; and such as lack nothing. In each way
# and on each page: test_versions.
STATUSES = [
    ('"timed_out":true', "timed out"),
    ('"_shards":{"total":4,"successful":2,"skipped":0,"failed":2}', "2 of 4 shards failed"),
    ('"_shards":{"total":5,"successful":4,"skipped":1,"failed":0}', "1 of 5 shards without an answer"),
    ('"timed_out": true ,"_shards" : {"total" : 9, "successful":3, "failed" :4}',
     "timed out, 4 of 9 shards failed, 2 of 9 shards without an answer"),
    ('"timed_out":false,"_shards":{"total":4,"successful":4,"skipped":4,"failed":0}', None), ('"_shards":{}', None)]
RECORDING = json.loads((ROOT / "tests/data/recordings/partial-shard-failure.json").read_text("utf-8"))["response"]


def test_partial_responses(db, scripted):
    """Passed over, warned of, refused."""
    for text, count, what in [(hits(*named("a")).replace("{", "{" + status + ",", 1), 1, what)
                              for status, what in STATUSES] + [(RECORDING, 10, "2 of 4 shards failed")]:
        scripted.script = response(text)
        message = f"ElasticSearch answer is partial: {what}"
        warnings = [f"HV000 WARNING:  {message}"] if what else []
        for query in (SEARCH, LOOK_UP):
            for reaction, expected in (("ignore", []), (None, warnings), ("warning", warnings)):
                db.make_table(port=scripted.port, partialresults=reaction)
                start = len(db.log())
                assert len(db.run(query)) == count and db.log()[start:] == expected
            db.make_table(port=scripted.port, partialresults="error")
            assert db.failure(query) == ("HV000", message) if what else len(db.run(query)) == count
