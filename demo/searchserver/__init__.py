"""A small search server that speaks the part of the Elasticsearch interface the wrapper uses."""

from .server import Request, SearchServer

__all__ = ["Request", "SearchServer"]
