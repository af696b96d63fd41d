"""Contents as text and as jsonb: both forms, told apart and checked, in databases of several encodings."""
import json
import random
import struct
import zlib

import pytest

from conftest import Database, memory
from scriptedserver import answer, hits
from test_encodings import INVALID, NO_EQUIVALENT, expected, session  # pylint: disable=unused-import

DAMAGED, NO_JSON = "22P03", "22P02"

FUNCTIONS = "".join(f"""
    CREATE FUNCTION {name}(bytea) RETURNS {result} AS '{{module}}', '{name}'
        LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
""" for name, result in (("veltranepgfdw_text", "text"), ("veltranepgfdw_jsonb", "jsonb")))

# The text of a value or, in brackets, the SQLSTATE of its refusal: for many values in one statement.
OUTCOME = """
    CREATE FUNCTION outcome(value bytea) RETURNS text LANGUAGE plpgsql AS $$
    BEGIN
        RETURN veltranepgfdw_text(value);
    EXCEPTION WHEN OTHERS THEN
        RETURN '(' || SQLSTATE || ')';
    END $$;
"""

TEXT, JSONB = "SELECT veltranepgfdw_text(%s)", "SELECT veltranepgfdw_jsonb(%s)"


def packed(text, level=5, length=None):
    """The compressed form of a text, with another stated length if one is given."""
    return struct.pack("=I", len(text) if length is None else length) + zlib.compress(text, level)


def document(length, filling=b"x"):
    """The text of an object of that length."""
    text = b'{"a":"' + filling * (length // len(filling) + 1)
    return text[:length - 2] + b'"}'


def noise(length):
    """The text of an object of that length that does not compress well."""
    words = "".join(random.Random(length).choices("abcdefghijklmnopqrstuvwxyz \u00e9\u65e5", k=length)).encode()
    return (b'{"a":"' + words)[:length - 2].decode(errors="ignore").encode().ljust(length - 2) + b'"}'


@pytest.fixture(scope="module")
def contents(cluster):
    """A session with the functions."""
    database = Database(cluster, 0)
    database.run(FUNCTIONS.format(module=cluster.module_path) + OUTCOME)
    yield database
    database.run("DROP FUNCTION outcome, veltranepgfdw_text, veltranepgfdw_jsonb")
    database.connection.close()


@pytest.fixture
def foreign(session, scripted, cluster):
    """The foreign table `books` and the functions, in the session's database."""
    session.set("jit", "off")
    session.run(FUNCTIONS.replace("CREATE", "CREATE OR REPLACE").format(module=cluster.module_path))
    session.make_table(port=scripted.port)
    return session


@pytest.mark.parametrize("text", ["plain", "na\u00efve \u00a7", "\u65e5\u672c\u8a9e", "\u20ac"],
                         ids=["ascii", "latin", "japanese", "euro"])
def test_what_the_columns_return(foreign, scripted, text):
    """At every level both columns are read back, in the database's encoding or not at all."""
    source, highlight = f'{{"type":"t","text":"{text * 20}"}}', f'{{"text":["<em>{text}</em>"]}}'
    scripted.script = answer(hits(f'"_id":"a","_score":1,"_source":{source},"highlight":{highlight}'))
    for level in range(-2, 10):
        clause = f"param IN ('query=q', 'highlight={{}}', 'compressionlevel={level}')"
        for call, wanted in (("text(doccontent)", source), ("jsonb(doccontent)", json.loads(source)),
                             ("text(highlights)", highlight), ("jsonb(highlights)", json.loads(highlight))):
            outcome = foreign.outcome(f"SELECT veltranepgfdw_{call} FROM books WHERE {clause}")
            if expected(foreign, text) == text:
                assert outcome == [(wanted,)], (level, call)
            else:
                assert outcome[0] == NO_EQUIVALENT, (level, call)


@pytest.mark.parametrize("raw", [b"\xc3(", b"\xff", b"\xed\xa0\x80", b"\xc0\x80"])
def test_bytes_that_are_no_text(foreign, raw):
    for value in (document(100, raw), packed(document(100, raw))):
        for query in (TEXT, JSONB):
            assert foreign.outcome(query, [value])[0] == INVALID


def test_empty_and_null(contents):
    for value in (b"", packed(b"")):
        assert contents.value(TEXT, [value]) == ""
        assert contents.failure(JSONB, [value]) == (NO_JSON, "empty document contents are no JSON")
    assert contents.run("SELECT veltranepgfdw_text(NULL), veltranepgfdw_jsonb(NULL)") == [(None, None)]


def test_jsonb_is_the_servers(contents):
    """jsonb takes what the server's own cast takes, refuses what it refuses, and sees the same in it."""
    texts = ['{"a":[1,2.50,-3e2,null,true,{"b":"\\u00e9\\n"}],"a":2}', "{}", '{\r\n\t"a" : 1\n}',
             '{"a":}', '{"a":"\\u0000"}', '{"a":1}}', "[1]", "2", "x"]
    for text in texts:
        wanted = contents.outcome("SELECT (%s::jsonb)::text", [text])
        for value in [packed(text.encode())] + [text.encode()] * text.startswith("{"):
            assert contents.outcome("SELECT veltranepgfdw_jsonb(%s)::text", [value]) == wanted, text


@pytest.mark.parametrize("length", [123, 379, 0x0D7B, 0x7B7B, 0x0A0D7B, 0x20207B])
def test_a_length_that_looks_like_a_brace(contents, length):
    for text in (document(length), noise(length)):
        for level in (0, 1, 5, 9):
            value = packed(text, level)
            assert value[:1] == b"{" and contents.value(TEXT, [value]) == text.decode()


@pytest.mark.parametrize("filling", [b"x", b"xyz ", bytes(range(32, 34)) + bytes(range(35, 92))])
def test_a_length_without_control_characters(contents, filling):
    """A text of 0x0909097B bytes, the least that nothing in the first four bytes tells from a raw value; and its
    checksum ends with a brace."""
    length = 0x0909097B
    start = document(length, filling)[:-10]
    check = zlib.adler32(start)
    # Eight characters from "]" to "~" with every sum modulo 256, which is the checksum's last byte.
    ends = (b"~" * (n // 33) + bytes([ord("]") + n % 33]) + b"]" * (7 - n // 33) + b'"}' for n in range(256))
    end = next(end for end in ends if zlib.adler32(end, check) % 256 == ord("}"))
    value = packed(start + end)
    assert value[:6] == b"{\x09\x09\x09x^" and value.endswith(b"}") and length < 1032 * len(value)
    assert any(byte < 32 and byte not in b"\t\n\r" for byte in value[6:-4])
    found = contents.run("SELECT length(t), right(t, 10) FROM veltranepgfdw_text(%s) t", [value])
    assert found == [(length, end.decode())]


@pytest.mark.parametrize("start", ['{"ax^', '{"a x^', '{\t\t\tx^', '{\n \r"', '{"  x^', "{}", '{"":0}'])
def test_raw_texts_that_look_compressed(contents, start):
    """Where a compressed value has its zlib header, and where the length is one that a text may have."""
    for size in (0, 1, 100, 200_000):
        text = start + "^" * size + '"}' if len(start) > 2 else start
        assert contents.value(TEXT, [text.encode()]) == text
    long_text = '{"  x^' + "~\x7f\u00e9\t" * 50_000 + '"}'
    assert contents.value(TEXT, [long_text.encode()]) == long_text


def outcomes(contents, values):
    return [text for text, in contents.run("SELECT outcome(v) FROM unnest(%s::bytea[]) v", [values])]


SMALL = b'{"title":"a small one"}'
VALUES = {"small": packed(SMALL), "brace": packed(document(123)), "stored": packed(SMALL, 0)}


@pytest.mark.parametrize("name", VALUES)
def test_every_damage_of_one_value(contents, name):
    """Every change of a byte, truncation and extension is refused or without effect."""
    value = VALUES[name]
    text = contents.value(TEXT, [value])
    changes = contents.run(
        "SELECT position, byte, outcome(set_byte(%s, position, byte)) FROM generate_series(0, %s) position, "
        "generate_series(0, 255) byte", [value, len(value) - 1])
    kept = {(position, byte) for position, byte, outcome in changes if outcome == text}
    assert {outcome for _, _, outcome in changes} == {text, f"({DAMAGED})"}
    # Without effect are the note on the level in the header, and bits that fill up a byte.
    assert len({position for position, _ in kept - set(enumerate(value))}) <= 2
    assert set(enumerate(value)) <= kept
    cut_or_longer = [value[:size] for size in range(1, len(value))] + [value + bytes([byte]) for byte in range(256)]
    assert set(outcomes(contents, cut_or_longer)) == {f"({DAMAGED})"}


def test_random_damage(contents):
    """Some bytes in the place of others anywhere, or of all the rest; the value after these is read again."""
    chance = random.Random(6)
    for _ in range(40):
        size = chance.choice([10, 123, 300, 3000, 3451])
        text = chance.choice([document, noise])(size)
        value = packed(text, chance.randint(-1, 9))
        variants = [value, b"{\x00\x00\x00" + value[4:], value[:6] + chance.randbytes(size)]
        for _ in range(100):
            start = chance.randrange(len(value))
            end = start + chance.choice([0, 1, 20, len(value)])
            variants.append(value[:start] + chance.randbytes(chance.randint(0, 20)) + value[end:])
        found = outcomes(contents, variants + [value])
        assert found[0] == found[-1] == text.decode()
        for variant, outcome in zip(variants, found):
            assert outcome in ([f"({DAMAGED})", text.decode()] if variant else [""]), variant


BEGINS = "they begin as JSON text, but are cut off or hold control characters"


@pytest.mark.parametrize("value, reason", [
    (document(100)[:-1], BEGINS), (document(300, b"x\x01"), BEGINS), (document(64)[:-1] + b"\x00}", BEGINS),
    (document(100) + b"\x1f", BEGINS),
    (b"{", "1 bytes are too short for a length and a zlib stream"),
    (b"\x01\x00", "2 bytes are too short for a length and a zlib stream"),
    (packed(SMALL)[:-1], "the zlib stream is cut off after 23 of the stated 23 bytes"),
    (packed(SMALL)[:-12], "the zlib stream is cut off after 16 of the stated 23 bytes"),
    (packed(SMALL, length=24), "the zlib stream ends after 23 of the stated 24 bytes"),
    (packed(SMALL, length=22), "the zlib stream goes on beyond the stated 22 bytes"),
    (packed(SMALL, length=0), "the zlib stream goes on beyond the stated 0 bytes"),
    (packed(SMALL) + b"ab", "2 bytes follow the zlib stream"),
    (packed(SMALL) + packed(SMALL), f"{len(packed(SMALL))} bytes follow the zlib stream"),
    (packed(SMALL)[:-1] + b"\x00", "the zlib stream cannot be read: incorrect data check"),
    (struct.pack("=I", 23) + SMALL, "the zlib stream cannot be read: incorrect header check"),
    (struct.pack("=I", 23) + b"x\xbb" + bytes(20), "the zlib stream cannot be read: need dictionary"),
    (struct.pack("=I", 0xFFFFFFF0) + bytes(26), "a text cannot have the stated length of 4294967280 bytes"),
    (struct.pack("=I", 0x3FFFFFFF) + bytes(26), "a text cannot have the stated length of 1073741823 bytes"),
    (struct.pack("=I", 1_000_000_000) + packed(SMALL)[4:],
     f"a zlib stream of {len(packed(SMALL)) - 4} bytes cannot hold the stated 1000000000 bytes")])
def test_what_is_wrong(contents, value, reason):
    for query in (TEXT, JSONB):
        assert contents.failure(query, [value]) == (DAMAGED, f"document contents are damaged: {reason}")


def test_lies_about_the_length_leave_no_memory_behind(cluster, contents):
    """A stream of far more than the stated bytes costs those, and a length that no stream has costs nothing."""
    bomb = zlib.compress(bytes(256 << 20), 9)
    db = Database(cluster, 0, jit=False)
    for data in (struct.pack("=I", 10) + bomb, struct.pack("=I", 1 << 29) + bomb[:100]):
        db.failure(TEXT, [packed(SMALL, length=9)])
        before = memory(db.pid, "VmHWM")
        assert [db.failure(TEXT, [data])[0] for _ in range(3)] == [DAMAGED] * 3
        assert memory(db.pid, "VmHWM") - before < 32 * 1024
    db.connection.close()
    assert contents.value(TEXT, [packed(SMALL)]) == SMALL.decode()


def test_stored_out_of_line(contents):
    """Values that lie in pieces beside their row, and short ones within it."""
    texts = [noise(size).decode() for size in (20, 100, 500, 3000, 30_000, 300_000)]
    contents.run("CREATE TEMP TABLE kept (n int, value bytea)")
    for n, text in enumerate(texts):
        contents.run("INSERT INTO kept VALUES (%s, %s), (%s, %s)", [n, text.encode(), n, packed(text.encode())])
    assert contents.run("SELECT n, array_agg(DISTINCT veltranepgfdw_text(value)) FROM kept GROUP BY n ORDER BY n") == \
        [(n, [text]) for n, text in enumerate(texts)]
    contents.run("DROP TABLE kept")
