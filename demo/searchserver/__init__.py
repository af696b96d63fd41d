"""A small search server that speaks the part of the Elasticsearch interface the wrapper uses."""

from .listener import Request
from .server import SearchServer

__all__ = ["Request", "SearchServer"]
