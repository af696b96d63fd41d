"""What the backends of an endurance run ask: queries with their right answers, and queries that must fail.

A query is a function of (db, rng). Those in ANSWERED yield pairs of what came back and what is right, worked
out from the documents themselves; those in FAILING an error as it came, (SQLSTATE, message), and the right
one with a pattern in place of the message.
"""
import hashlib
import json

from conftest import unpacked

WORDS = ["whale", "letter", "harbour", "winter", "garden"]
TYPES = ["novel", "poetry", "essay"]
NUMBERS = range(600)
PAGE = 100


def name_of(number):
    return f"d{number:04}"


def document(number):
    return {"title": f"{WORDS[number % 5]} number {number}", "number": number, "type": TYPES[number % 3],
            "text": "lorem ipsum dolor sit amet " * (number % 17)}


# Contexts of `pages` may be left to expire, those of `early` never: they would be there at the end.
TABLES = {
    "found": {"batchsize": "1000"},
    "batches": {"batchsize": "50"},
    "pages": {"connectortype": "elasticsearchscroll", "scrolltimeout": "5s"},
    "early": {"connectortype": "elasticsearchscroll", "scrolltimeout": "12h"},
    "brief": {"connectortype": "elasticsearchscroll", "scrolltimeout": "50ms"},
}
SCROLL_SECONDS = 5
SUMMARY = "count(*)::int, md5(coalesce(string_agg(docname, ',' ORDER BY docname), ''))"
ALL = 'query={"match_all":{}}'


def summary(numbers):
    """What SUMMARY gives for these documents."""
    names = sorted(map(name_of, numbers))
    return [(len(names), hashlib.md5(",".join(names).encode()).hexdigest())]


def search_of(rng):
    """A search parameter and the numbers of the documents that it finds."""
    low, high = sorted(rng.sample(NUMBERS, 2))
    word = rng.randrange(5)
    return rng.choice([
        (ALL, list(NUMBERS)),
        (f'query={{"match":{{"title":"{WORDS[word]}"}}}}', list(NUMBERS[word::5])),
        (f'query={{"range":{{"number":{{"gte":{low},"lt":{high}}}}}}}', list(NUMBERS[low:high])),
        ('query={"match":{"title":"zeppelin"}}', [])])


# ---- queries with an answer ----------------------------------------------------------------------------


def search(table):
    def run(db, rng):
        param, numbers = search_of(rng)
        yield db.run(f"SELECT {SUMMARY} FROM {table} WHERE param = %s", (param,)), summary(numbers)
    return run


def look_up(table):
    def run(db, rng):
        wanted = rng.sample(range(900), 230)
        names = list(map(name_of, wanted))
        yield (db.run(f"SELECT {SUMMARY} FROM {table} WHERE docname = ANY(%s)", (names,)),
               summary(number for number in wanted if number in NUMBERS))
    return run


def contents(table, level):
    def run(db, rng):
        param, numbers = search_of(rng)
        doctype = rng.randrange(3)
        rows = db.run(f"SELECT docname, doctype, doccontent FROM {table} "
                      "WHERE param = ANY(%s) AND doctype = %s ORDER BY docname",
                      ([param, f"compressionlevel={level}"], TYPES[doctype]))
        yield ([(name, kind, json.loads(bytes(content).decode() if level == -2 else unpacked(content)))
                for name, kind, content in rows],
               [(name_of(number), TYPES[doctype], document(number)) for number in numbers if number % 3 == doctype])
    return run


def join(db, rng):
    param, numbers = search_of(rng)
    yield (db.run(f"SELECT {SUMMARY} FROM (SELECT docname FROM found WHERE param = %s) a "
                  "JOIN (SELECT docname FROM pages WHERE param = %s) b USING (docname)",
                  (param, 'query={"match":{"title":"winter"}}')),
           summary(number for number in numbers if number % 5 == 3))


def rescans(db, rng):
    yield (db.run("SELECT (SELECT count(*)::int FROM pages WHERE param = %s AND docname < name) "
                  "FROM unnest(%s) name", (ALL, ["d0001", "d0150", "d0599"])), [(1,), (150,), (599,)])


def left_early(db, rng):
    """The ways to leave a scroll before its end, all of which delete its context."""
    few = rng.randint(1, 450)
    first = [(name_of(number),) for number in NUMBERS[:few]]
    with db.transaction():
        db.run("DECLARE reading CURSOR FOR SELECT docname FROM early WHERE param = %s", (ALL,))
        yield db.run(f"FETCH {few} FROM reading"), first
        db.run("CLOSE reading")
    yield db.run(f"SELECT docname FROM early WHERE param = %s LIMIT {few}", (ALL,)), first
    yield (db.run(f"SELECT {SUMMARY} FROM early WHERE docname = ANY(%s)", (["d0001", "d0099", "d0777"],)),
           summary([1, 99]))


ANSWERED = {
    "search": search("found"), "scroll": search("pages"), "look-up": look_up("batches"),
    "look-up by scroll": look_up("pages"), "contents": contents("found", -2),
    "packed contents": contents("pages", 5), "join": join, "rescans": rescans,
    "left early": left_early,
}

# ---- queries that fail ---------------------------------------------------------------------------------


EXPIRED = "ElasticSearch error, query was '', .*No search context found"


def failing(statement, pattern, state="HV000", values=None):
    def run(db, rng):
        yield db.failure(statement, values), (state, pattern)
    return run


def expired(db, rng):
    with db.transaction():
        db.run("DECLARE reading CURSOR FOR SELECT docname FROM brief WHERE param = %s", (ALL,))
        db.run("FETCH 1 FROM reading")
        db.run("SELECT pg_sleep(0.1)")
        failure = db.failure(f"FETCH {PAGE} FROM reading")
    yield failure, ("HV000", EXPIRED)


def endless(table):
    """A query that takes longer than anyone waits for it: a search for each of very many rows."""
    return (f"SELECT sum((SELECT count(*) FROM {table} WHERE param = '{ALL}' AND length(docname) > n)) "
            "FROM generate_series(1, 10000) n")


def timed_out(db, rng):
    with db.transaction():  # whose failure takes the time-out back
        db.run(f"SET LOCAL statement_timeout = {rng.randint(1, 300)}")
        failure = db.failure(endless(rng.choice(["found", "pages"])))
    yield failure, ("57014", "canceling statement due to statement timeout")


FAILING = {
    "refused query": failing("SELECT docname FROM found WHERE param = 'query={\"nonsense\":{}}'",
                             "ElasticSearch error, query was '.*nonsense"),
    "batch too small": failing("SELECT docname FROM batches WHERE param = %s",
                               "es search result bigger than batch size", values=(ALL,)),
    "division by zero": failing("SELECT 1 / (349 - substr(docname, 2)::int) FROM pages WHERE param = %s",
                                "division by zero", "22012", values=(ALL,)),
    "expired": expired,
    "timed out": timed_out,
}
