"""One request being handled: what its URL, headers and body say, and how its response is put together."""

import gzip
import zlib
from urllib.parse import parse_qsl

from . import jsontext, names
from .errors import SearchError, illegal_argument

CONTENT_TYPES = ("application/json", "application/x-ndjson")


class Exchange:
    """One request being handled; handlers may add `headers` to the response."""

    def __init__(self, cluster, request):
        self.cluster = cluster
        self.dialect = cluster.dialect
        self.method = request.method
        self.path, _, query_string = request.path.partition("?")
        self.parameters = dict(parse_qsl(query_string, keep_blank_values=True))
        self.given = {name.lower(): value for name, value in request.headers}
        self.body = request.body
        self.headers = []
        self.hits = 0  # documents that the response shows

    def flag(self, name):
        return self.parameters.get(name) in ("", "true")

    def check(self, known):
        """Unpacks the body; SearchError for one that is of no known type and for parameters that are not `known`."""
        if self.given.get("content-encoding") == "gzip":
            try:
                self.body = gzip.decompress(self.body)
            except (OSError, EOFError, zlib.error) as error:
                raise illegal_argument(f"Not in GZIP format: {error}")
        content_type = self.given.get("content-type")
        if self.body and (content_type or "").partition(";")[0].strip().lower() not in CONTENT_TYPES:
            said = f"[{content_type}] is not supported" if content_type else "is missing"
            raise SearchError(406, {"error": f"Content-Type header {said}", "status": 406})
        unknown = next((name for name in self.parameters if name not in known), None)
        if unknown is not None:
            raise illegal_argument(f"request [{self.path}] contains unrecognized parameter: [{unknown}]")

    def json(self):
        """The body's JSON object, {} when there is none."""
        body = jsontext.read(self.body)[0] if self.body.strip() else {}
        if not isinstance(body, dict):
            raise illegal_argument("Malformed content, must start with an object")
        return body

    def select(self, expression, default=names.SEARCH):
        """The indices that an expression of the URL means."""
        return names.select(self.cluster, expression, names.wishes(self.parameters, default))


INDEX_OPTIONS = ("ignore_unavailable", "allow_no_indices", "expand_wildcards")


def endpoint(*parameters):
    """Marks a handler with the URL parameters it knows."""
    def marked(handler):
        handler.parameters = {*parameters, "human", "error_trace"}
        return handler
    return marked


def response(value, status=200):
    """What a handler gives back: the status and the text of its response."""
    return status, jsontext.write(value)
