"""What a query says when the search fails or cannot answer it, beyond the texts of test_failures."""
import pytest

from scriptedserver import answer, hits

QUERY = "SELECT docname FROM books WHERE param = 'query=q'"
TOO_MANY = ("HV000", "es search result bigger than batch size, use a scroll")
NAMELESS = ("HV000", "fail to retrieve column name")


def test_only_true_is_true(db, closed_port):
    for value in ("true", "TRUE", "yes", "1", "true "):
        db.make_table(port=closed_port, fullerrormsg=value)
        state, message = db.failure(QUERY)
        assert (state, message.partition(",")[::2]) == ("HV000", ("Curl error (7)", (
            ' query was {"query":q,"size":100,"_source":false}, ' if value == "true" else "")))


@pytest.mark.every_version
def test_errors_of_the_search_server(db):
    assert db.failure(QUERY) == ("HV000", "ElasticSearch error")
    db.make_table(indexlist="nothere", fullerrormsg="true")
    sqlstate, message = db.failure("SELECT docname FROM books WHERE param = 'query={\"match_all\":{}}'")
    assert sqlstate == "HV000" and "index_not_found_exception" in message
    assert message.startswith("ElasticSearch error, query was '{\"query\":{\"match_all\":{}},\"size\":100,")


@pytest.mark.parametrize("total", ["{total}", '{{"value":{total},"relation":"eq"}}'])
@pytest.mark.parametrize("hit_count, limit, refused", [
    (250, "", True), (250, "LIMIT 101", True), (250, "LIMIT 100", False), (250, "LIMIT 10", False),
    (250, "LIMIT 60 OFFSET 40", False), (250, "LIMIT 60 OFFSET 41", True), (101, "", True), (100, "", False),
    (3, "LIMIT 500", False)])
def test_more_hits_than_a_batch(db, scripted, total, hit_count, limit, refused):
    scripted.script = answer(hits('"_id":"a"', total=total.format(total=hit_count)))
    db.make_table(port=scripted.port)
    assert db.outcome(f"{QUERY} {limit}") == (TOO_MANY if refused else [] if "OFFSET" in limit else [("a",)])


@pytest.mark.parametrize("columns", [
    "books", "books.*::text", "row_to_json(books)", "tableoid", "docname, ctid", "count(books)"])
def test_whole_rows_and_system_columns(db, columns):
    assert db.failure(f"SELECT {columns} FROM books WHERE docname = 'b001'") == NAMELESS


@pytest.mark.parametrize("statement, sqlstate", [
    ("INSERT INTO books (docname) VALUES ('x')", "0A000"), ("DELETE FROM books WHERE docname = 'x'", "0A000"),
    # The server asks for the whole row before it would refuse these.
    ("UPDATE books SET docname = 'y' WHERE docname = 'x'", "HV000"),
    ("SELECT docname FROM books WHERE docname = 'x' FOR UPDATE", "HV000")])
def test_tables_are_read_only(db, statement, sqlstate):
    if statement.startswith("UPDATE") and db.connection.server_version < 140000:
        sqlstate = "0A000"  # an UPDATE needs the whole row from version 14 on
    assert db.failure(statement)[0] == sqlstate
