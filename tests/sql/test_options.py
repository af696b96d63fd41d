"""The options of a table: what each value means, and when a bad one shows."""
import json

import pytest

QUERY = "SELECT docname FROM books WHERE param = 'query=q'"
RANGE = ("HV000", "'compressionlevel' should be in range [-2;9]")
MISSING = ("HV000", "missing options on elastic search table")
NEED = ("HV000", "need docname or query clause")
UNSUPPORTED = ("HV00D", "unsupported connector type")


@pytest.mark.parametrize("value, size", [
    (None, 10), ("0", 10), ("-5", 10), ("abc", 10), ("", 10), ("25", 25), (" 25 rows", 25),
    ("2147483648", 10), ("4294967297", 1)])
def test_batch_size(db, sent, scripted, value, size):
    db.make_table(port=scripted.port, batchsize=value)
    assert [json.loads(body.replace(":q,", ":0,"))["size"] for body in sent(QUERY)] == [size]


@pytest.mark.parametrize("options, expected", [
    ({"connectortype": None}, UNSUPPORTED),
    ({"connectortype": "ElasticSearch"}, UNSUPPORTED),
    ({"connectortype": "elasticsearch "}, UNSUPPORTED),
    ({"connectortype": ""}, UNSUPPORTED),
    ({"connectortype": None, "Connectortype": "elasticsearch"}, UNSUPPORTED),
    ({"address": None}, MISSING),
    ({"port": None}, MISSING),
    ({"compressionlevel": "10"}, RANGE),
    ({"compressionlevel": "-3"}, RANGE),
    ({"compressionlevel": "2147483648"}, RANGE),
    ({"compressionlevel": "x"}, []),
    ({"compressionlevel": "4294967305"}, []),
    ({"nonsense": "x", "batchSize": "-1", "fullerrormsg": ""}, []),
    ({"scrolltimeout": "a b"}, []),  # nothing uses it
])
def test_checks(db, sent, scripted, options, expected):
    db.make_table(**{"port": scripted.port, **options})
    assert db.outcome(QUERY) == expected
    assert db.outcome("EXPLAIN " + QUERY)[:2] == expected if expected else db.run("EXPLAIN " + QUERY)
    assert len(scripted.requests) == (expected == [])


@pytest.mark.parametrize("options, clause, expected", [
    ({"connectortype": "x", "address": None}, "docname = 'x' OR score = 1", UNSUPPORTED),
    ({"address": None}, "docname = 'x' OR score = 1", ("HV000", "inconsistant OR clause")),
    ({"address": None}, "true", NEED),
    ({"compressionlevel": "10"}, "true", NEED),
    ({"compressionlevel": "10"}, "param = 'compressionlevel=10'", RANGE),
    ({"address": None, "compressionlevel": "10"}, "docname = 'x'", RANGE),
    ({"address": None}, "docname = 'x' AND param = 'query'", ("HV000", "Malformed fdw param query ")),
    ({"address": None}, "docname = 'x' AND param = ANY('{query=q,highlight=h}')",
     ("HV000", "docname and query clause not supported on same select")),
    ({"address": None}, "docname = 'x' AND param = 'highlight=h'",
     ("HV000", "'highlight' param could only be used with 'query' param")),
])
def test_order_of_checks(db, options, clause, expected):
    db.make_table(**options)
    assert db.failure(f"SELECT docname FROM books WHERE {clause}") == expected


def test_options_count_where_they_belong(db, scripted):
    db.run("DROP SERVER IF EXISTS optioned CASCADE")
    db.run("CREATE SERVER optioned FOREIGN DATA WRAPPER veltranepgfdw "
           f"OPTIONS (connectortype 'elasticsearch', port '{scripted.port}', batchsize '-1')")
    db.run("CREATE USER MAPPING FOR CURRENT_USER SERVER optioned OPTIONS (address '127.0.0.1', nonsense 'x')")
    look_up = "SELECT docname FROM other WHERE docname = 'x'"
    db.make_table("other", server="optioned", connectortype=None)
    assert db.failure(look_up) == UNSUPPORTED
    db.make_table("other", server="optioned", address=None, port=None)
    assert db.failure(look_up) == MISSING
    # The server may say where; what the table says goes before it.
    db.run("ALTER SERVER optioned OPTIONS (ADD address '127.0.0.1')")
    assert db.run(look_up) == []
    db.run("ALTER SERVER optioned OPTIONS (SET address '[x', SET port '1')")
    db.make_table("other", server="optioned", port=scripted.port)
    assert db.run(look_up) == []
    db.run("DROP SERVER optioned CASCADE")


def test_changed_options_reach_a_prepared_statement(db, sent):
    db.run("PREPARE p AS " + QUERY)
    assert sent("EXECUTE p") == ['{"query":q,"size":100,"_source":false}']
    db.run("ALTER FOREIGN TABLE books OPTIONS (SET batchsize '7')")
    assert sent("EXECUTE p") == ['{"query":q,"size":7,"_source":false}']
