"""What the major versions of the search servers do differently; all else is the same in each of them.

Version 7 is as recorded from 7.8, version 8 as recorded from its development line. Where no recording tells, and
for versions 6 and 9 throughout, it is what is publicly known of the interface. The types of fields that came in the
course of a major version are known to all.
"""

from typing import NamedTuple, Optional


class Dialect(NamedTuple):
    """One version, each member a difference."""

    number: str  # of the version, and those that go with it, as "/" tells them
    lucene: str
    oldest_peer: str
    oldest_index: str
    plain_total: bool  # the hit count is a number, not an object
    types: bool  # hits and written documents name their mapping type
    typed_mappings: bool  # a mapping stands under the name of a type
    empty_type: str  # the empty segment in "books//_search", once a type's, is "taken", "deprecated" or "refused"
    ids_in_urls: bool  # scroll ids are taken from the URL, too, not only from a body
    uuids_in_ids: bool  # scroll ids name the session of each context
    resolves: bool  # there are "_resolve/index" and "_data_stream"
    marks_closed: bool  # closed indices have a setting that says so
    case_insensitive: bool  # queries for terms, prefixes and patterns have the option "case_insensitive"
    fetches_fields: bool  # searches have the option "fields"
    doc_value_queries: bool  # fields that are not indexed are searched by their doc values
    tells_long_keywords: bool  # hits name the keywords that were too long to be indexed in "_ignored"
    date_intervals: tuple  # the options that give a date_histogram its interval
    max_buckets: Optional[int]  # the most buckets of a response
    too_many_buckets: int  # the status of a response that has more
    dated_streams: bool  # the indices behind a data stream have a date in their names
    content_type: str  # of all responses
    product: Optional[str]  # the name in the header x-elastic-product


SEVEN = Dialect(
    number="7.8.0", lucene="8.5.1", oldest_peer="6.8.0", oldest_index="6.0.0-beta1", plain_total=False, types=True,
    typed_mappings=False, empty_type="deprecated", ids_in_urls=True, uuids_in_ids=True, resolves=False,
    marks_closed=True, case_insensitive=False, fetches_fields=False, doc_value_queries=False,
    tells_long_keywords=False,
    date_intervals=("interval", "fixed_interval", "calendar_interval"), max_buckets=10000, too_many_buckets=503,
    dated_streams=False, content_type="application/json; charset=UTF-8", product=None)

EIGHT = SEVEN._replace(
    number="8.0.0", lucene="9.0.0", oldest_peer="7.17.0", oldest_index="7.0.0", types=False, empty_type="refused",
    uuids_in_ids=False, resolves=True, case_insensitive=True, fetches_fields=True,
    date_intervals=("fixed_interval", "calendar_interval"), max_buckets=65536, too_many_buckets=400,
    dated_streams=True, product="Elasticsearch")

DIALECTS = {
    6: SEVEN._replace(number="6.8.0", lucene="7.7.0", oldest_peer="5.6.0", oldest_index="5.0.0", plain_total=True,
                      typed_mappings=True, empty_type="taken", uuids_in_ids=False, date_intervals=("interval",),
                      max_buckets=None, marks_closed=False),
    7: SEVEN,
    8: EIGHT,
    # Scroll ids in URLs are deprecated there. They are treated as refused, so that nobody comes to rely on them.
    9: EIGHT._replace(number="9.0.0", lucene="10.1.0", oldest_peer="8.18.0", oldest_index="8.0.0", ids_in_urls=False,
                      uuids_in_ids=True, doc_value_queries=True, tells_long_keywords=True,
                      content_type="application/json"),
}
