"""The query language: a JSON query becomes a Query."""

from . import compound, fulltext, leafqueries  # noqa: F401  they enter the queries that they know
from .querybase import Query, parse

__all__ = ["Query", "parse"]
