"""Random statements on the foreign table give the rows that they give on a local copy, or are refused."""
from random import Random

import pytest

from conftest import Database
from statements import Statements

ALL = """{}.param = 'query={{"match_all":{{}}}}'"""
# What the wrapper refuses: values of other tables computed by the scan, the whole rows that the server wants of every
# table beside the one that it changes, an id beside a query, and an id or a type in one OR with something else or
# compared with what is no constant.
REFUSALS = ["a scan of this foreign table cannot compute values of another table's columns", "inconsistant OR clause",
            "fail to retrieve column name", "docname and query clause not supported on same select",
            "fail to extract clause of type N for docname", "fail to extract clause of type N for doctype"]
LOCAL = """
CREATE TEMP TABLE copy AS SELECT * FROM books WHERE {};
CREATE TEMP TABLE local_rows AS SELECT 'b' || to_char(n * 30, 'FM000') AS name, n FROM generate_series(0, 9) n;
CREATE TEMP TABLE changes AS SELECT name AS t, n::numeric FROM local_rows;
"""


class Names(dict):
    """What steers the scan of an alias."""

    def __init__(self, form):
        super().__init__()
        self.form = form

    def __missing__(self, alias):
        return self.form.format(alias)


@pytest.mark.parametrize("seed", range(2))
@pytest.mark.parametrize("options", [{"batchsize": 1000}, {"batchsize": 90, "connectortype": "elasticsearchscroll"}],
                         ids=["standard", "scroll"])
def test_statements(cluster, search, seed, options):
    db = Database(cluster, search.port, jit=False, esversion=7)
    db.make_table(**options)
    db.run(LOCAL.format(ALL.format("books")))
    statements = Statements(Random(f"{seed}{options}"), ["@.docname", "@.doctype"], ["@.score"],
                            ["book", "essay", "b003", "b210", "x"])
    refused = 0
    for _ in range(100):
        statement = statements.any()
        outcomes = []
        for rel, steer in (("copy", "true"), ("books", ALL)):
            db.run("BEGIN")
            outcomes.append(db.outcome(statement.format(rel=rel, steer=Names(steer))))
            db.run("ROLLBACK")
        local, foreign = (sorted(map(repr, each)) if isinstance(each, list) else each for each in outcomes)
        if isinstance(foreign, tuple) and foreign[1] in REFUSALS:
            refused += 1
        else:
            assert foreign == local, statement
    assert refused < 10
    db.connection.close()
