"""Scores: how much a term's presence in a document says, in single precision as the search servers calculate."""

import functools
import math
import struct

from .jsontext import Score

SINGLE = struct.Struct("f")
FREE_LENGTHS = 24  # lengths below it are kept exactly


def single(number):
    """The number in single precision."""
    return SINGLE.unpack(SINGLE.pack(number))[0]


SATURATION, NORMALIZATION = single(1.2), 0.75


@functools.lru_cache(4096)
def kept_length(length):
    """What is remembered of the length of a text: from 40 words on, its leading four bits."""
    rest = length - FREE_LENGTHS
    if rest < 8:
        return length
    shift = rest.bit_length() - 4
    return FREE_LENGTHS + (rest >> shift << shift)


def part(value, description, *details):
    """One step of an explanation."""
    return {"value": Score(value) if isinstance(value, float) else value, "description": description,
            "details": list(details)}


class Rarity:
    """How a term is scored within one shard."""

    def __init__(self, holders, documents, words, boost):
        """`holders` of the `documents` that have the field, with `words` terms in all, have the term."""
        self.holders, self.documents = holders, documents
        self.boost = single((SATURATION + 1) * boost)
        self.rarity = single(math.log(1 + (documents - holders + 0.5) / (holders + 0.5)))
        self.weight = single(self.boost * self.rarity)
        self.average = single(words / documents)
        self.known = {}

    def saturation(self, count, length):
        """One and how often the term is there, in relation to the length of the text."""
        share = single(single(NORMALIZATION * length) / self.average)
        usual = single(1 / single(SATURATION * single(1 - NORMALIZATION + share)))
        return single(1 + single(count * usual))

    def score(self, count, length):
        """The score of a document that has the term `count` times among `length`."""
        if (count, length) not in self.known:
            rest = single(self.weight / self.saturation(count, length))
            self.known[count, length] = single(self.weight - rest)
        return self.known[count, length]

    def explain(self, name, place, count, length):
        """The score as an explanation."""
        score = self.score(count, length)
        rarity = part(self.rarity, "idf, computed as log(1 + (N - n + 0.5) / (n + 0.5)) from:",
                      part(self.holders, "n, number of documents containing term"),
                      part(self.documents, "N, total number of documents with field"))
        share = single(1 - single(1 / self.saturation(count, length)))
        saturation = part(
            share, "tf, computed as freq / (freq + k1 * (1 - b + b * dl / avgdl)) from:",
            part(float(count), "freq, occurrences of term within document"),
            part(SATURATION, "k1, term saturation parameter"),
            part(NORMALIZATION, "b, length normalization parameter"),
            part(float(length), "dl, length of field"), part(self.average, "avgdl, average length of field"))
        inner = part(score, f"score(freq={float(count)}), computed as boost * idf * tf from:",
                     part(self.boost, "boost"), rarity, saturation)
        return part(score, f"weight({name} in {place}) [PerFieldSimilarity], result of:", inner)
