"""What SQL cannot reach, through a module of the test cluster: hand-built clauses, terms aggregations at any
compression level, and each kind of failure on its way across the border between C++ and the server."""
import shutil
import zlib
from pathlib import Path

import pytest

from conftest import module_path

FUNCTIONS = """
CREATE FUNCTION probe_clause(regclass, text, text, boolean) RETURNS text AS '{user}' LANGUAGE C STRICT;
CREATE FUNCTION probe_boundary(text, integer) RETURNS text AS '{server}' LANGUAGE C STRICT;
CREATE FUNCTION probe_term_agg(text, integer, integer, integer, boolean) RETURNS text AS '{user}' LANGUAGE C STRICT;
CREATE FUNCTION probe_alive() RETURNS integer AS '{server}' LANGUAGE C STRICT;
CREATE TABLE abc (a integer, b integer, c integer);
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


def one(probes, statement, *values):
    return probes.run(statement, values)[0][0]


MIXED = ("HV000", "inconsistant OR clause")


# Clause, then what the integer flavour says of it, then what the boolean one says.
@pytest.mark.parametrize("clause, integer, boolean", [
    ("a = 7", "yes 7", "no false"), ("7 = a", "yes 7", "no false"), ("b = 7", "no 0", "no false"),
    ("b = a", "no 0", "no false"), ("f(a) = 7", "no 0", "no false"), ("a = null", "no 0", "no false"),
    ("a = true by int4", "no 0", "yes true"), ("a = true by bool", "no 0", "no false"),
    ("a < 7", "no 0", "no false"), ("not a", "no 0", "no false"), ("a = 1 or a = 2", "yes 2", "no false"),
    ("a = 1 or (a = 2 or a = 3)", "yes 3", "no false"), ("a = 1 or b = 2", MIXED, "no false"),
    ("b = 1 or b = 2", "no 0", "no false"), ("empty or", "no 0", "no false"),
    ("a = 1 and a = 2", "no 0", "no false"), ("not a = 1", "no 0", "no false"),
    ("a = any(7)", "no 0", "no false"), ("a = any(7) by text", "yes 7", "no false"),
    ("a = any(f())", "no 0", "no false"), ("a = $1", "yes 0", "no false"), ("a = $1::text", "no 0", "no false"),
    ("a = $exec", "no 0", "no false"), ("a = array[1, 2]", "no 0", "no false"),
    ("a = array[]", "no 0", "no false"), ("a = array[a = 5, 1]", "yes 5", "no false"),
    ("a = array[a = 5]::text", "no 0", "no false")])
def test_integer_and_boolean_clauses(probes, clause, integer, boolean):
    for flavour, expected in (("int", integer), ("bool", boolean)):
        outcome = probes.outcome("SELECT probe_clause('abc', %s, %s, true)", (flavour, clause))
        assert outcome == (expected if isinstance(expected, tuple) else [(expected,)]), flavour
        if isinstance(expected, tuple):
            continue
        shape_only = one(probes, "SELECT probe_clause('abc', %s, %s, false)", flavour, clause)
        assert shape_only == expected.split()[0] + (" 0" if flavour == "int" else " false"), flavour


def test_values_that_are_no_constants(probes):
    """A value that is no constant is accepted by its shape, and refused when its value is asked for."""
    for clause in ("a = b", "a = f()"):
        assert one(probes, "SELECT probe_clause('abc', 'int', %s, false)", clause) == "yes 0"
        state, message = probes.failure("SELECT probe_clause('abc', 'int', %s, true)", (clause,))
        assert state == "HV000" and message.startswith("fail to extract clause of type ")
        assert message.endswith(" for a")


def read_aggregations(probes, answer, level=-2, collect=True, chunk=1):
    """Reads an answer into three slots: the verdict, and the count and the value of each slot."""
    lines = one(probes, "SELECT probe_term_agg(%s, %s, 3, %s, %s)", answer, chunk, level, collect).split("\n")
    slots = [line.split(" ") for line in lines[1:]]
    assert slots.pop() == ["-1", "stale"]
    return lines[0], [(int(count), None if value == "null" else bytes.fromhex(value[2:])) for count, value in slots]


def aggregations(*named_keys):
    """The answer that holds these lists of raw keys."""
    lists = (f'"{name}":{{"buckets":[{",".join(f"""{{"key":{key},"doc_count":1}}""" for key in keys)}]}}'
             for name, *keys in named_keys)
    return f'{{"aggregations":{{"rootagg":{{"doc_count":9,{",".join(lists)}}}}}}}'


TWO = aggregations(("3", '"red"', '"bl\\u00fce"'), ("1",))
RED, EMPTY = b'["red","bl\\u00fce"]', b"[]"


@pytest.mark.parametrize("answer, slots", [
    (TWO, [(0, EMPTY), (0, None), (2, RED)]),
    (aggregations((" 2x", 1, 2), ("2", 3)), [(0, None), (1, b"[3]"), (0, None)]),
    (aggregations(("4294967297", "null")), [(1, b"[null]"), (0, None), (0, None)]),
    ("{}", [(0, None)] * 3)])
def test_slots_of_aggregations(probes, answer, slots):
    for chunk in (1, 10, 1000):
        assert read_aggregations(probes, answer, chunk=chunk) == ("on good ", slots)
    assert read_aggregations(probes, answer, collect=False) == ("on good ", [(count, None) for count, _ in slots])
    for level in (-2**31, -3, *range(-1, 10), 10, 2**31 - 1):
        packed = [(count, value and len(value).to_bytes(4, "little") + zlib.compress(value, level)
                   if -1 <= level <= 9 else value) for count, value in slots]
        assert read_aggregations(probes, answer, level=level) == ("on good ", packed), level


@pytest.mark.parametrize("name", ["0", "4", "-1", "abc", "2147483648", "-2147483648", "99999999999999999999999"])
def test_aggregations_without_a_slot(probes, name):
    answer = aggregations(("1", 5), (name, 6), ("2", 7))
    for collect in ("true", "false"):
        for chunk in (1, 1000):
            statement = f"SELECT probe_term_agg(%s, {chunk}, 3, 5, {collect})"
            assert probes.failure(statement, (answer,)) == ("HV00B", "Parsing error")


def test_errors_instead_of_aggregations(probes):
    error = '{"error":"no such index","status":404}'
    assert read_aggregations(probes, error) == ("stop bad no such index", [(0, None)] * 3)
    key_last = TWO.replace('"key":"red","doc_count":1', '"doc_count":1,"key":"red"')
    assert read_aggregations(probes, key_last)[0] == "stop bad Parsing error, fail to retrieve field value"


@pytest.mark.parametrize("kind, state, message", [
    ("fdw error", "HV00B", "own failure, cut inside a character: ?"), ("out of memory", "53200", "out of memory"),
    ("standard exception", "XX000", "broken invariant"), ("foreign exception", "XX000", "unknown exception"),
    ("server error", "22012", "server's own"),
    ("nested server error", "22P02", 'invalid input syntax for type real: "null"')])
def test_failures_cross_the_boundary(probes, kind, state, message):
    """Each failure arrives as an error of the server, and every object on its way was destroyed."""
    for _ in range(20):
        assert probes.failure("SELECT probe_boundary(%s, 50)", (kind,)) == (state, message)
    assert one(probes, "SELECT probe_alive()") == 0
    assert one(probes, "SELECT 1 FROM books WHERE docname = 'b001'") == 1
