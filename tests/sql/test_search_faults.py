"""Whatever goes wrong on the way, a statement on the search wrapper's tables gives the right rows or an error."""
import json
import urllib.error
import urllib.request
from random import Random

import pytest

from conftest import Database, SearchServer
from scriptedserver import ScriptedServer, response
from searchstatements import KINDS, SearchStatements, create, documents
from test_search_statements import REFUSALS

COUNT = 150
HTML = b"<html>no such host</html>"
# The errors of the wrapper that a fault may become; all others would be faults of its own.
MESSAGES = {"the search cluster refused the request", "the response of the search cluster cannot be read",
            "the response of the search cluster lacks hits", "the search cluster did not return all hits",
            "the exchange with the search cluster broke off"}


def edited(change):
    """A fault that changes the response as an object, where it is that of a search."""
    def damage(random, body):
        found = json.loads(body)
        if "hits" in found:
            change(random, found)
        return json.dumps(found).encode()
    return damage


def lose_hits(random, found):
    del found["hits"]["hits"][random.randint(0, 3):]


def tell_more(_, found):
    found["hits"]["total"]["value"] += 1


def tell_bound(_, found):
    found["hits"]["total"]["relation"] = "gte"


def fail_shards(_, found):
    found["_shards"].update(successful=found["_shards"]["total"] - 1, failed=1)


def run_out_of_time(_, found):
    found["timed_out"] = True


def forget_scroll(_, found):
    found.pop("_scroll_id", None)


# The first is one that nobody can know of where the total is all that is asked for.
BODIES = [edited(change) for change in (tell_more, lose_hits, tell_bound, fail_shards, run_out_of_time, forget_scroll)] + [
    lambda random, body: body[:random.randrange(len(body))], lambda random, body: HTML, lambda random, body: b"",
    lambda random, body: body + b"{}", lambda random, body: body.replace(b"hits", b"hit", 1),
    lambda random, body: body[:-1] + b',"error":{"type":"late","reason":"r"}}']


class Network:
    """A script that forwards each request to the search server and, from time to time, damages what comes back."""

    def __init__(self, server, random):
        self.server, self.random, self.harm, self.damages = server, random, 0, 0

    def __call__(self, peer):
        url = f"http://127.0.0.1:{self.server.port}{peer.path}"
        request = urllib.request.Request(url, peer.body or None, {"Content-Type": "application/json"}, method=peer.verb)
        harmed = self.random.random() < self.harm
        if harmed:
            self.damages += 1
            if self.random.random() < 0.1:
                self.server.expire_scrolls()
                harmed = False
        try:
            with urllib.request.urlopen(request) as stream:
                status, body = stream.status, stream.read()
        except urllib.error.HTTPError as error:
            status, body = error.code, error.read()
        if not harmed:
            response(body, f"{status} Told")(peer)
            return
        kind = self.random.randrange(4)
        if kind == 0:
            peer.send(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(body) + body[:self.random.randrange(len(body))])
        elif kind == 1:
            peer.send(b"HTTP/1.1 200 OK\r\n\r\n" + body[:self.random.randrange(len(body))])
            peer.reset()
        elif kind == 2:
            response(body, self.random.choice(["503 No", "429 Slowly", "404 Not Found", "201 Created", "301 Moved"]))(peer)
        else:
            response(self.random.choice(BODIES[b'"size":0,' in peer.body:])(self.random, body))(peer)


@pytest.mark.parametrize("batch, harm", [(7, 0.15), (1000, 0.6)])
def test_right_or_refused(cluster, batch, harm):
    random, count = Random(batch), 100
    with SearchServer(7) as server:
        network = Network(server, random)
        with ScriptedServer(network) as far:
            db = Database(cluster, server.port)
            db.batch = batch
            db.make_documents(far.port)
            create(db, server, count)
            statements = SearchStatements(random, [name for _, name, _ in documents(count)])
            statements.wide = db.version >= 15
            errors, ordinary = set(), 0
            for _ in range(COUNT):
                statement = statements.any()
                if "; " in statement:  # what follows a failed statement fails for that
                    continue
                local = {kind: f"{kind}_copy" for kind in ["all", "any", *KINDS]}
                outcomes = []
                for relations, network.harm in ((local, 0), (dict.fromkeys(local, "docs"), harm)):
                    db.run("BEGIN")
                    outcomes.append(db.outcome(statement.format(rel=relations)))
                    db.run("ROLLBACK")
                network.harm = 0
                if isinstance(outcomes[1], tuple) and outcomes[1][1] in REFUSALS:
                    continue
                if isinstance(outcomes[1], tuple) and not isinstance(outcomes[0], tuple):
                    assert outcomes[1][1] in MESSAGES, outcomes[1]
                    errors.add(outcomes[1][1])
                else:
                    ordinary += 1
                    assert sorted(map(repr, outcomes[1])) == sorted(map(repr, outcomes[0])), statement
            assert len(errors) > 3 and ordinary > COUNT / 10 and network.damages > COUNT / 4
            # Contexts whose deletion was damaged stay until they expire; no other does.
            server.expire_scrolls()
            db.run("SELECT count(docname) FROM docs")
            assert server.open_scroll_contexts() == 0
            db.connection.close()
