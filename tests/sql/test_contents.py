"""Contents as text and as jsonb: compressed and raw values, told apart and checked."""
import random
import struct
import zlib

import pytest

from conftest import memory

DAMAGED, NO_JSON = "22P03", "22P02"
TEXT, JSONB = "SELECT veltranepgfdw_text(%s)", "SELECT veltranepgfdw_jsonb(%s)"

# For many values in one statement.
OUTCOME = """CREATE FUNCTION pg_temp.outcome(value bytea) RETURNS text LANGUAGE plpgsql AS $$
    BEGIN RETURN veltranepgfdw_text(value); EXCEPTION WHEN OTHERS THEN RETURN SQLSTATE; END $$"""


def packed(text, level=5, length=None):
    """The compressed form of a text, with another stated length if one is given."""
    return struct.pack("=I", len(text) if length is None else length) + zlib.compress(text, level)


def document(length, filling=b"x"):
    """The text of an object of that length."""
    return (b'{"a":"' + filling * (length // len(filling) + 1))[:length - 2] + b'"}'


def noise(length):
    """The text of an object of that length that does not compress well."""
    return (b'{"a":"' + bytes(random.Random(length).choices(range(35, 91), k=length)))[:length - 2] + b'"}'


def test_empty_and_null(db):
    for value in (b"", packed(b"")):
        assert db.value(TEXT, [value]) == ""
        assert db.failure(JSONB, [value]) == (NO_JSON, "empty document contents are no JSON")
    assert db.run("SELECT veltranepgfdw_text(NULL), veltranepgfdw_jsonb(NULL)") == [(None, None)]


def test_jsonb_is_the_servers(db):
    """jsonb takes what the server's own cast takes, refuses what it refuses, and sees the same in it."""
    for text in ('{"a":[1,2.50,-3e2,null,true,{"b":"\\u00e9\\n"}],"a":2}', "{}", '{\r\n\t"a" : 1\n}', '{"a":}',
                 '{"a":"\\u0000"}', '{"a":1}}', "[1]", "2", "x"):
        wanted = db.outcome("SELECT (%s::jsonb)::text", [text])
        for value in [packed(text.encode())] + [text.encode()] * text.startswith("{"):
            assert db.outcome("SELECT veltranepgfdw_jsonb(%s)::text", [value]) == wanted, text


# The first byte of the length is a brace, and the others may stand in JSON; texts that have the bytes of a zlib
# header where a compressed value has them, behind what may be a length.
BRACES = [123, 379, 0x0D7B, 0x7B7B, 0x0A0D7B, 0x20207B]
ALIKE = [b'{"ax^', b'{"a x^', b"{\t\t\tx^", b'{\n \r"', b'{"  x^']


def test_values_are_read_back(db):
    """Raw or compressed, within their row or in pieces beside it, and where one form looks like the other."""
    db.run("CREATE TEMP TABLE kept (content text, value bytea)")
    for text in [*map(document, (100, 300_000, *BRACES)), *map(noise, (20, 100, 379, 3000, 0x7B7B)),
                 *[start + b"^" * size + b'"}' for start in ALIKE for size in (0, 1, 100, 200_000)],
                 b"{}", b'{"":0}', b'{"  x^' + "~\x7f\u00e9\t".encode() * 50_000 + b'"}']:
        for value in [text, *[packed(text, level) for level in (0, 1, 5, 9)]]:
            assert value[:1] == b"{" or len(text) not in BRACES
            db.run("INSERT INTO kept VALUES (%s, %s)", [text.decode(), value])
    assert db.run("SELECT left(content, 20), length(content), substr(value, 1, 8) FROM kept "
                  "WHERE veltranepgfdw_text(value) IS DISTINCT FROM content") == []


def test_a_length_without_control_characters(db):
    """Nothing in its first four bytes tells it from a raw value; and the checksum of the text ends with a brace."""
    length = 0x0909097B  # the least
    start = document(length, b"xyz ")[:-10]
    check = zlib.adler32(start)
    # Eight characters from "]" to "~" with every sum modulo 256, which is the checksum's last byte.
    ends = (b"~" * (n // 33) + bytes([ord("]") + n % 33]) + b"]" * (7 - n // 33) + b'"}' for n in range(256))
    end = next(end for end in ends if zlib.adler32(end, check) % 256 == ord("}"))
    value = packed(start + end)
    assert value[:6] == b"{\x09\x09\x09x^" and value.endswith(b"}") and length < 1032 * len(value)
    assert any(byte < 32 and byte not in b"\t\n\r" for byte in value[6:-4])
    found = db.run("SELECT length(t), right(t, 10) FROM veltranepgfdw_text(%s) t", [value])
    assert found == [(length, end.decode())]


SMALL = b'{"title":"a small one"}'
VALUES = {"small": packed(SMALL), "brace": packed(document(123)), "stored": packed(SMALL, 0)}


@pytest.mark.parametrize("value", VALUES.values(), ids=VALUES)
def test_every_damage_of_one_value(db, value):
    """Every change of a byte, truncation and extension is refused or without effect."""
    changes = [(position, byte) for position in range(len(value)) for byte in range(256)]
    values = [value[:position] + bytes([byte]) + value[position + 1:] for position, byte in changes]
    values += [value[:size] for size in range(1, len(value))] + [value + bytes([byte]) for byte in range(256)]
    db.run(OUTCOME)
    found = [text for text, in db.run("SELECT pg_temp.outcome(v) FROM unnest(%s::bytea[]) v", [values])]
    text = db.value(TEXT, [value])
    assert set(found) == {text, DAMAGED} and set(found[len(changes):]) == {DAMAGED}
    # Without effect are the note on the level in the header, and bits that fill up a byte.
    kept = {change for change, outcome in zip(changes, found) if outcome == text}
    assert set(enumerate(value)) <= kept and len({position for position, _ in kept - set(enumerate(value))}) <= 2


BEGINS = "they begin as JSON text, but are cut off or hold control characters"


@pytest.mark.parametrize("value, reason", [
    *[(value, BEGINS) for value in (document(100)[:-1], document(300, b"x\x01"), document(64)[:-1] + b"\x00}",
                                    document(100) + b"\x1f")],
    (b"{", "1 bytes are too short for a length and a zlib stream"),
    (bytes(3), "3 bytes are too short for a length and a zlib stream"),
    (bytes(4), "the zlib stream is cut off after 0 of the stated 0 bytes"),
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
    (packed(SMALL, length=1_000_000_000),
     f"a zlib stream of {len(packed(SMALL)) - 4} bytes cannot hold the stated 1000000000 bytes")])
def test_what_is_wrong(db, value, reason):
    for query in (TEXT, JSONB):
        assert db.failure(query, [value]) == (DAMAGED, f"document contents are damaged: {reason}")


@pytest.mark.unsanitized
def test_lies_about_the_length_leave_no_memory_behind(db):
    """A stream of far more than the stated bytes costs those, and a length that no stream has costs nothing."""
    bomb = zlib.compress(bytes(256 << 20), 9)
    for data in (struct.pack("=I", 10) + bomb, struct.pack("=I", 1 << 29) + bomb[:100]):
        db.failure(TEXT, [packed(SMALL, length=9)])
        before = memory(db.pid, "VmHWM")
        assert [db.failure(TEXT, [data])[0] for _ in range(3)] == [DAMAGED] * 3
        assert memory(db.pid, "VmHWM") - before < 32 * 1024
    assert db.value(TEXT, [packed(SMALL)]) == SMALL.decode()
