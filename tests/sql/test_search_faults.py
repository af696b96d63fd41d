"""Whatever goes wrong on the way, a statement on the search wrapper's tables gives the right rows or an error."""
import gzip
import json
from random import Random

import pytest

from conftest import Database, SearchServer
from scriptedserver import Relay, ScriptedServer, response
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
    """A script that forwards each request to the search server and, from time to time, harms a connection or what
    comes back; the `nodes` are the servers that play it."""

    def __init__(self, server, random):
        self.server, self.random, self.harm, self.damages, self.nodes = server, random, 0, 0, []
        self.relay, self.gone = Relay(server.port), None

    def harm_a_node(self):
        """Between two queries: a node's connections end, and it may be gone for one query."""
        for node in self.nodes:
            node.unread = 0
        if self.gone:
            self.gone.listen_again()
        node, action, self.gone = self.random.choice(self.nodes), self.random.randrange(4), None
        if action == 0:
            node.unread = 1
        elif action < 3:
            node.hang_up()
        if action == 2:
            node.stop_listening()
            self.gone = node

    def __call__(self, peer):
        status, _, body = self.relay.ask(peer)
        harmed = self.random.random() < self.harm
        if harmed:
            self.damages += 1
            if self.random.random() < 0.1:
                self.server.expire_scrolls()
                harmed = False
        if harmed:
            self.harm_in_the_midst(peer, body)
        else:
            answer(peer, body, status)

    def harm_in_the_midst(self, peer, body):
        kind = self.random.randrange(6)
        if kind == 0:
            peer.send(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(body) + body[:self.random.randrange(len(body))])
        elif kind == 1:
            peer.send(b"HTTP/1.1 200 OK\r\n\r\n" + body[:self.random.randrange(len(body))])
            peer.reset()
        elif kind == 2:
            answer(peer, body, self.random.choice(
                ["503 No", "429 Slowly", "502 Bad", "504 Late", "404 Not Found", "201 Created", "301 Moved"]))
        elif kind == 3:  # the request has arrived, which the other side is not told
            if self.random.random() < 0.5:
                peer.reset()
        elif kind == 4:  # the next one will not
            self.random.choice(self.nodes).unread = 1
            answer(peer, body)
        else:
            answer(peer, self.random.choice(BODIES[b'"size":0,' in peer.body:])(self.random, body))


def answer(peer, body, status="200 OK"):
    packed = peer.headers["Accept-Encoding"] == "gzip"
    response(gzip.compress(body, 1) if packed else body, status, ["Content-Encoding: gzip"] * packed)(peer)


@pytest.mark.parametrize("batch, harm", [(7, 0.15), (1000, 0.6)])
def test_right_or_refused(cluster, batch, harm):
    random, count = Random(batch), 100
    with SearchServer(7) as server:
        network = Network(server, random)
        with ScriptedServer(network) as first, ScriptedServer(network) as second:
            network.nodes = [first, second]
            db = Database(cluster, server.port)
            db.batch = batch
            db.make_documents(address=f"http://127.0.0.1:{first.port},http://127.0.0.1:{second.port}", retries=1,
                              httpcompression="true")
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
                network.harm_a_node()
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
            assert all(len(node.requests) > COUNT / 10 for node in network.nodes)
            # Contexts whose deletion was damaged stay until they expire; no other does.
            server.expire_scrolls()
            first.unread = second.unread = 0
            db.run("SELECT count(docname) FROM docs")
            assert server.open_scroll_contexts() == 0
            db.connection.close()
