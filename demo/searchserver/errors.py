"""Errors as the search interface reports them: a status and a JSON object with "error"."""

NODE = "1bundledSearchServer00"  # node id, of the usual 22 characters


def caused(error):
    """What an error with a kind, a reason and perhaps a cause says, as an entry of "caused_by"."""
    entry = {"type": error.kind, "reason": error.reason}
    return {**entry, "caused_by": error.cause} if error.cause else entry


class SearchError(Exception):
    """A response other than 200; `body` is the JSON object to send with `status`."""

    def __init__(self, status, body):
        super().__init__(str(body))
        self.status = status
        self.body = body


class ParseError(Exception):
    """A fault in the request's JSON at `path`, the keys and positions that lead to the value."""

    def __init__(self, path, reason, unknown=None):
        super().__init__(reason)
        self.path = path
        self.reason = reason
        self.unknown = unknown


class Refusal(Exception):
    """A value that a field does not take, in a document or in a query; `cause` is the entry of what lies behind."""

    def __init__(self, reason, kind="illegal_argument_exception", cause=None):
        super().__init__(reason)
        self.reason = reason
        self.kind = kind
        self.cause = cause


class ShardFailure(Exception):
    """A search that fails on one shard while it may succeed on others."""

    def __init__(self, kind, reason, cause=None, status=400):
        super().__init__(reason)
        self.kind = kind
        self.reason = reason
        self.cause = cause
        self.status = status

    def entry(self, shard):
        """The failure as an entry of "failures" and "failed_shards"."""
        reason = {"type": self.kind, "reason": self.reason}
        if self.kind == "query_shard_exception":
            reason.update(index_uuid=shard.index.uuid, index=shard.index.name)
        if self.cause:
            reason["caused_by"] = self.cause
        return {"shard": shard.number, "index": shard.index.name, "node": NODE, "reason": reason}


def failed_query(refusal):
    """The failure of a query whose value a field refuses."""
    return ShardFailure("query_shard_exception", f"failed to create query: {refusal.reason}", caused(refusal))


def illegal_on_shard(reason):
    return ShardFailure("illegal_argument_exception", reason)


def typed(status, kind, reason, caused_by=None, **more):
    """A SearchError with type and reason, said twice as the interface does: root cause and error."""
    cause = {"type": kind, "reason": reason, **more}
    error = {"root_cause": [cause], **cause}
    if caused_by:
        error["caused_by"] = caused_by
    return SearchError(status, {"error": error, "status": status})


def illegal_argument(reason):
    return typed(400, "illegal_argument_exception", reason)


def invalid(*faults):
    """The SearchError of a request whose parts do not go together."""
    said = "".join(f"{number}: {fault};" for number, fault in enumerate(faults, 1))
    return typed(400, "action_request_validation_exception", f"Validation Failed: {said}")


def index_not_found(name):
    return typed(404, "index_not_found_exception", f"no such index [{name}]",
                 **{"resource.type": "index_or_alias", "resource.id": name, "index_uuid": "_na_",
                    "index": name})


def index_closed(index):
    return typed(400, "index_closed_exception", "closed", index_uuid=index.uuid, index=index.name)


def parsing(line, column, error):
    """The SearchError of a ParseError whose place in the body is known."""
    caused_by = error.unknown and {"type": "named_object_not_found_exception",
                                   "reason": f"[{line}:{column}] unknown field [{error.unknown}]"}
    return typed(400, "parsing_exception", error.reason, caused_by, line=line, col=column)


def all_shards_failed(entries, status=400, cause=None, said="all shards failed"):
    """The SearchError of a search that failed on every shard; `entries` as ShardFailure.entry makes them."""
    reasons = [entry["reason"] for entry in entries]
    error = {
        "root_cause": [{key: reason[key] for key in reason if key != "caused_by"} for reason in reasons],
        "type": "search_phase_execution_exception", "reason": said,
        "phase": "query", "grouped": True, "failed_shards": entries,
    }
    if reasons[0]["type"] == "illegal_argument_exception":
        cause = {**reasons[0], "caused_by": reasons[0]}
    if cause:
        error["caused_by"] = cause
    return SearchError(status, {"error": error, "status": status})
