"""What the backends of an endurance run ask: queries with their right answers, and queries that must fail.

A query is a function of (db, rng) that yields pairs of what came of a statement and what is right: rows, worked out
from the documents themselves, or an error, as (SQLSTATE, pattern of the message).
"""
import hashlib
import json

from conftest import unpacked

WORDS = ["whale", "letter", "harbour", "winter", "garden"]
TYPES = ["novel", "poetry", "essay"]
NUMBERS = range(600)
PAGE = 100
# Contexts of `pages` may be left to expire, those of `early` never: they would be there at the end.
TABLES = {
    "found": {"batchsize": "1000"},
    "batches": {"batchsize": "50"},
    "pages": {"connectortype": "elasticsearchscroll", "scrolltimeout": "5s"},
    "early": {"connectortype": "elasticsearchscroll", "scrolltimeout": "12h"},
    "brief": {"connectortype": "elasticsearchscroll", "scrolltimeout": "50ms"},
}
SCROLL_SECONDS = 5
ALL = 'query={"match_all":{}}'
SUMMARY = "SELECT count(*)::int, md5(coalesce(string_agg(docname, ',' ORDER BY docname), ''))"
EXPIRED = "ElasticSearch error, query was '', .*No search context found"


def name_of(number):
    return f"d{number:04}"


def document(number):
    return {"title": f"{WORDS[number % 5]} number {number}", "number": number, "type": TYPES[number % 3],
            "text": "lorem ipsum dolor sit amet " * (number % 17)}


def summary(numbers):
    """What SUMMARY gives for these documents."""
    names = sorted(map(name_of, numbers))
    return [(len(names), hashlib.md5(",".join(names).encode()).hexdigest())]


def search_of(rng):
    """A search parameter and the numbers of the documents that it finds."""
    low, high = sorted(rng.sample(NUMBERS, 2))
    word = rng.randrange(5)
    return rng.choice([
        (ALL, NUMBERS), (f'query={{"match":{{"title":"{WORDS[word]}"}}}}', NUMBERS[word::5]),
        (f'query={{"range":{{"number":{{"gte":{low},"lt":{high}}}}}}}', NUMBERS[low:high]),
        ('query={"match":{"title":"zeppelin"}}', [])])


def search(db, rng):
    param, numbers = search_of(rng)
    yield db.outcome(f"{SUMMARY} FROM {rng.choice(['found', 'pages'])} WHERE param = %s", (param,)), summary(numbers)


def look_up(db, rng):
    wanted = rng.sample(range(900), 230)
    yield (db.outcome(f"{SUMMARY} FROM {rng.choice(['batches', 'pages'])} WHERE docname = ANY(%s)",
                      ([name_of(number) for number in wanted],)), summary(set(wanted) & set(NUMBERS)))


def contents(db, rng):
    (param, numbers), doctype, level = search_of(rng), rng.choice(TYPES), rng.choice([-2, 5])
    rows = db.outcome(f"SELECT docname, doctype, doccontent FROM {rng.choice(['found', 'pages'])} "
                      "WHERE param = ANY(%s) AND doctype = %s ORDER BY docname",
                      ([param, f"compressionlevel={level}"], doctype))
    if isinstance(rows, list):
        rows = [(name, kind, json.loads(bytes(value) if level == -2 else unpacked(value))) for name, kind, value in rows]
    yield rows, [(name_of(number), doctype, document(number)) for number in numbers if document(number)["type"] == doctype]


def join_and_rescans(db, rng):
    param, numbers = search_of(rng)
    yield (db.outcome(f"{SUMMARY} FROM (SELECT docname FROM found WHERE param = %s) a JOIN (SELECT docname FROM pages "
                      "WHERE param = 'query={\"match\":{\"title\":\"winter\"}}') b USING (docname)", (param,)),
           summary(number for number in numbers if number % 5 == 3))
    yield (db.outcome("SELECT (SELECT count(*)::int FROM pages WHERE param = %s AND docname < name) "
                      "FROM unnest(%s) name", (ALL, ["d0001", "d0150", "d0599"])), [(1,), (150,), (599,)])


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
    first = [(name_of(number),) for number in NUMBERS[:few]]
    yield of_cursor(db, "early", f"FETCH {few} FROM reading"), first
    yield db.outcome(f"SELECT docname FROM early WHERE param = %s LIMIT {few}", (ALL,)), first
    yield db.outcome(f"{SUMMARY} FROM early WHERE docname = ANY('{{d0001,d0099,d0777}}')"), summary([1, 99])


def expired(db, rng):
    yield (of_cursor(db, "brief", "MOVE 1 FROM reading", "DO $$ BEGIN PERFORM pg_sleep(0.1); END $$",
                     f"FETCH {PAGE} FROM reading"), ("HV000", EXPIRED))


def timed_out(db, rng):
    """A query that takes longer than anyone waits for it: a search for each of very many rows."""
    db.run(f"SET statement_timeout = {rng.randint(1, 300)}")
    outcome = db.outcome(f"SELECT sum((SELECT count(*) FROM {rng.choice(['found', 'pages'])} WHERE param = '{ALL}' "
                         "AND length(docname) > n)) FROM generate_series(1, 10000) n")
    db.run("RESET statement_timeout")
    yield outcome, ("57014", "canceling statement due to statement timeout")


def failing(db, rng):
    yield (db.outcome("SELECT docname FROM found WHERE param = 'query={\"nonsense\":{}}'"),
           ("HV000", "ElasticSearch error, query was '.*nonsense"))
    yield (db.outcome("SELECT docname FROM batches WHERE param = %s", (ALL,)),
           ("HV000", "es search result bigger than batch size"))
    yield (db.outcome("SELECT 1 / (349 - substr(docname, 2)::int) FROM pages WHERE param = %s", (ALL,)),
           ("22012", "division by zero"))


ANSWERED = [search, look_up, contents, join_and_rescans, left_early]
FAILING = [expired, timed_out, failing]
