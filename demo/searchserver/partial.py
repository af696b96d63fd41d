"""Responses that lack a part: shards that fail, shards that nobody holds, a search that ran out of time."""

from .errors import ShardFailure

FAILURE = ShardFailure("query_shard_exception", "failed to create query: told to fail",
                       {"type": "illegal_state_exception", "reason": "told to fail"})


class Partial:
    """Makes the responses that are the given `page` of their search (1: its first or only one) partial.

    They have no hits of the first `failed` shards, which they tell as failed, nor of the next `unassigned` ones,
    which they do not tell. With `timed_out` they say that they took too long.
    """

    def __init__(self, page, failed, unassigned, timed_out):
        self.page = page
        self.failed = failed
        self.unassigned = unassigned
        self.timed_out = timed_out

    def failing(self, shards):
        return shards[:self.failed]

    def silent(self, shards):
        return shards[self.failed:self.failed + self.unassigned]

    def cut(self, outcome):
        """What is left of an Outcome when its shards are gone on a later page."""
        lost = self.failing(outcome.shards) + self.silent(outcome.shards)
        account = outcome.account.without(len(lost))
        for shard in self.failing(outcome.shards):
            account.fail(shard, FAILURE)
        hits = [hit for hit in outcome.hits if hit.shard not in lost]
        return outcome._replace(hits=hits, account=account, timed_out=self.timed_out)
