"""The mapping of an index: its fields by path, as they were declared or as documents brought them."""

import copy

from . import dates
from .analysis import Analysis
from .errors import Refusal, illegal_argument, typed
from .fieldtypes import make
from .strings import Flattened, FlattenedMember

DYNAMIC_STRING = {"type": "text", "fields": {"keyword": {"type": "keyword", "ignore_above": 256}}}
SLASHES = "yyyy/MM/dd HH:mm:ss||yyyy/MM/dd"
DYNAMIC_DATES = {"strict_date_optional_time": {"type": "date"},
                 SLASHES: {"type": "date", "format": f"{SLASHES}||epoch_millis"}}
DATE_SIGNS = (":", "-", "/")
ROOT_OPTIONS = ("dynamic", "_source", "_meta", "_routing", "date_detection", "numeric_detection", "dynamic_templates")


def is_object(definition):
    return definition.get("type") in ("object", "nested") or "type" not in definition


class Mapping:
    """Definitions as they were given, and what was made of them: `fields` and `objects` by their dotted paths."""

    def __init__(self, analysis_settings):
        self.analysis = Analysis(analysis_settings)
        self.root = {"properties": {}}
        self.fields = {"_id": make("_id", {"type": "keyword"}, self.analysis)}
        self.objects = {"": self.root}
        self.constants = []
        self.runtime = {}

    # Declared fields

    def merge(self, given):
        """Adds what a mapping declares; SearchError 400 when it does not go with what is there."""
        for key in given:
            if key not in (*ROOT_OPTIONS, "properties", "runtime"):
                raise typed(400, "mapper_parsing_exception",
                            f"Root mapping definition has unsupported parameters:  [{key} : {given[key]}]")
        self.root.update({key: given[key] for key in ROOT_OPTIONS if key in given})
        self.add_properties("", given.get("properties", {}))
        for name, definition in given.get("runtime", {}).items():
            if "script" in definition:
                raise illegal_argument(f"runtime field [{name}]: this server runs no scripts")
            self.runtime[name] = definition
            self.fields[name] = make(name, definition, self.analysis)

    def add_properties(self, path, properties):
        for name, definition in properties.items():
            if not isinstance(definition, dict):
                raise typed(400, "mapper_parsing_exception",
                            f"Expected map for property [fields] on field [{name}] but got a class")
            head, _, rest = name.partition(".")
            if rest:
                definition = {"properties": {rest: definition}}
            self.add(f"{path}.{head}" if path else head, definition)

    def add(self, path, definition):
        """Declares the field or object at a path, whose parents are there."""
        own = {key: value for key, value in definition.items() if key != "properties"}
        known = self.objects.get(path) or (self.fields[path].options if path in self.fields else None)
        if known and is_object(known) != is_object(definition):
            raise illegal_argument(f"can't merge a non object mapping [{path}] with an object mapping")
        if known and not is_object(known) and known["type"] != definition["type"]:
            raise illegal_argument(f"mapper [{path}] cannot be changed from type [{known['type']}] to"
                                   f" [{definition['type']}]")
        if not known:
            known = {**own, "properties": {}} if is_object(definition) else copy.deepcopy(definition)
            if not is_object(definition) and definition["type"] != "alias":
                self.enter(make(path, known, self.analysis))
            parent, _, name = path.rpartition(".")
            self.objects[parent]["properties"][name] = known
            if is_object(definition):
                self.objects[path] = known
        if is_object(definition):
            self.add_properties(path, definition.get("properties", {}))

    def enter(self, field):
        self.fields[field.path] = field
        for part in field.parts:
            self.fields[part.path] = part
        if field.kind == "constant_keyword":
            self.constants.append(field)

    # Fields that documents bring

    def introduce(self, path, value):
        """Declares what a document has at a new path, if the mapping lets it; returns whether it did."""
        parent, _, name = path.rpartition(".")
        if parent not in self.objects:
            if parent in self.fields:
                raise typed(400, "mapper_parsing_exception",
                            f"Could not dynamically add mapping for field [{path}]. Existing mapping for [{parent}]"
                            f" must be of type object but found [{self.fields[parent].kind}].")
            if not self.introduce(parent, {}):
                return False
        if not self.objects[parent].get("enabled", True):
            return False
        dynamic = str(self.option("dynamic", parent, True)).lower()
        if dynamic == "strict":
            raise typed(400, "strict_dynamic_mapping_exception", "mapping set to strict, dynamic introduction of"
                        f" [{name}] within [{parent or '_doc'}] is not allowed")
        if dynamic == "false":
            return False
        self.add(path, {"properties": {}} if isinstance(value, dict) else self.guess(value))
        return True

    def option(self, name, path, default):
        """An option of an object, or of the nearest one around it that has it."""
        while path and name not in self.objects[path]:
            path = path.rpartition(".")[0]
        return self.objects[path].get(name, default)

    def guess(self, value):
        """The definition of a field whose first value is this scalar."""
        if isinstance(value, bool):
            return {"type": "boolean"}
        if isinstance(value, (int, float)):
            return {"type": "long" if isinstance(value, int) else "float"}
        if any(sign in value for sign in DATE_SIGNS) and self.root.get("date_detection", True):
            for formats, definition in DYNAMIC_DATES.items():
                try:
                    dates.parse(value, formats)
                    return definition
                except Refusal:
                    pass
        return DYNAMIC_STRING

    # What queries and responses ask

    def field(self, path):
        """The field that a query names, or None; aliases lead to another one."""
        found = self.fields.get(path)
        if found is None and "." in path:
            root = next((self.fields[path[:place]] for place, sign in enumerate(path)
                         if sign == "." and isinstance(self.fields.get(path[:place]), Flattened)), None)
            if root:
                return FlattenedMember(path, {"type": "flattened", "root": root}, self.analysis)
        if found is None:
            parent, _, name = path.rpartition(".")
            definition = self.objects.get(parent, {}).get("properties", {}).get(name, {})
            return self.fields.get(definition["path"]) if definition.get("type") == "alias" else None
        return found

    def stores_source(self):
        return self.root.get("_source", {}).get("enabled", True)

    def as_json(self):
        """The mapping as the interface tells it: the type first, properties by name."""
        shown = {key: self.root[key] for key in ROOT_OPTIONS if key in self.root}
        if self.runtime:
            shown["runtime"] = self.runtime
        return {**shown, **({"properties": ordered(self.root["properties"])} if self.root["properties"] else {})}


def ordered(properties):
    shown = {}
    for name, definition in sorted(properties.items()):
        if not is_object(definition):
            shown[name] = {"type": definition["type"], **definition}
            continue
        kind = "nested" if definition.get("type") == "nested" else "object"
        rest = {key: value for key, value in definition.items() if key not in ("type", "properties")}
        inner = {"properties": ordered(definition["properties"])} if definition["properties"] else {}
        shown[name] = {**({} if inner and kind == "object" else {"type": kind}), **rest, **inner}
    return shown
