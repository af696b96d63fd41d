"""Answers that lack hits because shards failed, did not answer, or time ran out: passed over, warned of, refused."""
import json
from pathlib import Path

import pytest

from scriptedserver import answer, hits

PARTIAL = [
    ('"timed_out":true', "timed out"),
    ('"_shards":{"total":4,"successful":2,"skipped":0,"failed":2}', "2 of 4 shards failed"),
    ('"_shards":{"total":5,"successful":4,"skipped":1,"failed":0}', "1 of 5 shards without an answer"),
    ('"timed_out": true ,"_shards" : {"total" : 9, "successful":3, "failed" :4}',
     "timed out, 4 of 9 shards failed, 2 of 9 shards without an answer"),
]
WHOLE = ['"timed_out":false,"_shards":{"total":4,"successful":4,"skipped":4,"failed":0}', '"_shards":{}', ""]
RECORDING = json.loads((Path(__file__).parents[1] / "data/recordings/partial-shard-failure.json").read_text("utf-8"))
SEARCH = "SELECT docname FROM books WHERE param = 'query=q'"
LOOK_UP = "SELECT docname FROM books WHERE docname IN ('a', 'c')"


def page(status, *names, scroll_id=None, total=None):
    documents = [f'"_id":"{name}","_score":1' for name in names]
    text = hits(*documents, scroll_id=scroll_id, total=total)
    return "{" + (status and status + ",") + text[1:]


@pytest.fixture
def outcome(db, scripted):
    """Runs a query with the option set to a value, or not set; its rows or error, and the warnings."""
    def run(query, option, **options):
        db.make_table(port=scripted.port, partialresults=option, **options)
        del db.connection.notices[:]
        found = db.outcome(query)
        return found, [notice.strip() for notice in db.connection.notices]
    return run


@pytest.mark.parametrize("query", [SEARCH, LOOK_UP])
@pytest.mark.parametrize("status, what", PARTIAL)
def test_a_partial_answer(db, scripted, outcome, query, status, what):
    scripted.script = answer(page(status, "a"))
    message = "ElasticSearch answer is partial: " + what
    assert outcome(query, "ignore") == ([("a",)], [])
    assert outcome(query, None) == outcome(query, "warning") == ([("a",)], ["WARNING:  " + message])
    assert f"HV000 WARNING:  {message}" in db.log()
    assert outcome(query, "error") == (("HV000", message), [])


@pytest.mark.parametrize("status", WHOLE)
def test_a_whole_answer(scripted, outcome, status):
    scripted.script = answer(page(status, "a"))
    for option in "warning", "error":
        assert outcome(SEARCH, option) == ([("a",)], [])


def test_a_recorded_answer(scripted, outcome):
    scripted.script = answer(RECORDING["response"])
    message = "ElasticSearch answer is partial: 2 of 4 shards failed"
    rows, warnings = outcome(SEARCH, "warning")
    assert len(rows) == 10 and warnings == ["WARNING:  " + message]
    assert outcome(SEARCH, "error") == (("HV000", message), [])


@pytest.mark.parametrize("esversion", [None, "8"])
@pytest.mark.parametrize("partial", range(3))
def test_each_page_of_a_scroll(scripted, outcome, partial, esversion):
    pages = [page(PARTIAL[1][0] if number == partial else WHOLE[0], f"n{number}", scroll_id="s", total=3)
             for number in range(3)]

    def play(peer):
        next_pages[0] += 1
        answer(pages[next_pages[0] - 1] if peer.verb != "DELETE" else '{"succeeded":true}')(peer)

    message = "ElasticSearch answer is partial: 2 of 4 shards failed"
    options = {"connectortype": "elasticsearchscroll", "esversion": esversion}
    scripted.script = play
    for option, expected in (("ignore", ([("n0",), ("n1",), ("n2",)], [])),
                             ("warning", ([("n0",), ("n1",), ("n2",)], ["WARNING:  " + message])),
                             ("error", (("HV000", message), []))):
        next_pages = [0]
        assert outcome(SEARCH, option, **options) == expected
    assert next_pages == [partial + 1]


@pytest.mark.parametrize("value", ["", "Warning", "true", "ignore "])
def test_other_values_are_refused(outcome, value):
    assert outcome(SEARCH, value)[0] == ("HV000", "option 'partialresults' takes 'ignore', 'warning' or 'error'")
