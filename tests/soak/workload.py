"""What the backends of an endurance run ask: queries with their right results, and queries that must fail."""
# A query is a function of (db, rng) that yields pairs of what came of a statement and what is right: rows, worked out
# from the documents themselves, or an error, as (SQLSTATE, pattern of the message).
import hashlib
import json

from conftest import unpacked

WORDS = ["whale", "letter", "harbour", "winter", "garden"]
TYPES = ["novel", "poetry", "essay"]
DOCUMENTS = {f"d{number:04}": {"title": f"{WORDS[number % 5]} number {number}", "number": number,
                               "type": TYPES[number % 3], "text": "lorem ipsum dolor sit amet " * (number % 17)}
             for number in range(600)}
NAMES = list(DOCUMENTS)
# Contexts of `pages` may be left to expire, those of `early` never: they would be there at the end.
TABLES = {
    "found": {"batchsize": "1000"}, "batches": {"batchsize": "50"},
    "pages": {"connectortype": "elasticsearchscroll", "scrolltimeout": "5s"},
    "early": {"connectortype": "elasticsearchscroll", "scrolltimeout": "12h"},
    "brief": {"connectortype": "elasticsearchscroll", "scrolltimeout": "50ms"},
}
SCROLL_SECONDS = 5
ALL = 'query={"match_all":{}}'
SUMMARY = "SELECT count(*)::int, md5(coalesce(string_agg(docname, ',' ORDER BY docname), ''))"
EXPIRED = "ElasticSearch error, query was '', .*No search context found"


def summary(names):
    """What SUMMARY gives for these documents."""
    return [(len(names), hashlib.md5(",".join(sorted(names)).encode()).hexdigest())]


def search_of(rng):
    """A search parameter and the names of the documents that it finds."""
    low, high = sorted(rng.sample(range(600), 2))
    word = rng.randrange(5)
    return rng.choice([
        (ALL, NAMES), (f'query={{"match":{{"title":"{WORDS[word]}"}}}}', NAMES[word::5]),
        (f'query={{"range":{{"number":{{"gte":{low},"lt":{high}}}}}}}', NAMES[low:high]),
        ('query={"match":{"title":"zeppelin"}}', [])])


def search(db, rng):
    param, names = search_of(rng)
    yield db.outcome(f"{SUMMARY} FROM {rng.choice(['found', 'pages'])} WHERE param = %s", (param,)), summary(names)


def look_up(db, rng):
    wanted = rng.sample(NAMES + [f"no{number}" for number in range(300)], 230)
    yield (db.outcome(f"{SUMMARY} FROM {rng.choice(['batches', 'pages'])} WHERE docname = ANY(%s)", (wanted,)),
           summary({*wanted} & {*NAMES}))


def contents(db, rng):
    (param, names), doctype, level = search_of(rng), rng.choice(TYPES), rng.choice([-2, 5])
    rows = db.outcome(f"SELECT docname, doccontent FROM {rng.choice(['found', 'pages'])} WHERE param = ANY(%s) "
                      "AND doctype = %s ORDER BY docname", ([param, f"compressionlevel={level}"], doctype))
    if isinstance(rows, list):
        rows = [(name, json.loads(bytes(value) if level == -2 else unpacked(value))) for name, value in rows]
    yield rows, [(name, DOCUMENTS[name]) for name in names if DOCUMENTS[name]["type"] == doctype]


def rescans(db, rng):
    bound = rng.choice(NAMES)
    yield (db.outcome("SELECT (SELECT count(*)::int FROM pages WHERE param = %s AND docname < name) "
                      "FROM unnest(%s) name", (ALL, ["d0001", bound])), [(1,), (NAMES.index(bound),)])


def of_cursor(db, table, *statements):
    """What comes of the last statement on a cursor, or of the first one that fails."""
    outcome = db.outcome(f"BEGIN; DECLARE reading CURSOR FOR SELECT docname FROM {table} WHERE param = '{ALL}'")
    for statement in statements:
        outcome = outcome or db.outcome(statement)
    db.run("COMMIT")
    return outcome


def left_early(db, rng):
    """The ways to leave a scroll before its end, all of which delete its context."""
    few = rng.randint(1, 450)
    first = [(name,) for name in NAMES[:few]]
    yield of_cursor(db, "early", f"FETCH {few} FROM reading"), first
    yield db.outcome(f"SELECT docname FROM early WHERE param = %s LIMIT {few}", (ALL,)), first
    yield db.outcome("SELECT docname FROM early WHERE docname = ANY('{d0001,no}')"), [("d0001",)]


def failing(db, rng):
    yield (of_cursor(db, "brief", "MOVE 1 FROM reading", "DO $$ BEGIN PERFORM pg_sleep(0.1); END $$",
                     "FETCH 100 FROM reading"), ("HV000", EXPIRED))
    yield (db.outcome("SELECT docname FROM found WHERE param = 'query={\"nonsense\":{}}'"),
           ("HV000", "ElasticSearch error, query was '.*nonsense"))
    yield db.outcome("SELECT docname FROM batches WHERE param = %s", (ALL,)), ("HV000", "es search result bigger")
    yield db.outcome("SELECT 1 / (349 - substr(docname, 2)::int) FROM pages WHERE param = %s", (ALL,)), (
        "22012", "division by zero")
    # A query that takes longer than anyone waits for it: a search for each of very many rows.
    db.run(f"SET statement_timeout = {rng.randint(1, 300)}")
    outcome = db.outcome(f"SELECT sum((SELECT count(*) FROM {rng.choice(['found', 'pages'])} WHERE param = '{ALL}' "
                         "AND length(docname) > n)) FROM generate_series(1, 10000) n")
    db.run("RESET statement_timeout")
    yield outcome, ("57014", "canceling statement due to statement timeout")


QUERIES = [search, look_up, contents, rescans, left_early, failing]
