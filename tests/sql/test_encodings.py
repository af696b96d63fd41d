"""Texts in databases of several encodings: the search cluster speaks UTF-8, the database what it was made with."""
import pytest

from conftest import COLUMNS, Database, new_database
from scriptedserver import response, hits, raw

CODECS = {"UTF8": "utf-8", "LATIN1": "latin-1", "EUC_JP": "euc_jp", "SQL_ASCII": "utf-8"}
TEXTS = {"ascii": "plain", "latin": "na\u00efve \u00a7", "japanese": "\u65e5\u672c\u8a9e", "euro": "\u20ac"}
QUERY = "SELECT {} FROM {} WHERE param IN ('query=q', 'highlight=h', 'compressionlevel={}')"
INVALID, NO_EQUIVALENT = "22021", "22P05"
READ = "veltranepgfdw_text({})"


@pytest.fixture(scope="module", params=CODECS)
def database(request, cluster):
    """A session, whose client speaks UTF-8, in a database of the encoding."""
    options = f"ENCODING '{request.param}' LC_COLLATE 'C' LC_CTYPE 'C'"
    with new_database(Database(cluster, 0), "encoded", options) as session:
        session.encoding = request.param
        session.install()
        session.connection.set_client_encoding("UTF8")
        yield session


@pytest.fixture
def session(database, scripted):
    """That session with the table `books`, and `texts` with columns of text."""
    database.make_table(port=scripted.port, fullerrormsg="true")
    database.make_table("texts", COLUMNS.replace("bytea", "text"), port=scripted.port)
    return database


SOURCE, HIGHLIGHT = '{{"type":"{}","text":"{}"}}', '{{"text":["{}"]}}'


def hit(name="a", doctype="t", text="x"):
    return f'"_id":"{name}","_score":1,"_source":{SOURCE.format(doctype, text)},"highlight":{HIGHLIGHT.format(text)}'


def holds(session, text):
    """Whether the database's encoding has all characters of a text."""
    return text.encode(CODECS[session.encoding], "ignore").decode(CODECS[session.encoding]) == text


@pytest.mark.parametrize("text", TEXTS.values(), ids=TEXTS)
def test_texts_inward(session, scripted, text):
    """Texts come in the database's encoding or not at all; contents in bytea as they are."""
    contents = [("doccontent", SOURCE.format("t", text)), ("highlights", HIGHLIGHT.format(text))]
    for column, table, document, wanted in (
            ("docname", "books", hit(text), text), ("doctype", "books", hit("a", text), text),
            *[(column, "texts", hit(text=text), wanted) for column, wanted in contents],
            *[(READ.format(column), "books", hit(text=text), wanted) for column, wanted in contents]):
        scripted.script = response(hits(document))
        for level in (-2,) if table == "texts" else (-2, 5):
            outcome = session.outcome(QUERY.format(column, table, level))
            assert outcome == [(wanted,)] if holds(session, text) else outcome[0] == NO_EQUIVALENT, (column, level)
    assert session.value(QUERY.format("doccontent", "books", -2)).decode() == contents[0][1]


@pytest.mark.parametrize("invalid", [b"\xc3(", b"\xff", b"\xed\xa0\x80", b"\xc0\x80"])
def test_invalid_bytes_inward(session, scripted, invalid):
    for column, document, state in (("docname", hit("@"), "HV000"), ("doctype", hit("a", "@"), INVALID),
                                    (READ.format("doccontent"), hit(text="@"), INVALID),
                                    ("veltranepgfdw_jsonb(highlights)::text", hit(text="@"), INVALID)):
        scripted.script = raw(hits(document), invalid)
        for level in (-2, 5):
            assert session.failure(QUERY.format(column, "books", level))[0] == state, (column, level)
    assert invalid in session.value(QUERY.format("doccontent", "books", -2))


def test_compressed_values_are_no_text(session, scripted):
    """A compressed value in a text column is refused, not handed on as broken text."""
    scripted.script = response(hits(hit(text="x" * 300)))
    assert session.failure(QUERY.format("doccontent", "texts", 5))[0] == INVALID


@pytest.mark.parametrize("text", TEXTS.values(), ids=TEXTS)
def test_texts_outward(session, scripted, text):
    """Ids, types, filters and queries go out in UTF-8; what the database cannot hold cannot be written in it."""
    for clause in ["docname = '{}'", "param = 'query=q' AND doctype = '{}'", "param = 'query={}'"] + [
            f"param IN ('query=q', '{name}={{}}')" for name in (
                "sourceincludefilter", "sourceexcludefilter", "highlight")] if holds(session, text) else []:
        del scripted.requests[:]
        session.run("SELECT docname, doccontent FROM books WHERE " + clause.format(text))
        assert text in scripted.requests[0].body.decode("utf-8"), clause


def test_invalid_bytes_outward(session, scripted):
    """What is not valid cannot go into JSON; a query goes out as it is, an option that nobody reads matters not."""
    if session.encoding == "SQL_ASCII":  # the others let no such text in
        session.connection.set_client_encoding("SQL_ASCII")
        assert session.failure(b"SELECT docname FROM books WHERE docname = 'a\xe4'")[0] == "HV00B"
        session.run(b"ALTER FOREIGN TABLE books OPTIONS (ADD comment 'fr\xfcher')")
        session.run(b"SELECT docname FROM books WHERE param = 'query=\xe4'")
        assert scripted.requests[-1].body.startswith(b'{"query":\xe4,')
        session.connection.set_client_encoding("UTF8")


def test_fields(session, scripted):
    """Values and names of fields in both directions; what the database cannot hold does not fit."""
    session.make_documents(scripted.port)
    options = "SERVER documents OPTIONS (indexlist 'i')"
    for text in TEXTS.values():
        scripted.script = response(hits('"_id":"a","_source":{"%s":"%s"}' % (text, text)))
        try:
            text.encode(CODECS[session.encoding])
        except UnicodeEncodeError:
            session.run(f"CREATE FOREIGN TABLE f (v text OPTIONS (field 'v')) {options}")
            scripted.script = response(hits('"_id":"a","_source":{"v":"%s"}' % text))
            assert session.failure("SELECT v FROM f")[0] == "22000"
        else:
            session.run(f"CREATE FOREIGN TABLE f (\"{text}\" text OPTIONS (search 'keyword')) {options}")
            assert session.run(f"SELECT \"{text}\" AS v FROM f WHERE \"{text}\" = '{text}'") == [(text,)]
            assert f'"filter":[{{"terms":{{"{text}":["{text}"]}}}}]'.encode() in scripted.requests[-1].body
            assert f'"includes":["{text}"]'.encode() in scripted.requests[-1].body
        session.run("DROP FOREIGN TABLE f")
    if session.encoding == "SQL_ASCII":
        session.connection.set_client_encoding("SQL_ASCII")
        session.run(b"CREATE FOREIGN TABLE f (\"\xff\" text) " + options.encode())
        assert session.failure(b"SELECT * FROM f")[:2] == ("22021", "the name of a column is not valid UTF-8")
        refused = session.failure(b"CREATE FOREIGN TABLE g (v text OPTIONS (field '\xff')) " + options.encode())
        assert refused[0] == "22023"
        session.run("DROP FOREIGN TABLE f")
        session.connection.set_client_encoding("UTF8")


def test_messages(session, scripted):
    """What a message quotes of the search cluster is text of the database, with ? for what cannot be."""
    text, bad = "na\u00efve \u65e5\u672c", b"\xc3( \xe6\x97"
    known = "na\u00efve ??" if session.encoding == "LATIN1" else text
    scripted.script = response(b'{"error":"' + text.encode() + b" " + bad + b'"}', "400 Bad Request")
    message = session.failure(QUERY.format("docname", "books", 5))[1]
    assert message.endswith(f"error was '\":\"{known} ?( ??\"}}'"), message
    scripted.script = raw(hits('"_id":"a","_score":"@"'), text.encode() + bad)
    message = session.failure(QUERY.format("score", "books", 5))[1]
    assert message == f'invalid input syntax for type real: "\"{known}?( ??\""'
