"""Fields of strings: found whole (keyword) or by their words (text)."""

from .errors import Refusal, illegal_on_shard
from .field import FIELD_DATA_ON_TEXT, Field
from .jsontext import write_double


def spelling(value):
    """A scalar of a document as its text."""
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, (dict, list)):
        raise Refusal("Can't get text on a START_OBJECT", "illegal_state_exception")
    return getattr(value, "text", None) or str(value)


def units(text):
    """How long a text is for `ignore_above`: in units of UTF-16."""
    return len(text.encode("utf-16-le", "surrogatepass")) // 2


def asked(value):
    """A scalar of a query as its text: a fraction in its shortest form."""
    return write_double(value) if isinstance(value, float) else spelling(value)


def after(text, is_next):
    """The text, or the next one in order."""
    return text + "\0" if is_next else text


class Terms(Field):
    """A field whose keys are strings."""

    def lookup(self, value):
        """The key that a query's value is found by; or Refusal."""
        raise NotImplementedError

    def span(self, bounds):
        low = None if bounds.low is None else after(self.lookup(bounds.low), bounds.low_open)
        return low, None if bounds.high is None else after(self.lookup(bounds.high), not bounds.high_open)


class Keyword(Terms):
    """Strings that are found whole."""

    def set_up(self, options, analysis):
        self.longest = options.get("ignore_above")
        normalizer = options.get("normalizer")
        self.normalize = analysis.normalizer(normalizer) if normalizer else str

    def stored(self, value):
        text = spelling(value)
        if self.longest is not None and units(text) > self.longest:
            return []
        return [self.normalize(text)]

    def lookup(self, value):
        return self.normalize(asked(value))

    def check_text(self, query):
        """All queries are welcome."""


class ConstantKeyword(Keyword):
    """A keyword that is the same in all documents of an index."""

    def set_up(self, options, analysis):
        super().set_up({}, analysis)

    def stored(self, value):
        constant = self.options.setdefault("value", spelling(value))
        if spelling(value) != constant:
            raise Refusal(f"[constant_keyword] field [{self.path}] only accepts values that are equal to the value"
                          f" defined in the mappings [{constant}], but got [{spelling(value)}]")
        return [constant]


class Text(Keyword):
    """Strings that are found by their words."""

    def set_up(self, options, analysis):
        self.longest = None
        self.normalize = str
        self.analyzer = analysis.named(options.get("analyzer", "standard"))
        self.search_analyzer = analysis.named(options["search_analyzer"]) if "search_analyzer" in options else (
            self.analyzer)

    def keys(self, stored):
        return self.analyzer.terms(stored)

    def check_column(self):
        raise illegal_on_shard(FIELD_DATA_ON_TEXT.format(self.path))


class Flattened(Keyword):
    """A whole object as keywords; its members are told apart by a path of their own."""

    keeps_objects = True

    def stored(self, value):
        if not isinstance(value, dict):
            raise Refusal(f"Failed to parse object: expecting token of type [START_OBJECT] in [{self.path}]")
        return list(self.leaves(value, ""))

    def leaves(self, value, path):
        """(path within the object, text) of each leaf that is not too long."""
        if isinstance(value, dict):
            for name, inner in value.items():
                yield from self.leaves(inner, f"{path}.{name}" if path else name)
        elif isinstance(value, list):
            for inner in value:
                yield from self.leaves(inner, path)
        elif value is not None and (self.longest is None or units(spelling(value)) <= self.longest):
            yield path, spelling(value)

    def keys(self, stored):
        return [stored[1]]

    def key(self, stored):
        return stored[1]


class FlattenedMember(Keyword):
    """One member of a flattened object, as queries name it."""

    def set_up(self, options, analysis):
        super().set_up({}, analysis)
        self.root = options["root"]
        self.member = self.path[len(self.root.path) + 1:]

    def keys(self, stored):
        return [stored[1]] if stored[0] == self.member else []

    def key(self, stored):
        return stored[1]


class Boolean(Terms):
    """True and false, found as the terms T and F."""

    order_missing = (2 ** 63 - 1, -2 ** 63)

    def stored(self, value):
        if isinstance(value, bool):
            return ["T" if value else "F"]
        if isinstance(value, str) and value in ("true", "false", ""):
            return ["T" if value == "true" else "F"]
        raise Refusal(f"Failed to parse value [{spelling(value)}] as only [true] or [false] are allowed.")

    def show(self, stored):
        return stored == "T"

    def show_key(self, key):
        return (1, "true") if key == "T" else (0, "false")

    def sort_value(self, key):
        return int(key == "T")

    def lookup(self, value):
        if spelling(value) not in ("true", "false"):
            raise Refusal(f"Can't parse boolean value [{spelling(value)}], expected [true] or [false]")
        return "T" if spelling(value) == "true" else "F"
