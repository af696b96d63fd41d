"""The types of fields by name."""

from .datefield import Address, Date, Range
from .errors import Refusal, typed
from .field import Unsearchable
from .numeric import Floating, Scaled, UnsignedLong, Whole
from .strings import Boolean, ConstantKeyword, Flattened, Keyword, Text

TYPES = {
    "keyword": Keyword, "wildcard": Keyword, "constant_keyword": ConstantKeyword, "version": Keyword, "text": Text,
    "match_only_text": Text, "search_as_you_type": Text, "flattened": Flattened, "boolean": Boolean,
    "byte": Whole, "short": Whole, "integer": Whole, "long": Whole, "unsigned_long": UnsignedLong,
    "half_float": Floating, "float": Floating, "double": Floating, "scaled_float": Scaled,
    "date": Date, "date_nanos": Date, "ip": Address,
    "binary": Unsearchable, "geo_point": Unsearchable, "geo_shape": Unsearchable,
    **dict.fromkeys(Range.MEMBERS, Range),
    **dict.fromkeys(("point", "shape", "histogram", "dense_vector", "sparse_vector", "rank_feature", "rank_features",
                     "join", "percolator", "completion", "token_count", "murmur3", "annotated_text"), Unsearchable),
}


def make(path, options, analysis):
    """The field of a mapping's entry; SearchError 400 for an entry that is not in order."""
    kind = options["type"]
    if kind not in TYPES:
        raise typed(400, "mapper_parsing_exception",
                    f"No handler for type [{kind}] declared on field [{path.rpartition('.')[2]}]")
    if kind in Range.MEMBERS:
        member = make(path, {**options, "type": Range.MEMBERS[kind]}, analysis)
        return Range(path, {**options, "member": member}, analysis)
    try:
        field = TYPES[kind](path, options, analysis)
    except Refusal as refusal:
        raise typed(400, "mapper_parsing_exception", refusal.reason)
    field.parts = [make(f"{path}.{name}", own, analysis) for name, own in options.get("fields", {}).items()]
    return field
