"""Random statements on the search wrapper's tables give the rows that they give on a local copy of the documents."""
import os
from random import Random

import psycopg2
import pytest

from conftest import Database, SearchServer
from searchstatements import FOREIGN, KINDS, SearchStatements, create, documents

COUNT = int(os.environ.get("VELTRANE_STATEMENTS", "400"))
SEED = os.environ.get("VELTRANE_SEED", "")
# (version of the search server, batchsize, documents)
PLACES = [(6, 7, 150), (7, 1000, 1000), (8, 1, 40), (9, 1000, 300)]
# What is refused, and rightly: joins that compare the parameters of a search with any text, with those of another, or
# where all documents are to be kept.
REFUSALS = ['a value of "param" is no parameter', 'a search takes one condition on "param"',
            'a condition on "param" cannot be given to the search']
PLANS = ["enable_hashjoin", "enable_mergejoin", "enable_nestloop", "enable_material", "enable_hashagg"]


def rows_of(db, script):
    """All rows that the statements return, in the order of their outcome; or (SQLSTATE, message)."""
    found = []
    for statement in script.split("; "):
        outcome = db.outcome(statement)
        if isinstance(outcome, tuple):
            return outcome
        found += sorted(map(repr, outcome or []))
    return found


@pytest.mark.parametrize("place", PLACES, ids=str)
def test_statements(cluster, place):
    version, batch, count = place
    meagre, random = 0, Random(f"{SEED}{place}")
    with SearchServer(version) as server:
        db = Database(cluster, server.port)
        db.batch = batch
        db.make_documents()
        create(db, server, count)
        statements = SearchStatements(random, [name for _, name, _ in documents(count)] + ["no", "d7"])
        statements.wide = db.version >= 15
        for number in range(COUNT // len(PLACES)):
            statement, chosen = statements.any(), random.choice(FOREIGN)
            foreign = {kind: chosen for kind in ["all", *KINDS]}
            # No join condition reaches what a barrier is around.
            foreign["any"] = FOREIGN[0] if chosen == "hiding" else chosen
            local = {kind: f"{kind}_{'hiding' if foreign[kind] == 'hiding' else 'copy'}" for kind in foreign}
            off = random.sample(PLANS, random.randint(0, 3))
            outcomes = []
            for relations in (local, foreign):
                db.run("BEGIN; " + "; ".join(f"SET LOCAL {plan} = off" for plan in off))
                outcomes.append(rows_of(db, statement.format(rel=relations)))
                db.run("ROLLBACK")
            told = (number, off, statement.format(rel=foreign))
            may_refuse = isinstance(outcomes[1], tuple) and "{rel[any]}" not in statement
            assert outcomes[1] == outcomes[0] or may_refuse and outcomes[1][1] in REFUSALS, told
            meagre += outcomes[0] == [] or isinstance(outcomes[0], tuple)
        assert meagre < COUNT // len(PLACES) * 0.6
        assert server.open_scroll_contexts() == 0
        db.connection.close()
