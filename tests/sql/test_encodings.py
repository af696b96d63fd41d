"""Texts in databases of several encodings: the search cluster speaks UTF-8, the database what it was made with."""
import json

import pytest

from conftest import SET_UP, Database
from scriptedserver import answer, hits

ENCODINGS = ["UTF8", "LATIN1", "EUC_JP", "SQL_ASCII"]
QUERY = "SELECT docname, doctype FROM books WHERE param = 'query=q'"
INVALID, NO_EQUIVALENT = "22021", "22P05"


@pytest.fixture(scope="module", params=ENCODINGS)
def session(request, cluster):
    """A session, whose client speaks UTF-8, in a database of the encoding."""
    name = "in_" + request.param.lower()
    owner = Database(cluster, 0)
    owner.run(f"CREATE DATABASE {name} TEMPLATE template0 ENCODING '{request.param}' LC_COLLATE 'C' LC_CTYPE 'C'")
    database = Database(cluster, 0, name)
    database.encoding = request.param
    database.run(SET_UP.format(module=cluster.module_path))
    database.connection.set_client_encoding("UTF8")
    yield database
    database.connection.close()
    owner.run(f"DROP DATABASE {name}")
    owner.connection.close()


def hit(name, doctype="t", text="x"):
    return f'"_id":"{name}","_score":1,"_source":{{"type":"{doctype}","text":"{text}"}}'


def expected(session, text):
    """What becomes of a text: itself, or the SQLSTATE of its refusal."""
    if session.encoding in ("UTF8", "SQL_ASCII"):
        return text
    try:
        text.encode({"LATIN1": "latin-1", "EUC_JP": "euc_jp"}[session.encoding])
        return text
    except UnicodeEncodeError:
        return NO_EQUIVALENT


@pytest.mark.parametrize("text", ["plain", "na\u00efve \u00a7", "\u65e5\u672c\u8a9e", "\u20ac"],
                         ids=["ascii", "latin", "japanese", "euro"])
def test_texts_inward(session, scripted, text):
    """Ids and types come in the database's encoding, or not at all; contents as they are."""
    session.make_table(port=scripted.port, compressionlevel=-2)
    wanted = expected(session, text)
    for document in (hit(text), hit("a", text)):
        scripted.script = answer(hits(document))
        outcome = session.outcome(QUERY)
        assert outcome[0] == wanted if wanted != text else text in outcome[0]
    scripted.script = answer(hits(hit("a", "t", text)))
    content = session.value("SELECT doccontent FROM books WHERE param = 'query=q'")
    assert json.loads(content.decode()) == {"type": "t", "text": text}
    session.make_table(port=scripted.port, compressionlevel=-2, columns="docname text, doccontent text, x real, "
                       "doctype text, highlights text, param text")
    outcome = session.outcome("SELECT doccontent FROM books WHERE param = 'query=q'")
    assert outcome[0] == wanted if wanted != text else json.loads(outcome[0][0])["text"] == text


@pytest.mark.parametrize("raw", [b"\xc3(", b"\xff", b"\xed\xa0\x80", b"\xc0\x80"])
def test_invalid_bytes_inward(session, scripted, raw):
    session.make_table(port=scripted.port)
    for document, state in ((hit("@"), "HV000"), (hit("a", "@"), INVALID)):
        scripted.script = answer(hits(document).encode().replace(b"@", raw))
        assert session.outcome(QUERY)[0] == state
    scripted.script = answer(hits(hit("a", "t", "@")).encode().replace(b"@", raw))
    content = session.value("SELECT doccontent FROM books WHERE param IN ('query=q', 'compressionlevel=-2')")
    assert raw in content


def test_compressed_values_are_no_text(session, scripted):
    """A compressed value in a text column is refused, not handed on as broken text."""
    scripted.script = answer(hits(hit("a", "t", "x" * 300)))
    session.make_table(port=scripted.port, columns="docname text, doccontent text, s real, t text, h text, param text")
    assert session.outcome("SELECT doccontent FROM books WHERE param = 'query=q'")[0] == INVALID


@pytest.mark.parametrize("text", ["plain", "na\u00efve", "\u65e5\u672c\u8a9e"])
def test_texts_outward(session, scripted, text):
    """Ids, types, filters and queries go out in UTF-8."""
    if expected(session, text) != text:
        return  # such a text cannot be written in this database
    session.make_table(port=scripted.port)
    for clause in (f"docname = '{text}'", f"param = 'query=q' AND doctype = '{text}'",
                   f"param IN ('query=q', 'sourceincludefilter={text}')",
                   f"param IN ('query=q', 'sourceexcludefilter={text}')",
                   f"param IN ('query=q', 'highlight={text}')", f"param = 'query={text}'"):
        del scripted.requests[:]
        session.run(f"SELECT docname, doccontent FROM books WHERE {clause}")
        assert text in scripted.requests[0].body.decode("utf-8"), clause


def test_invalid_bytes_outward(session, scripted):
    """What is not valid cannot go into JSON; a query goes out as it is, and an option that nobody reads is nobody's
    business."""
    if session.encoding != "SQL_ASCII":
        return  # the others let no such text in
    session.make_table(port=scripted.port)
    session.connection.set_client_encoding("SQL_ASCII")
    for clause in (b"docname = 'a\xe4'", b"param = 'query=q' AND doctype = '\xff'",
                   b"param IN ('query=q', 'sourceincludefilter=\xe4')"):
        assert session.outcome(b"SELECT doccontent FROM books WHERE " + clause) == (
            "HV00B", "utf8 to json conversion error")
    session.run(b"ALTER FOREIGN TABLE books OPTIONS (ADD comment 'fr\xfcher')")
    session.run(b"SELECT docname FROM books WHERE param = 'query=\xe4'")
    assert scripted.requests[-1].body.startswith(b'{"query":\xe4,')
    session.connection.set_client_encoding("UTF8")


def test_messages(session, scripted):
    """What a message quotes of the search cluster is text of the database, with ? for what cannot be."""
    text, raw = "na\u00efve \u65e5\u672c", b"\xc3( \xe6\x97"
    known = {"LATIN1": "na\u00efve ??", "EUC_JP": "na\u00efve \u65e5\u672c"}.get(session.encoding, text)
    session.make_table(port=scripted.port, fullerrormsg="true")
    scripted.script = answer(b'{"error":"' + text.encode() + b" " + raw + b'"}', "400 Bad Request")
    message = session.outcome(QUERY)[1]
    assert message.endswith(f"error was '\":\"{known} ?( ??\"}}'"), message
    scripted.script = answer(hits('"_id":"a","_score":"@"').encode().replace(b"@", text.encode() + raw))
    message = session.outcome("SELECT score FROM books WHERE param = 'query=q'")[1]
    assert message == f'invalid input syntax for type real: "\"{known}?( ??\""'
