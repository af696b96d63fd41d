"""The text of a search's response."""

import fnmatch
import functools
import time

from . import dates, highlight, source
from .datefield import Range
from .errors import NODE
from .field import Unsearchable
from .jsontext import Score, write, write_score, write_string
from .numeric import Floating


class Response:
    """Writes what a search found, in the dialect and with the parts that the request wants."""

    def __init__(self, request, outcome, started):
        self.request = request
        self.outcome = outcome
        self.started = started
        self.inner_hits = {}  # {(query, shard): {place: inner hits}}
        self.score_text = functools.lru_cache(None)(write_score)

    def write(self, hits, scroll_id=None, ends_early=None):
        """The response with these of the hits; `ends_early` is what it says of "terminated_early", None for nothing."""
        outcome = self.outcome
        head = f'"_scroll_id":"{scroll_id}",' if scroll_id else ""
        took = int((time.monotonic() - self.started) * 1000)
        ended = "" if ends_early is None else f'"terminated_early":{write(ends_early)},'
        tail = "" if outcome.aggregations is None else f',"aggregations":{write(outcome.aggregations)}'
        return (f'{{{head}"took":{took},"timed_out":{write(outcome.timed_out)},{ended}'
                f'"_shards":{write(outcome.account.as_json())},"hits":{{{self.total()}'
                f'"max_score":{write_score(outcome.highest)},"hits":[{",".join([self.hit(hit) for hit in hits])}]}}'
                f'{tail}}}')

    def total(self):
        count, wanted = self.outcome.count, self.request.count
        if self.request.plain_total:
            return f'"total":{-1 if wanted is False else count},'
        if wanted is False:
            return ""
        limit = count if wanted is True else wanted
        relation = "gte" if count > limit else "eq"
        return f'"total":{{"value":{min(count, limit)},"relation":"{relation}"}},'

    def hit(self, hit):
        request, document, index = self.request, hit.document, hit.shard.index
        parts = [self.identity(hit, document)]
        if request.version:
            parts.append(f',"_version":{document.version}')
        parts.append(f',"_score":{self.score_text(hit.score if request.scored else None)}')
        if document.ignored and (request.dialect.tells_long_keywords or any(
                index.mapping.fields[name].options.get("ignore_malformed") for name in document.ignored)):
            parts.append(f',"_ignored":{write(sorted(document.ignored))}')
        if request.source is None and index.mapping.stores_source():
            parts.append(f',"_source":{document.raw}')
        elif request.source and index.mapping.stores_source():
            parts.append(f',"_source":{write(source.table_order(source.select(document.source, *request.source)))}')
        parts += [f',"{name}":{write(value)}' for name, value in self.extras(hit) if value]
        return "".join(parts) + "}"

    def identity(self, hit, document):
        """The head of a hit up to its id."""
        request, index = self.request, hit.shard.index
        where = f'"_shard":"[{index.name}][{hit.shard.number}]","_node":"{NODE}",' if request.explain else ""
        kind = '"_type":"_doc",' if request.dialect.types else ""
        named = "" if request.hides_ids else f',{kind}"_id":{write_string(document.id)}'
        return f'{{{where}"_index":{write_string(index.name)}{named}'

    def extras(self, hit):
        """(name, value) of the parts of a hit that few searches ask for; those without a value are left out."""
        request, document = self.request, hit.document
        if request.value_fields or request.source_fields or request.collapse:
            yield "fields", self.fields(hit)
        if request.highlight:
            yield "highlight", highlight.highlight(hit, request.highlight, request.query.marks)
        if request.sort:
            yield "sort", [shown for _, _, shown in hit.sort]
        if request.explain:
            yield "_explanation", request.query.explain(hit.shard.level(""), document.place)
        if request.query.nested:
            yield "inner_hits", {query.inner_hits.get("name", query.path): self.inner(query, hit)
                                 for query in request.query.nested}

    def fields(self, hit):
        """The values of the fields that the request names."""
        request, level, found = self.request, hit.shard.level(""), {}
        for pattern, form in request.value_fields:
            for name in matching(level.mapping, pattern):
                column = level.column(name)
                values = sorted(level.values(hit.document, column.field) or [], key=column.field.key)
                if values:
                    values = list(dict.fromkeys(values)) if column.field.terms else values
                    found[name] = [shown(column.field, value, form) for value in values]
        for pattern, form in request.source_fields:
            for name in matching(level.mapping, pattern):
                field = level.mapping.field(name)
                values = level.values(hit.document, field)
                if values:
                    found[name] = [field.sort_value(field.key(value)) if isinstance(field, Floating) else
                                   shown(field, value, form) for value in values]
        if request.collapse and request.collapse.value(hit) is not None:
            found[request.collapse.name] = [request.collapse.value(hit)]
        return found

    def inner(self, query, hit):
        """The inner hits of one nested query."""
        if (query, hit.shard) not in self.inner_hits:
            self.inner_hits[query, hit.shard] = query.matches(hit.shard.level(""))
        found = sorted(self.inner_hits[query, hit.shard].get(hit.document.place, []), key=lambda each: -each[0])
        wanted = query.inner_hits
        start, size = wanted.get("from", 0), wanted.get("size", 3)
        total = len(found) if self.request.plain_total else {"value": len(found), "relation": "eq"}
        return {"hits": {"total": total, "max_score": Score(found[0][0]) if found else None,
                         "hits": [self.inner_hit(hit, *each, wanted) for each in found[start:start + size]]}}

    def inner_hit(self, hit, score, document, wanted):
        kind = {"_type": "_doc"} if self.request.dialect.types else {}
        told = {"_index": hit.shard.index.name, **kind, "_id": hit.document.id,
                "_nested": {"field": document.path, "offset": document.offset}, "_score": Score(score)}
        chosen = source.parse(wanted.get("_source"), ("_source",))
        if chosen is None:
            told["_source"] = document.source
        elif chosen:
            told["_source"] = source.select(document.source, *chosen, f"{document.path}.")
        return told


def matching(mapping, pattern):
    """The fields that a pattern names."""
    if "*" not in pattern:
        return [pattern] if mapping.field(pattern) else []
    return [name for name, field in mapping.fields.items()
            if fnmatch.fnmatchcase(name, pattern) and name != "_id" and not isinstance(field, (Unsearchable, Range))]


def shown(field, stored, form):
    """A stored value as fields show it, dates in the wanted format."""
    if form and field.kind in ("date", "date_nanos"):
        return dates.write(stored * field.unit, form)
    return field.show(stored)
