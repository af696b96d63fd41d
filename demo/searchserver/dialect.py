"""What the major versions of the search servers do differently; all else is the same in each of them."""

from collections import namedtuple

# `number` and `lucene` are the version as "/" tells it; `plain_total`: the hit count is a number, not an object;
# `types`: hits and written documents name their mapping type; `empty_type`: what becomes of the empty segment in
# "books//_search", where servers of old expected the name of a type: "taken", "deprecated" or "refused";
# `ids_in_urls`: scroll ids are taken from the URL, too, not only from a body.
Dialect = namedtuple("Dialect", "number lucene plain_total types empty_type ids_in_urls")

DIALECTS = {
    6: Dialect("6.8.0", "7.7.0", True, True, "taken", True),
    7: Dialect("7.8.0", "8.5.1", False, True, "deprecated", True),
    8: Dialect("8.0.0", "9.0.0", False, False, "refused", True),
    # Scroll ids in URLs are deprecated there. They are treated as refused, so that nobody comes to rely on them.
    9: Dialect("9.0.0", "10.1.0", False, False, "refused", False),
}
