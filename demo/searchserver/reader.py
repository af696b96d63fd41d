"""Documents as an index takes them in: what its mapping makes of their values."""

from .errors import Refusal, ShardFailure, caused, typed
from .strings import Keyword, spelling


METADATA = {"_id", "_index", "_type", "_routing", "_source", "_ignored", "_field_names", "_seq_no", "_version"}


class Reading:
    """What a mapping makes of a document: stored values by path, inner documents, and fields that were ignored."""

    def __init__(self, source):
        self.source = source
        self.values = {}
        self.inner = []  # (nested path, position in its array, Reading)
        self.ignored = set()


class Reader:
    """Reads one document as a mapping says; SearchError 400 for what it does not take."""

    def __init__(self, mapping, doc_id):
        self.mapping = mapping
        self.doc_id = doc_id

    def read(self, source):
        reading = Reading(source)
        for name in METADATA.intersection(source):
            raise typed(400, "mapper_parsing_exception", f"Field [{name}] is a metadata field and cannot be added"
                        " inside a document. Use the index API request parameters.")
        self.read_members(source, "", reading)
        for field in self.mapping.constants:
            if "value" in field.options:
                reading.values[field.path] = [field.options["value"]]
        return reading

    def read_members(self, value, path, reading):
        for name, inner in value.items():
            self.read_value(f"{path}.{name}" if path else name, inner, reading)

    def read_value(self, path, value, reading):
        mapping = self.mapping
        field = mapping.fields.get(path)
        if field:
            self.read_field(field, value, reading)
            return
        definition = mapping.objects.get(path)
        if definition is not None:
            if definition.get("enabled", True):
                self.read_object(path, definition, value, reading)
            return
        sample = value
        while isinstance(sample, list):
            sample = next((each for each in sample if each is not None), None)
        if sample is not None and mapping.introduce(path, sample):
            self.read_value(path, value, reading)

    def read_object(self, path, definition, value, reading):
        for offset, each in enumerate(value if isinstance(value, list) else [value]):
            if isinstance(each, list):
                self.read_object(path, definition, each, reading)
            elif isinstance(each, dict):
                into = reading
                if definition.get("type") == "nested":
                    into = Reading(each)
                    reading.inner.append((path, offset if isinstance(value, list) else 0, into))
                self.read_members(each, path, into)
            elif each is not None:
                raise typed(400, "mapper_parsing_exception", f"object mapping for [{path}] tried to parse field"
                                                             f" [{path}] as object, but found a concrete value")

    def read_field(self, field, value, reading):
        if isinstance(value, list) and not (field.kind == "geo_point" and value and not isinstance(
                value[0], (list, dict, str))):
            for each in value:
                self.read_field(field, each, reading)
            return
        if value is None:
            value = field.null_value
        if value is None:
            return
        for each in (field, *field.parts):
            self.store(each, value, reading)

    def store(self, field, value, reading):
        try:
            if isinstance(value, dict) and not field.keeps_objects:
                raise Refusal("Can't get text on a START_OBJECT", "illegal_state_exception")
            stored = field.stored(value)
        except (Refusal, ShardFailure) as refusal:
            if field.options.get("ignore_malformed"):
                reading.ignored.add(field.path)
                return
            shown = spelling(value) if not isinstance(value, dict) else "{" + ", ".join(
                f"{name}={inner}" for name, inner in value.items()) + "}"
            raise typed(400, "mapper_parsing_exception",
                        f"failed to parse field [{field.path}] of type [{field.kind}] in document with id"
                        f" '{self.doc_id}'. Preview of field's value: '{shown}'", caused(refusal))
        if not stored and isinstance(field, Keyword) and field.longest is not None:
            reading.ignored.add(field.path)
        if stored and (field.indexed or field.doc_values):
            reading.values.setdefault(field.path, []).extend(stored)
