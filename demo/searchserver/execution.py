"""A search at work: every shard is asked, what they found is put in order."""

import heapq
from collections import namedtuple

from . import aggregations, sorting
from .errors import Refusal, ShardFailure, all_shards_failed, failed_query
from .partial import FAILURE

# One hit before it is told; `sort` has (whether there is a value, value, shown value) for each sort key.
Hit = namedtuple("Hit", "score shard document sort")

# What a search found: all hits in their order, how many documents matched, the highest score or None, the shards that
# responded, the Account, the aggregations as JSON or None, whether it ran out of time, the most hits of one shard.
Outcome = namedtuple("Outcome", "hits count highest shards account aggregations timed_out longest")


class Account:
    """How the shards fared, as responses tell it."""

    def __init__(self, total, successful=0, failed=0):
        self.total, self.successful, self.failed = total, successful, failed
        self.failures = {}  # the first one of each kind in each index
        self.status = 0

    def fail(self, shard, failure):
        self.failed += 1
        self.status = max(self.status, failure.status)
        self.failures.setdefault((shard.index, failure.kind, failure.reason), failure.entry(shard))

    def without(self, count):
        """The account of a page that lacks the responses of so many shards."""
        return Account(self.total, self.successful - count)

    def as_json(self):
        told = {"total": self.total, "successful": self.successful, "skipped": 0, "failed": self.failed}
        return {**told, **({"failures": list(self.failures.values())} if self.failures else {})}


def run(request, shards, partial, room):
    """The Outcome of a search on shards; SearchError when none of them responds.

    `partial` is a Partial or None, `room` how many scroll contexts may be opened, None for a search without any.
    """
    account, responded = Account(len(shards)), []
    failing = partial.failing(shards) if partial else ()
    silent = partial.silent(shards) if partial else ()
    for shard in shards:
        try:
            if shard in failing:
                raise FAILURE
            if shard not in silent:
                responded.append((shard, *ask(request, shard, room is None or room > len(responded))))
        except ShardFailure as failure:
            account.fail(shard, failure)
    if shards and not responded:
        raise all_shards_failed(list(account.failures.values()), account.status)
    if account.failed and not request.allows_partial:
        raise all_shards_failed(list(account.failures.values()), 503, said="Partial shards failure")
    account.successful = len(responded)
    aggregations = request.aggregate([(shard.level(""), places) for shard, places, _ in responded])
    counts, hits = [len(places) for _, places, _ in responded], [hit for _, _, found in responded for hit in found]
    sorting.order(hits, request.sort)
    highest = highest_score(request, shards, hits)
    return Outcome(request.choose(hits), sum(counts), highest, [shard for shard, _, _ in responded], account,
                   aggregations, bool(partial and partial.timed_out), max(counts, default=0))


def highest_score(request, shards, hits):
    if not shards:
        return 0.0
    return max(hit.score for hit in hits) if hits and request.size and request.scored else None


def ask(request, shard, has_room):
    """(places of the documents found, hits that may be shown), both in order, of one shard; ShardFailure."""
    request.check_shard(shard.index)
    if not has_room:
        most = shard.index.cluster.scrolls.most
        raise ShardFailure("exception", "Trying to create too many scroll contexts. Must be less than or equal to:"
                           f" [{most}]. This limit can be set by changing the [search.max_open_scroll_context]"
                           " setting.", status=500)
    level = shard.level("")
    aggregations.check(request.aggregations or {}, level)
    try:
        scores = request.narrow(level, request.query.evaluate(level))
    except Refusal as refusal:
        raise failed_query(refusal)
    places = sorted(scores)
    chosen = best(places, scores, request.most_hits())
    documents, values = level.documents, [key.values(level, scores) for key in request.sort]
    return places, [Hit(scores[place], shard, documents[place], [value(place) for value in values])
                    for place in chosen]


def best(places, scores, most):
    """The places of so many of the best documents, None for all, in order."""
    if most is None or most >= len(places):
        return places
    if len(set(scores.values())) == 1:
        return places[:most]
    return sorted(heapq.nsmallest(most, places, key=lambda place: (-scores[place], place)))
