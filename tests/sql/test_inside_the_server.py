"""What SQL cannot reach, through a module of the test cluster."""
# That is the clauses of integers and booleans that the module exports, terms aggregations at any compression level,
# and each kind of failure on its way across the border between C++ and the server.
import shutil
import zlib
from pathlib import Path

import pytest

import test_failures
from conftest import module_path

FUNCTIONS = """
CREATE FUNCTION probe_clause(text, oid, boolean, boolean) RETURNS text AS '{user}' LANGUAGE C STRICT;
CREATE FUNCTION probe_boundary(text, integer) RETURNS integer AS '{server}' LANGUAGE C STRICT;
CREATE FUNCTION probe_term_agg(text, integer, integer, integer, boolean) RETURNS text AS '{user}' LANGUAGE C STRICT;
CREATE TABLE abc (a integer, b integer);
CREATE TABLE truths (a boolean);
"""


@pytest.fixture
def probes(db, cluster):
    """The session with the probe functions. Those that use what the module exports need it to be loaded."""
    libraries = {name: Path(cluster.path_of(f"veltrane{name.capitalize()}Tests.so")) for name in ("server", "user")}
    db.run(f"LOAD '{cluster.module_path}'")
    if not libraries["user"].exists():
        for library in libraries.values():
            shutil.copy(module_path().with_name(library.name), library)
            library.chmod(0o755)
        db.run(FUNCTIONS.format(**libraries))
    return db


MIXED, UNREADABLE = test_failures.MIXED, "fail to extract clause of type N for a"
NO = "no 0", "no false"
EQUAL = 96  # the equality of integers, which the analysis takes; that of booleans is not among its operators

# what a statement returns, as a clause or as the operands of an operator; what the integer analysis says of it, and
# what the boolean one
CLAUSES = [
    *[(f"{clause} FROM abc", 0, value, "no false") for clause, value in (
        ("a = 7", "yes 7"), ("7 = a", "yes 7"), ("a = 1 or a = 2", "yes 2"), ("a = 1 or (a = 2 or a = 3)", "yes 3"),
        ("a = $1", "yes 0"), ("a = 1 or b = 2", MIXED))],
    *[(f"{clause} FROM abc", 0, *NO) for clause in (
        "b = 7", "b = a", "abs(a) = 7", "a = null", "a < 7", "b = 1 or b = 2", "a = 1 and a = 2", "not a = 1",
        "a = any('{7}')")],
    # A value that is no constant is accepted by its shape, and refused when its value is asked for.
    ("a = b FROM abc", 0, UNREADABLE, UNREADABLE), ("a = abs(b) FROM abc", 0, UNREADABLE, UNREADABLE),
    ("a = true FROM truths", 0, *NO), ("a, true FROM truths", EQUAL, "no 0", "yes true"),
    ("a, $2 FROM truths", EQUAL, "no 0", "yes false"), ("a, $3 FROM abc", EQUAL, *NO), ("a FROM abc", EQUAL, *NO),
    ("a, array[a = 5, true] FROM abc", EQUAL, "yes 5", "no false"), ("a, array[true, false] FROM abc", EQUAL, *NO),
]


def test_integer_and_boolean_clauses(probes):
    for clause, operator, integer, boolean in CLAUSES:
        for integers, wanted, zero in ((True, integer, "0"), (False, boolean, "false")):
            shape = {MIXED: MIXED, UNREADABLE: f"yes {zero}"}.get(wanted, f"{wanted.split()[0]} {zero}")
            for with_values, expected in ((True, wanted), (False, shape)):
                outcome = probes.outcome("SELECT probe_clause('SELECT ' || %s, %s, %s, %s)",
                                         (clause, operator, integers, with_values))
                assert outcome in ([(expected,)], ("HV000", expected)), (clause, integers, with_values)


def read_aggregations(probes, response, level=-2, collect=True, chunk=1):
    """Reads a response into three slots: the verdict, and the count and the value of each slot."""
    told = probes.value("SELECT probe_term_agg(%s, %s, 3, %s, %s)", (response, chunk, level, collect))
    verdict, *lines = told.split("\n")
    slots = [line.split(" ") for line in lines]
    assert slots.pop() == ["-1", "\\x7374616c65"]  # nobody's slot
    return verdict, [(int(count), None if value == "null" else bytes.fromhex(value[2:])) for count, value in slots]


def aggregations(*named_keys):
    """The response that holds these lists of raw keys."""
    lists = (f'"{name}":{{"buckets":[{",".join(f"""{{"key":{key},"doc_count":1}}""" for key in keys)}]}}'
             for name, *keys in named_keys)
    return f'{{"aggregations":{{"rootagg":{{"doc_count":9,{",".join(lists)}}}}}}}'


TWO = aggregations(("3", '"red"', '"bl\\u00fce"'), ("1",))
RED, EMPTY = b'["red","bl\\u00fce"]', b"[]"


@pytest.mark.parametrize("response, slots", [
    (TWO, [(0, EMPTY), (0, None), (2, RED)]),
    (aggregations((" 2x", 1, 2), ("2", 3)), [(0, None), (1, b"[3]"), (0, None)]),
    (aggregations(("4294967297", "null")), [(1, b"[null]"), (0, None), (0, None)]),
    ("{}", [(0, None)] * 3)])
def test_slots_of_aggregations(probes, response, slots):
    for chunk in (1, 10, 1000):
        assert read_aggregations(probes, response, chunk=chunk) == ("on good ", slots)
    assert read_aggregations(probes, response, collect=False) == ("on good ", [(count, None) for count, _ in slots])
    for level in (-2**31, -3, *range(-1, 10), 10, 2**31 - 1):
        packed = [(count, value and len(value).to_bytes(4, "little") + zlib.compress(value, level)
                   if -1 <= level <= 9 else value) for count, value in slots]
        assert read_aggregations(probes, response, level=level) == ("on good ", packed), level


def test_aggregations_without_a_slot(probes):
    for name in ("0", "4", "-1", "abc", "2147483648", "-2147483648", "99999999999999999999999"):
        response = aggregations(("1", 5), (name, 6), ("2", 7))
        for collect in ("true", "false"):
            for chunk in (1, 1000):
                statement = f"SELECT probe_term_agg(%s, {chunk}, 3, 5, {collect})"
                assert probes.failure(statement, (response,)) == ("HV00B", "Parsing error")


@pytest.mark.parametrize("kind, state, message", [
    ("fdw error", "HV00B", "own failure, cut inside a character: ?"), ("out of memory", "53200", "out of memory"),
    ("standard exception", "XX000", "broken invariant"), ("foreign exception", "XX000", "unknown exception"),
    ("server error", "22012", "server's own"),
    ("nested server error", "22P02", 'invalid input syntax for type real: "null"')])
def test_failures_cross_the_boundary(probes, kind, state, message):
    """Each failure arrives as an error of the server, and every object on its way was destroyed."""
    for _ in range(20):
        assert probes.failure("SELECT probe_boundary(%s, 50)", (kind,)) == (state, message)
    assert probes.value("SELECT probe_boundary('no failure', 0)") == 0
    assert probes.value("SELECT 1 FROM books WHERE docname = 'b001'") == 1
