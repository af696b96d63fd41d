"""Answers that lack a part: shards that fail, shards that nobody holds, a search that ran out of time."""

from .errors import ShardFailure

FAILURE = ShardFailure("query_shard_exception", "failed to create query: told to fail",
                       {"type": "illegal_state_exception", "reason": "told to fail"})


class Partial:
    """Makes the answers that are the given `page` of their search (1: its first or only one) partial.

    They have no hits of the first `failed` shards, which they tell as failed, nor of the next `unassigned` ones,
    which they do not tell. With `timed_out` they say that they took too long.
    """

    def __init__(self, page, failed, unassigned, timed_out):
        self.page = page
        self.failed = failed
        self.unassigned = unassigned
        self.timed_out = timed_out

    def cut(self, found):
        """What is left of a Found."""
        shards = [(index, number) for index in found.indices for number in range(index.shards)]
        failed, silent = shards[:self.failed], shards[:self.failed + self.unassigned]
        hits = [hit for hit in found.hits if (hit[2], hit[3].shard) not in silent]
        account = {**found.shards, "successful": found.shards["successful"] - len(silent),
                   "failed": found.shards["failed"] + len(failed)}
        failures = [FAILURE.entry(index) for index in dict.fromkeys(index for index, _ in failed)]
        if failures:
            account["failures"] = found.shards.get("failures", []) + failures
        return found._replace(hits=hits, count=len(hits), shards=account, timed_out=self.timed_out)

    def cut_page(self, found, hits):
        """(what is left of a Found, what is left of a page of its hits)."""
        return self.cut(found), self.cut(found._replace(hits=hits)).hits
