"""Random statements on the search wrapper's tables give the rows that they give on a local copy of the documents."""
import os
import re
from random import Random

import pytest
from psycopg2.extensions import new_type, register_type

import fieldstatements
from conftest import Database, SearchServer
from searchstatements import FOREIGN, KINDS, SearchStatements, create, documents

COUNT = int(os.environ.get("VELTRANE_STATEMENTS", "400"))
SEED = os.environ.get("VELTRANE_SEED", "")
# (version of the search server, batchsize, documents)
PLACES = [(6, 7, 150), (7, 300, 1000), (8, 1, 40), (9, 1000, 300)]
FIELD_PLACES = [(6, 15, 60, "good"), (7, 1000, 150, "bad"), (8, 30, 100, "good"), (9, 7, 60, "bad")]
LOCAL = {"hiding": "hiding", "dynamic": "dynamic"}  # what a foreign table is compared with; all others with `copy`
ON_FIELDS = re.compile(rb'"(?:terms|range)":\{"(?!type[".])')  # of the search's filters
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


def is_meagre(db, told, relations, settings, may_refuse):
    """Compares what a statement gives on the two sides of `relations`, and tells whether that is nothing."""
    outcomes = []
    for side in relations:
        db.run("BEGIN; " + "; ".join(f"SET LOCAL {setting}" for setting in settings))
        outcomes.append(rows_of(db, told.format(rel=side)))
        db.run("ROLLBACK; DEALLOCATE ALL")
    may_refuse = may_refuse and isinstance(outcomes[1], tuple)
    assert outcomes[1] == outcomes[0] or may_refuse and outcomes[1][1] in REFUSALS, (settings,
                                                                                     told.format(rel=relations[1]))
    return outcomes[0] == [] or isinstance(outcomes[0], tuple)


def relations_of(chosen):
    """The local relation and the foreign one for each kind of search."""
    foreign = {kind: chosen for kind in ["all", *KINDS]}
    # No join condition reaches what a barrier is around.
    foreign["any"] = FOREIGN[0] if chosen == "hiding" else chosen
    return {kind: f"{kind}_{LOCAL.get(foreign[kind], 'copy')}" for kind in foreign}, foreign


@pytest.mark.parametrize("place", PLACES, ids=str)
def test_statements(cluster, place):
    version, batch, count = place
    meagre, random = 0, Random(f"{SEED}{place}")
    with SearchServer(version) as server:
        db = Database(cluster, server.port)
        db.batch = batch
        make_everything(db, server)
        create(db, server, count)
        statements = SearchStatements(random, [name for _, name, _ in documents(count)] + ["no", "d7"])
        statements.wide = db.version >= 15
        for _ in range(COUNT // len(PLACES)):
            statement, relations = statements.any(), relations_of(random.choice(FOREIGN))
            off = [f"{plan} = off" for plan in random.sample(PLANS, random.randint(0, 3))]
            meagre += is_meagre(db, statement, relations, off, "{rel[any]}" not in statement)
        assert meagre < COUNT // len(PLACES) * 0.6
        assert server.open_scroll_contexts() == 0
        db.connection.close()


def make_everything(db, server):
    """Two nodes that compress, so that nothing of what goes over the wire is left out but faults."""
    server.compresses = True
    db.make_documents(address=f"http://127.0.0.1:{server.port},http://127.0.0.1:{server.add_node()}", httpcompression="true")


def keep_as_text(db):
    """Dates and times come as the server writes them, in whatever style."""
    for oids, name in (((1082, 1114, 1184), "plain"), ((1182, 1115, 1185), "array")):
        register_type(new_type(oids, name, lambda value, _: value), db.connection)


@pytest.mark.parametrize("place", FIELD_PLACES, ids=str)
def test_statements_on_fields(cluster, place):
    """With every value of a field in its column, and with bad ones that are NULL."""
    version, batch, count, bad = place
    meagre, pushed, random = 0, 0, Random(f"{SEED}{place}")
    with SearchServer(version) as server:
        db = Database(cluster, server.port)
        keep_as_text(db)
        db.batch = batch
        make_everything(db, server)
        fieldstatements.create(db, server, count, fieldstatements.Fields(random, bad == "bad"))
        fieldstatements.check_import(db, fieldstatements.INDICES[0])
        statements = fieldstatements.FieldStatements(random, [name for _, name, _ in documents(count)],
                                                     fieldstatements.samples(db))
        statements.wide = db.version >= 15
        for _ in range(COUNT // len(FIELD_PLACES)):
            statement, relations = statements.any(), relations_of(random.choice([*FOREIGN, "dynamic"]))
            settings = [f"{plan} = off" for plan in random.sample(PLANS, random.randint(0, 2))]
            settings += random.choice([[], ["TimeZone = 'America/St_Johns'"],
                                       ["TimeZone = 'Asia/Tokyo'", "DateStyle = 'German'"]])
            server.take_journal()
            meagre += is_meagre(db, statement, relations, settings, "{rel[any]}" not in statement)
            pushed += any(ON_FIELDS.search(request.body) for request in server.take_journal())
        assert meagre < COUNT // len(FIELD_PLACES) * 0.6 and pushed > COUNT // len(FIELD_PLACES) * 0.25
        assert server.open_scroll_contexts() == 0
        db.connection.close()
