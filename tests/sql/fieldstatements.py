"""Random statements on columns for fields: documents, tables and their local copies, and conditions of all kinds.

The documents are stored under a mapping and, in other indices, under the dynamic one; table `dynamic` is on these."""
import json
import uuid

import fieldreference
import searchstatements
from searchstatements import COLUMNS, FOREIGN, INDICES, KINDS, NoFields, SearchStatements, written

MOODS = ["sad", "ok", "happy", "a b"]
LONG = "\u00e9\U0001f600 x" * 50  # 250 units of UTF-16
UUIDS = [str(uuid.UUID(int=n * 0x1234567890abcdef1234567)) for n in range(5)]


def quoted(*values):
    return [json.dumps(value) for value in values]


def words(text):
    return quoted(*text.split())


USUAL = [str(n) for n in range(-3, 25)]
# The mapping of a field, and the JSON texts of its values.
FIELDS = {
    "k": ({"type": "keyword", "ignore_above": 20},
          words("whale Whale d007 %_ 7 true 1.5 NULL a,b \u00e9t\u00e9 e\u0301t\u00e9 \u65e5\u672c")
          + quoted("whale ", "", " ", "it's \"q\" \\ {}", "\U0001f600" * 10, "\U0001f600" * 10 + "x", "x" * 20,
                   "x" * 21, "\u00df" * 20)
          + ["7", "true", "1.5"]),
    "short": ({"type": "keyword"}, quoted("a", "b ", "12345678", "\U0001f600" * 8, "", "123456789", "d014") + ["7"]),
    "mood": ({"type": "keyword"}, quoted(*MOODS, "joy")),
    "u": ({"type": "keyword"}, quoted(*UUIDS, UUIDS[1].upper(), "{%s}" % UUIDS[2], UUIDS[3].replace("-", ""), "no")),
    "body": ({"type": "text", "fields": {"keyword": {"type": "keyword", "ignore_above": 256}}},
             quoted("whales and ships", "Ships", *[LONG + "1234567"[:n] for n in (4, 5, 6, 7)])),
    "by": ({"type": "byte"}, USUAL + '-128 127 "5" 5.0 5.7 -0.7 126'.split() * 3),
    "sh": ({"type": "short"}, USUAL + '-32768 32767 "300" 40.0 32766.5'.split() * 3),
    "i": ({"type": "integer"}, USUAL + '-2147483648 2147483647 "7" 3.9 "1e3" 2147483646'.split() * 3),
    "n": ({"type": "integer"}, USUAL + '5.7 -5.7 5.0 "5.25" 0.5 -0.5 -1'.split() * 5),
    "l": ({"type": "long"}, USUAL + [str(2 ** 53 + n) for n in range(-2, 3)]
          + [str(2 ** 63 - 1 - n) for n in (0, 1, 511, 512, 513)]
          + [str(n - 2 ** 63) for n in (0,
                                        1)] + '"9007199254740993" "9007199254740992.0" 0.5 "1e15" "1.5e3"'.split()),
    "ul": ({"type": "unsigned_long"}, [str(2 ** 64 - 1 - n) for n in (0, 1, 1024, 2048)]
           + [str(2 ** 63 + n) for n in (-1, 0, 1)]
           + USUAL[3:14] + ['"18446744073709551615"', '"7"', str(2 ** 53 + 1)]),
    "hf": ({"type": "half_float"},
           USUAL[:9] + '65504 65503.5 -65504 0.1 2049 2051 1.0009765625 1.0004 6e-8 1e-8 0.3333 "0.1" -0.1 '
           '60000.5 32768 65504.5 0.00006'.split() * 2),
    "f": ({"type": "float"},
          USUAL[:9] + '16777217 16777216 16777219 0.1 -0.1 3.4028235e38 "1e-45" 1e10 "0.3" 5.5 7.0 12345678.0 '
          '-3.4028235e38 0.10000001 33554435'.split() * 2),
    "d": ({"type": "double"},
          USUAL[:9] + '1.7976931348623157e308 5e-324 0.1 0.30000000000000004 0.3 1e300 9007199254740993 "1e-400" '
          '-1e-300 16777217 0.005 2.675 0.10000000149011612 0.7 123456.789'.split() * 2),
    "sf": ({"type": "scaled_float", "scaling_factor": 100}, USUAL[:9]
           + '79.99 -79.99 0.005 0.015 1.005 0.1 12345.67 "0.07" '
           '90071992547409 0.004 -0.005 1.115 4.35'.split() * 2),
    "b": ({"type": "boolean"}, 'true false "true" "false" ""'.split()),
    "dt": ({"type": "date"}, words(
        "2020 2020-02 2020-02-29 2020-02-29T23:59:59.999999999Z 1969-12-31T23:59:59.9995Z 1970-01-01 1969-12-31 "
        "1969-12-31T23:59:59.999Z 2020-03-01T00:30+05:00 2019-12-31T23Z 0001-01-02 9999-12-30T23:59:59.999Z "
        "1582-10-10T12:00 2020-05-17T12:34:56,789+0130 2020-05-17T12:34:56.5-08 2020-02-29T23:59:59.4999995Z "
        "2020-02-29T23:59:59.5Z 1900-01-01T00:00:00.000001Z 2100-01-01T00:00:00-18:00 2020-03-01T00:00:00.001 "
        "2020-03-29T01:30:00.0004+01:00")),
    "ms": ({"type": "date"},
           '0 -1 1582934400123 "1582934400123" 1582934400123.5 "2020-02-29" -62135510400000 -999999999999999 '
           '-1.5 "-0.5" 1582934399999.999 "1582934399999.9999"'.split()),
    "s": ({"type": "date", "format": "epoch_second"},
          '0 -1 1582934400 "1582934400" 1582934400.25 -0.5 "-1.0005" "1582934399.9999999"'.split()),
    "ip": ({"type": "ip"},
           words("10.0.0.1 10.0.0.10 ::1 2001:DB8::1 2001:db8:0:0:0:0:0:2 ::ffff:10.0.0.1 255.255.255.255 ::")),
    "j": ({"type": "object", "enabled": False}, '{"a":[1,null,{"b":"\\u00e9"}]} 5 "x" true [1,[2],{}] {} []'.split()),
}
DYNAMIC_TOO = ("ul", "d", "ms", "s", "j")  # what the dynamic mapping would not take is declared there, too
# Fields of several values, like another one, and fields of objects.
MULTIPLE = {"tags": "k", "longs": "l", "halves": "hf", "reals": "f", "cents": "sf", "dates": "dt", "flags": "b",
            "hosts": "ip", "moods": "mood"}
OBJECTS = {"o.k": "k", "o.n": "i", "list.n": "i", "list.k": "k"}
OBJECTS_AT = ("o", "list")
MAPPINGS = {path: FIELDS[like][0] for path, like in {**dict(zip(FIELDS, FIELDS)), **MULTIPLE, **OBJECTS}.items()}
SEEDS = {"boolean": True, "date": "2020-01-01", **dict.fromkeys(("byte", "short", "integer", "long"), 1),
         **dict.fromkeys(("half_float", "float", "scaled_float"), 1.5)}

# What the columns show: a type and the field.
SHOWN = {name: (kind, path) for name, kind, path in map(str.split, """
    k text k; kv varchar k; kn varchar(8) short; code field_code short; mood field_mood mood; u uuid u; ut text u;
    body text body; by int2 by; byd float8 by; sh int2 sh; i int4 i; il int8 i; ish int2 i; inr float4 i;
    n numeric n; nd float8 n; l int8 l; ln numeric l; lf float4 l; ld float8 l; ul numeric ul; uli int8 ul;
    hf float4 hf; hfd float8 hf; hfn numeric(9,3) hf; f float4 f; fd float8 f; fi int4 f; fn numeric(60,3) f;
    d float8 d; df float4 d; dn numeric(10,2) d; sf numeric sf; sfd float8 sf; sff float4 sf; sfn numeric(8,1) sf;
    b bool b; dt timestamptz dt; dd date dt; dl timestamp dt; d0 timestamp(0) dt; dz timestamptz(2) dt;
    ms timestamptz ms; msd date ms; s timestamp s; ip inet ip; ipt text ip; j jsonb j; jl jsonb list; jn jsonb list.n;
    tags text[] tags; tagj jsonb[] tags; tagv varchar[] tags; longs int8[] longs; halves float4[] halves;
    reals float8[] reals; cents numeric(8,1)[] cents; dates timestamptz[] dates; days date[] dates;
    flags bool[] flags; hosts inet[] hosts; moods field_mood[] moods; ok text o.k; onr int4 o.n;
    ln_all int4[] list.n; lk_all text[] list.k; one text tags
""".split(";"))}
# Columns that are far from what the index keeps, or that is far from the source; and some of few kinds.
OFTEN = 2 * ("df df dn hf hfd hfn f fd fd sff sfn sf n nd cents halves d0 d0 "
             "dz dd days dl dt dt k lk_all body b b b il ish uli").split()
FORMATS = {"ms": "epoch_millis", "msd": "epoch_millis", "s": "epoch_second"}
BASES = {"field_code": "varchar(8)", "field_mood": "text", "field_mood[]": "text[]"}


def properties_of(mappings):
    """A mapping of fields by their paths."""
    found = {}
    for path, definition in mappings.items():
        *parents, name = path.split(".")
        place = found
        for parent in parents:
            place = place.setdefault(parent, {"properties": {}})["properties"]
        place[name] = definition
    return found


def definition_at(properties, path):
    name, _, rest = path.partition(".")
    inner = properties.get(name, {})
    return definition_at(inner.get("properties", {}), rest) if rest else inner


def options_of(path, definition):
    """How a column is told of a field and of what the mapping makes of it."""
    found, kind = {"field": path}, definition.get("type", "object")
    if kind == "text":
        definition, kind = definition["fields"]["keyword"], "keyword"
        found["searchfield"] = f"{path}.keyword"
    if kind != "object":
        found["search"] = kind
    names = {"ignoreabove": "ignore_above", "scalingfactor": "scaling_factor"}
    return {**found, **{name: definition[given] for name, given in names.items() if given in definition}}


def check_import(db, index):
    """The tables are told of the fields as an import tells its own."""
    db.run(f'DROP SCHEMA IF EXISTS imported CASCADE; CREATE SCHEMA imported; '
           f'IMPORT FOREIGN SCHEMA "{index}" FROM SERVER documents INTO imported')
    found = {path: dict(option.split("=", 1) for option in options or []) for path, options in db.run(
        f"SELECT attname, attfdwoptions FROM pg_attribute WHERE attrelid = 'imported.\"{index}\"'::regclass")}
    for path, definition in MAPPINGS.items():
        expected = {name: str(value) for name, value in options_of(path, definition).items() if name != "field"}
        given = {"format": definition["format"]} if "format" in definition else {}
        assert found[path] == {**expected, **given}, path


class Fields(NoFields):
    """Fields of documents; with `has_bad_values` also values that do not fit the columns, which are NULL then."""

    columns = {name: kind for name, (kind, _) in SHOWN.items()}

    def __init__(self, random, has_bad_values, properties=None):
        self.random, self.has_bad_values = random, has_bad_values
        self.properties = properties or properties_of(MAPPINGS)
        self.table_options = ", badvalues 'null'" if has_bad_values else ""

    def options(self, column):
        if column in COLUMNS and column != "doctype":
            return {}
        path = SHOWN[column][1] if column in SHOWN else "type"
        found = options_of(path, definition_at(self.properties, path) or {"type": "keyword"})
        if column in FORMATS:
            found["format"] = FORMATS[column]
        return {name: value for name, value in found.items() if column != "doctype" or name != "field"}

    def scalar(self, path):
        return self.random.choice(FIELDS[path][1])

    def single(self, path):
        """The JSON text of a field, None where it is missing."""
        chance = self.random.random()
        if chance < 0.1:
            return None
        scalar = self.scalar(path)
        rare = {0: "null", 1: "[]", 2: "[null]", 3: f"[null,[{scalar}]]", 4: f"[{scalar},{self.scalar(path)}]"}
        return f"[{scalar}]" if chance < 0.2 else rare.get(int(chance * 100) - 20, scalar)

    def several(self, path):
        values = [self.random.choice([self.scalar(path)] * 9 + ["null"]) for _ in range(self.random.randint(0, 4))]
        if len(values) > 2 and self.random.random() < 0.3:
            values = [values[0], f"[{', '.join(values[1:])}]"]
        return self.random.choice([f"[{', '.join(values)}]"] * 6 + [*values[:1], "null", None])

    def objects(self):
        """Members with dots in their names, in objects and in arrays of objects."""
        def inner(*paths):
            members = [(path, self.single(path)) for path in paths]
            return ", ".join(f'"{path if path == "k" else "n"}": {value}' for path, value in members if value)

        yield "o", self.random.choice([f"{{{inner('k', 'i')}}}", f"{{{inner('k')}}}", None])
        yield "o.n", self.random.choice([None, None, self.single("i")])
        dotted = self.random.choice([None, None,
                                     self.several("k")])  # in place of the others: sources come in any order
        rest = "i" if dotted else ("i", "k")
        yield "list", self.random.choice([f"[{{{inner('i')}}}, {{{inner(*rest)}}}, {{}}]", f"{{{inner(*rest)}}}",
                                          None])
        yield "list.k", dotted

    def groups(self):
        """Members of a document that are good or bad together."""
        for path in FIELDS:
            yield [(path, self.single(path))]
        for path, like in MULTIPLE.items():
            yield [(path, self.several(like))]
        yield list(self.objects())

    def text(self, source):
        """The text of a document; what does not fit all columns is left out unless it is wanted."""
        text = json.dumps(source)[:-1]
        for members in self.groups():
            part = ", ".join(f"{json.dumps(name)}: {value}" for name, value in members if value)
            if part and (self.has_bad_values or not self.has_bad(f"{{{part}}}", members[0][0])):
                text += ", " + part
        return text + "}"

    def value(self, source, column):
        kind, path = SHOWN[column]
        labels = MOODS if kind.startswith("field_mood") else ()
        return fieldreference.column_value(source, path, BASES.get(kind, kind), FORMATS.get(column), labels)

    def has_bad(self, text, first):
        """Whether something does not fit a column for the first of the members, or for one of `objects`."""
        source = fieldreference.read(text)
        try:
            for column, (_, path) in SHOWN.items():
                if path == first or "." in path and first in OBJECTS_AT:
                    self.value(source, column)
        except fieldreference.Bad:
            return True
        return False

    def values(self, text):
        found, source = [], fieldreference.read(text)
        for column in SHOWN:
            try:
                found.append(self.value(source, column))
            except fieldreference.Bad:
                found.append(None)
        return tuple(found)


def create(db, server, count, fields):
    """Makes what searchstatements.create makes, with fields; and `dynamic`, with a local copy of its own names."""
    db.run("DROP TYPE IF EXISTS field_mood, field_code CASCADE; SET TimeZone = UTC; "
           f"CREATE TYPE field_mood AS ENUM ({', '.join(f'{chr(39)}{mood}{chr(39)}' for mood in MOODS)}); "
           "CREATE DOMAIN field_code AS varchar(8) CHECK (VALUE <> 'never')")
    texts = searchstatements.create(db, server, count, fields)
    found = {path: definition["type"] for path, definition in MAPPINGS.items() if path not in DYNAMIC_TOO}
    seed = {path: SEEDS.get(kind, "x") for path, kind in found.items()}
    for index in INDICES:
        name = index.replace("docs", "dyn")
        server.create_index(name, 2, {"properties": properties_of({path: MAPPINGS[path] for path in DYNAMIC_TOO})})
        server.put(name, "seed", seed)
        server.cluster.indices[name].delete("seed")
        server.put_many(name, [(doc_id, text) for (of, doc_id, _), text in texts if of == index])
    mapping = server.cluster.indices["dyn-a"].mapping.as_json()["properties"]
    dynamic = Fields(fields.random, fields.has_bad_values, mapping)
    types = {**COLUMNS, **fields.columns}
    db.run("DROP FOREIGN TABLE IF EXISTS dynamic; CREATE FOREIGN TABLE dynamic (" + ", ".join(
        f"{name} {kind} {written(dynamic.options(name))}" for name, kind in types.items()) +
        f") SERVER documents OPTIONS (indexlist 'dyn-*', batchsize '{db.batch}'{fields.table_options})")
    shown = ", ".join("replace(docindex, 'docs', 'dyn') AS docindex" if name == "docindex" else name
                      for name in types)
    for kind in ["any", "all", *KINDS]:
        db.run(f"CREATE TEMP VIEW {kind}_dynamic AS SELECT {shown} FROM {kind}_copy")
    db.run("CREATE TEMP TABLE chosen AS SELECT row_number() OVER (ORDER BY md5(docname))::int AS x, "
           f"{', '.join(SHOWN)} FROM all_copy ORDER BY 1 LIMIT 14; INSERT INTO chosen (x) VALUES (15); "
           "ANALYZE chosen")


NUMBERS = ("int2", "int4", "int8", "float4", "float8", "numeric")
INSTANTS = ("date", "timestamp", "timestamptz")
EXTREMES = {
    "number": ["'NaN'::float8", "'infinity'::float8", "'-infinity'::float4", "'NaN'::numeric", "9007199254740993",
               "0",
               "9223372036854775807", "1e300", "-1e-300", "65504.5", "65520", "-129", "128", "32768::int8", "5.5",
               "5000000000",
               "18446744073709551616", "'-9223372036854775808'::int8", "3.5e38::float8", "16777217", "-0.0::float8",
               "9223372036854775808::float8", "0.1::float4", "5.7"],
    "instant": ["'infinity'::date", "'-infinity'::timestamp", "'infinity'::timestamptz", "'0001-01-01'::date",
                "'4000-01-01 BC'::date", "'9999-12-31'::timestamp", "'20000-01-01'::timestamptz", "now()",
                "current_date", "localtimestamp", "'2020-02-29 05:00+05'::timestamptz", "'2020-03-01'::date",
                "'2020-02-29 12:00'::timestamp", "(now() - now() + '1970-01-01')"],
    "text": ["''", "'no'", "repeat('x', 40000)", "repeat('x', 20)", "lower('WHALE')", "'whale'::varchar(9)",
             "(E'\\U0001F600')::text"],
    "inet": ["'10.0.0.0/8'::inet", "'10.0.0.1/32'::inet", "'::ffff:10.0.0.1'::inet", "host('10.0.0.10'::inet)::inet"],
}


def element(column):
    """The type of a column's values, without its modifier."""
    return SHOWN[column][0].replace("[]", "").partition("(")[0].replace("field_code", "varchar")


def group(kind):
    return "number" if kind in NUMBERS else "instant" if kind in INSTANTS else "text" if kind == "varchar" else kind


class FieldStatements(SearchStatements):
    """Statements most of whose conditions are on fields. `samples` has values of each column, in order."""

    most_conditions = 1

    def __init__(self, random, names, samples):
        super().__init__(random, names)
        self.samples = samples
        self.texts += ["@.k", "@.kn", "@.mood::text", "@.body", "@.dd::text", "@.tags::text", "@.ip::text", "@.ok",
                       "@.b::text"]
        self.numbers += ["@.i::int8", "@.sh::int", "@.by::int", "@.dn", "round(@.n, 2)", "(@.sfd + 0)", "round(@.ul)",
                         "cardinality(@.tags)"]
        self.constants += ["whale", "ok", "2020-02-29", "10.0.0.1"]
        self.compared = [column for column in SHOWN if element(column) not in ("jsonb", "uuid")] + OFTEN

    # ---- values --------------------------------------------------------------------------------------------

    def literal_of(self, text, kind):
        return "'" + text.replace("'", "''").replace("{", "{{").replace("}", "}}") + f"'::{kind}"

    def sample(self, column):
        return self.random.choice(self.samples[column])

    def literal_for(self, column, text):
        """A constant of a type that the column's is compared with, often of another one."""
        kind = element(column)
        if kind in NUMBERS and self.chance(0.4):
            number = float(text)
            others = ["numeric", "float8"] + ["int8"] * (text.lstrip("-").isdigit() and abs(number) < 2 ** 62)
            others += ["float4"] if 1e-30 < abs(number) < 1e30 else []
            moved = self.one_of("", "", " + 1", " - 1", " + 0.5", " * 1.0000001")
            other = self.random.choice(others)
            if not moved or abs(number) < 1e17:
                return f"({self.literal_of(text, other)}{moved})"
        if kind in INSTANTS and self.chance(0.6):
            other = self.random.choice(INSTANTS)
            moved = self.one_of("", " + interval '1 day'", " - interval '1 millisecond'",
                                " + interval '00:00:00.000001'", " + interval '5h'")
            return f"({self.literal_of(text, other)}{moved})"
        return self.literal_of(text, kind)

    def value_for(self, column):
        kind = element(column)
        place, least = self.one_of(self.random.randint(1, 14), 15), self.one_of("max", "min")
        looked_up = [f"(SELECT {least}({column}) FROM chosen WHERE x < {place})",
                     f"(SELECT {column} FROM chosen WHERE x = {place})"] * (self.is_single(column) and kind != "bool")
        extreme = EXTREMES.get(group(kind), []) + {"numeric": ["1e400", "-1e-400"],
                                                   "float8": ["3.5e38::float8", "-1e39::float8"] * 4}.get(kind, [])
        plain = self.literal_for(column, self.sample(column))
        return self.one_of(*[plain] * 12, *looked_up, f"NULL::{kind}",
                           *[self.random.choice(extreme)] * 3 if extreme else [])

    def is_single(self, column):
        return not SHOWN[column][0].endswith("[]")

    def values_for(self, column):
        """Values of one type, of which there may be many."""
        kind, count = element(column), self.one_of(1, 2, 3, 4, 120)
        return ", ".join(self.one_of(*[self.literal_of(self.sample(column), kind)] * 9, f"NULL::{kind}")
                         for _ in range(count))

    # ---- conditions ------------------------------------------------------------------------------------------

    def pushed(self, a):
        return self.one_of(lambda: SearchStatements.pushed(self, a), *[lambda: self.nest(a)] * 5)

    def steering(self, alias):
        steered = super().steering(alias)
        return f"({steered}) AND {self.nest(alias)}" if self.chance(0.8) else steered

    def only(self, a, condition):
        """A scan with one condition, and seldom with more."""
        more = f" AND {self.nest(a)}" if self.chance(0.2) else ""
        return f"FROM {self.source(a)} WHERE ({SearchStatements.steering(self, a)}) AND {condition}{more}"

    def nest(self, a):
        """Conditions on fields, and on whatever else, put together."""
        if self.depth > 3:
            return self.comparison(a)
        return self.one_of(
            *[lambda: self.comparison(a)] * 12,
            lambda: f"({self.nest(a)} OR {self.nest(a)})", lambda: f"({self.nest(a)} AND {self.nest(a)})",
            lambda: f"({self.nest(a)} OR {self.condition(a)})", lambda: f"({self.nest(a)} AND {self.condition(a)})",
            lambda: f"(({self.nest(a)} AND {self.condition(a)}) OR {self.nest(a)})", lambda: f"NOT ({self.nest(a)})",
            lambda: f"({self.nest(a)} OR {SearchStatements.pushed(self, a)})", lambda: self.half_pushed(a))

    def half_pushed(self, a):
        """What can be pushed but for a part in the midst of it."""
        first, second, third = (self.comparison(a) for _ in range(3))
        return f"(({first} AND ({second} OR {self.condition(a)})) OR {third})"

    def comparison(self, a):
        column = self.random.choice(self.compared)
        if not self.is_single(column):
            return self.array_comparison(a, column)
        c, kind = f"{a}.{column}", element(column)
        value, samples = self.value_for(column), self.samples[column]
        if kind == "bool" and self.chance(0.6):
            return self.one_of(c, f"NOT {c}", f"{c} IS TRUE", f"{c} IS NOT FALSE", f"({c}) = ({a}.score > 2)")
        among = f"ARRAY(SELECT {column} FROM chosen WHERE x < {self.random.choice([1, 3, 9, 15])})"
        equal = [f"{c} = {value}", f"{value} = {c}", f"{c} = ANY ({among})", f"({c} = {value} OR {c} IS NULL)",
                 f"{c} IN ({self.values_for(column)})", f"{c} = ANY (ARRAY[{self.values_for(column)}])"]
        other = [f"{c} <> {value}", f"{c} IS NULL", f"{c} IS NOT NULL", f"{c} IS DISTINCT FROM {value}",
                 f"{c}::text LIKE '%{self.random.randint(0, 9)}%'", f"{c} NOT IN ({self.values_for(column)})",
                 f"{c} = ALL ({among})", f"{c} <> ANY (ARRAY[{self.values_for(column)}])"]
        if group(kind) in ("number", "instant") or self.chance(0.2):
            place = self.random.randrange(len(samples))
            low, high = samples[place], samples[min(place + self.random.randint(0, 3), len(samples) - 1)]
            low, high = (self.literal_for(column, bound) for bound in (low, high))
            sign = self.random.choice(["<", "<=", ">", ">="])
            equal += [f"{c} BETWEEN {low} AND {high}"] * 3
            equal += [f"{c} >= {low} AND {c} < {high}", f"{c} {sign} {value}", f"{value} {sign} {c}"]
        return self.one_of(*equal * 3, *other)

    def array_comparison(self, a, column):
        c, kind = f"{a}.{column}", element(column)
        values, one = f"ARRAY[{self.values_for(column)}]", f"ARRAY[{self.literal_of(self.sample(column), kind)}]"
        usual = [f"{self.value_for(column)} = ANY ({c})", f"{c} @> {one}", f"{one} <@ {c}", f"{c} && {values}"]
        chosen = f"(SELECT {column} FROM chosen WHERE x = {self.random.randint(1, 15)})"
        return self.one_of(
            *usual * 3, f"{c} @> {values}", f"{c} @> '{{{{}}}}'", f"{c} @> NULL::{kind}[]", f"{c} = {values}",
            f"{c} IS NULL", f"{c} <@ {values}", f"NOT {c} && {one}", f"{c}[1] = {self.value_for(column)}",
            f"NOT {usual[0]}", f"{c} && {chosen}", f"{self.value_for(column)} = ALL ({c})",
                           f"{self.value_for(column)} < ANY ({c})",
            f"{self.value_for(column)} = ALL ({c})", f"{self.value_for(column)} <> ANY ({c})")

    # ---- statements ------------------------------------------------------------------------------------------

    def some(self, a):
        return ", ".join(f"{a}.{column}" for column in self.random.sample(list(SHOWN), self.random.randint(1, 4)))

    def shown(self):
        return f"SELECT b.docname, {self.some('b')} {self.found('b')}"

    def ordered(self):
        column = self.random.choice(self.compared)
        order = self.one_of("", " DESC", " DESC NULLS LAST", " NULLS FIRST")
        tail = f"ORDER BY b.{column}{order}, b.docname LIMIT {self.random.randint(0, 20)}"
        return f"SELECT {self.some('b')} {self.found('b')} {tail}"

    def grouped_by_field(self):
        key = self.random.choice([column for column in self.compared if SHOWN[column][0] != "numeric"])
        single = self.random.choice([name for name in self.compared
                                     if self.is_single(name) and element(name) != "bool"])
        is_sorted = SHOWN[single][0] not in ("numeric", "inet")
        least = f"min(b.{single})" if is_sorted else f"count(DISTINCT b.{single})"
        return f"SELECT b.{key}, count(*), {least}, count(b.{single}) {self.found('b')} GROUP BY 1"

    def joined(self):
        column = self.random.choice([column for column in self.compared if self.is_single(column)])
        sign = self.one_of("=", "=", "=", "<", ">=") if group(element(column)) in ("number", "instant") else "="
        moved = self.one_of("", " + 1" if element(column) in ("numeric", "date") else "")
        kind, least = self.random.choice(["JOIN", "LEFT JOIN"]), self.random.randint(1, 12)
        on, among = f"b.{column} {sign} c.{column}{moved}", f"c.x BETWEEN {least} AND {least + 5}"
        return self.one_of(
            lambda: f"SELECT c.x, b.docname, b.{column} FROM (SELECT * FROM chosen c WHERE {among}) c {kind} "
            f"{self.source('b')} ON {on} AND {SearchStatements.steering(self, 'b')}",
            lambda: f"SELECT c.x, s.* FROM chosen c {kind} LATERAL (SELECT b.docname, {self.some('b')} "
            f"{self.only('b', on)}) s ON true WHERE {among}")

    def joined_by_array(self):
        column = self.random.choice([column for column in self.compared if not self.is_single(column)])
        condition = self.one_of(f"b.{column} && c.{column}", f"b.{column} @> c.{column}",
                                f"c.{column}[1] = ANY (b.{column})")
        found = f"SELECT b.docname, b.{column} {self.only('b', condition)}"
        return f"SELECT c.x, s.* FROM chosen c, LATERAL ({found}) s WHERE c.x < 6"

    def prepared_fields(self):
        """Parameters of a field's type and of an array of it; after five executions one plan is for all values."""
        column = self.random.choice([column for column in self.compared if element(column) != "bool"])
        kind, c = element(column), f"b.{column}"
        conditions = [f"$1 = ANY ({c})", f"{c}::{kind}[] && $2", f"{c}::{kind}[] @> $2"]
        if self.is_single(column):
            conditions = [f"{c} = $1", f"{c} = ANY ($2)", f"$1 = {c}", f"({c} = $1 OR {c} = ANY ($2))",
                          f"{c} IN ($1, ($2)[1])"]
            if group(kind) in ("number", "instant"):
                conditions += [f"{c} BETWEEN $1 AND ($2)[1]", f"{c} > $1", f"{c} <= $1"]
        condition = self.random.choice(conditions)
        made = f"SELECT b.docname, {c} {self.only('b', condition)}"
        calls = [f"EXECUTE p({self.one_of(*[self.literal_of(self.sample(column), kind)] * 5, 'NULL')}, "
                 f"ARRAY[{self.values_for(column)}])" for _ in range(7)]
        return f"PREPARE p({kind}, {kind}[]) AS {made}; {'; '.join(calls)}; DEALLOCATE p"

    def any(self):
        return self.one_of(super().any, super().any, self.shown, self.shown, self.ordered, self.grouped_by_field,
                           self.joined, self.joined_by_array, self.prepared_fields)


def samples(db):
    """Values of each column as text, in their order."""
    found = {}
    for column in SHOWN:
        each = f"unnest({column})" if SHOWN[column][0].endswith("[]") else column
        if element(column) not in ("jsonb", "uuid"):
            rows = db.run(f"SELECT v::text FROM (SELECT DISTINCT {each} AS v FROM all_copy) s ORDER BY v")
            found[column] = list(dict.fromkeys(value for value, in rows if value is not None))
    return found
