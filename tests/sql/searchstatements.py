"""Random statements for the search wrapper, with the relations that they are on.

A statement reads the documents without a search ("all") or what one of SEARCHES finds. The foreign table is the same
for all of them; the local copy of each has its own rows. Beside the foreign table as it is the statement may be on one
with other columns' order, on one of partitions, or on a view that hides rows; so may it be on the local side."""
import json

from statements import Statements

KINDS = ["whales", "ranked", "nothing"]


def constant_score(query, boost):
    return {"constant_score": {"filter": query, "boost": boost}}


QUERIES = {"whales": constant_score({"term": {"title": "whales"}}, 2.5),
           "ranked": {"bool": {"should": [constant_score({"range": {"number": {"gte": 20}}}, 4),
                                          constant_score({"term": {"title": "whales"}}, 2.5)]}},
           "nothing": constant_score({"term": {"title": "ships"}}, 1)}
PARAMS = {kind: "query=" + json.dumps(query) for kind, query in QUERIES.items()}
INDICES = ["docs-a", "docs-b"]
TYPES = ["book", "essay", 7, True, None, ["book", "x"], "it's \"q\" \\ \u00e9", 1.5]
COLUMNS = {"docname": "text", "score": "real", "doctype": "text", "docindex": "text",
           "doccontent": "jsonb", "highlights": "jsonb", "param": "text"}
FOREIGN = ["docs", "reordered", "parts", "hiding"]
HIDING = ("CREATE VIEW {} WITH (security_barrier) AS SELECT docname, score, doctype, docindex, doccontent, highlights, "
          "param{} FROM {} WHERE doctype IN ('book', '7', 'essay') AND length(docname) < 6")


def documents(count):
    """(index, id, source) of each: every third lacks a field, and names and types are such as need care."""
    for n in range(count):
        name = f"d{n:03}" if n % 17 else f"d{n} '\"\\\u00e9\u65e5 {{}}"
        source = {"title": "whales" if n % 2 else "letters", "number": n, "type": TYPES[n % len(TYPES)],
                  "inner": {"type": "no", "_id": "no", "hits": [{"_id": f"d{n}"}]}}
        for name_of_field in list(source)[n % 4:n % 4 + 1] if n % 3 == 0 else []:
            del source[name_of_field]
        yield INDICES[n % 5 == 0], name, source


def score(kind, source):
    """What a document scores in a search; None when it is not found."""
    whales = 2.5 if source.get("title") == "whales" else 0
    late = 4 if source.get("number", 0) >= 20 else 0
    return {"all": 1, "whales": whales, "ranked": whales + late, "nothing": 0}[kind] or None


def rows(kind, texts):
    """The rows of a search, in the order of COLUMNS and with the text of each document."""
    for (index, name, source), text in texts:
        found = score(kind, source)
        if found:
            value = source.get("type")
            shown = None if isinstance(value, list) else json.dumps(value) if isinstance(value,
                                                                                         (bool, float,
                                                                                          int)) else value
            yield (name, found, shown, index, text, None, PARAMS.get(kind)), text


class NoFields:
    """What the documents and the tables have beside the above: nothing."""
    columns = {}  # SQL types
    properties = {}  # of the mapping
    table_options = ""

    def options(self, column):
        return {"search": "keyword"} if column == "doctype" else {}

    def text(self, source):
        return json.dumps(source)

    def values(self, text):
        return ()


def written(options):
    return f"OPTIONS ({', '.join(f'{name} {chr(39)}{value}{chr(39)}' for name, value in options.items())})" if options else ""


def create(db, server, count, fields=NoFields()):
    """Stores the documents, and makes the foreign tables and the local copies that FOREIGN and KINDS tell. Returns the
    documents with their texts."""
    for index in INDICES:
        server.create_index(index, 3, {"properties": {"type": {"type": "keyword"}, **fields.properties}})
    texts = [(document, fields.text(document[2])) for document in documents(count)]
    for (index, name, _), text in texts:
        server.put(index, name, text)
    types = {**COLUMNS, **fields.columns}
    plain = ", ".join(f"{name} {kind}" for name, kind in types.items())
    columns = [f"{name} {kind} {written(fields.options(name))}" for name, kind in types.items()]
    table = "CREATE FOREIGN TABLE {} {} SERVER documents OPTIONS (indexlist '{}', batchsize '{}'%s);" % fields.table_options
    more = "".join(f", {name}" for name in fields.columns)
    parts = [f"parts_{index[-1]}" for index in INDICES]
    db.run("DROP FOREIGN TABLE IF EXISTS docs, reordered CASCADE; DROP TABLE IF EXISTS parts;" +
           table.format("docs", f"({', '.join(columns)})", "docs-*", db.batch) +
           table.format("reordered", f"({', '.join(reversed(columns))})", "docs-a,docs-b", db.batch) +
           f"CREATE TABLE parts ({plain}) PARTITION BY LIST (docindex);" +
           "".join(table.format(part, f"PARTITION OF parts FOR VALUES IN ('{index}')", index, db.batch)
                   for part, index in zip(parts, INDICES)) +
           "".join(f"ALTER FOREIGN TABLE {part} ALTER COLUMN {name} {written(fields.options(name))};"
                   for part in parts for name in fields.columns if fields.options(name)) +
           HIDING.format("hiding", more, "docs"))
    db.run("CREATE TEMP TABLE local_rows AS SELECT 'd' || to_char(n * 7, 'FM000') AS name, n FROM "
           "generate_series(0, 12) n; CREATE TEMP TABLE searches (kind text, text text);"
           "CREATE TEMP TABLE changes AS SELECT name AS t, n::numeric FROM local_rows;"
           "INSERT INTO local_rows VALUES (NULL, 13), ('d1', NULL); ANALYZE local_rows")
    for kind in ["all", *KINDS]:
        db.run(f"CREATE TEMP TABLE {kind}_copy ({plain})")
        holders = ", ".join(f"%s::{kind}" for kind in types.values())
        for row, text in rows(kind, texts):
            db.run(f"INSERT INTO {kind}_copy VALUES ({holders})", row + fields.values(text))
        db.run(HIDING.format(f"{kind}_hiding", more, f"{kind}_copy"))
        if kind in PARAMS:
            db.run("INSERT INTO searches VALUES (%s, %s)", (kind, PARAMS[kind]))
    db.run("CREATE TEMP TABLE any_copy AS " + " UNION ALL ".join(f"TABLE {kind}_copy" for kind in KINDS))
    return texts


class SearchStatements(Statements):
    """Statements for str.format with `rel`: the relation of each kind. What they are asked may be pushed or not."""

    def __init__(self, random, names):
        super().__init__(random, ["@.docname", "@.docname", "@.doctype", "@.docindex", "@.param",
                                  "(@.doccontent->>'title')"],
                         ["@.score", "(@.doccontent->>'number')::int"],
                         ["book", "7", "whales", "d007", "docs-a", "x"])
        self.names, self.kinds, self.known = names, {}, {}

    # ---- what steers a scan ---------------------------------------------------------------------------------

    def source(self, alias):
        self.kinds[alias] = self.random.choice(["all", "all", "all", *KINDS[:2] * 2, *KINDS])
        return f"{{rel[{self.kinds[alias]}]}} {alias}"

    def steering(self, alias):
        pushed = [self.pushed(alias)] if self.chance(0.3) else []
        kind = self.kinds[alias]
        if kind != "all":
            asked = "'" + PARAMS[kind].replace("{", "{{").replace("}", "}}") + "'"
            chosen = f"(SELECT text FROM searches WHERE kind = '{kind}')"
            pushed.append(self.one_of(
                f"{alias}.param = {asked}", f"{alias}.param = {chosen}", f"{chosen} = {alias}.param",
                f"{alias}.param IN ({asked}, 'highlight={{{{\"fields\":{{{{}}}}}}}}')",
                f"{alias}.param = ANY (ARRAY[{asked}])", f"{alias}.param = replace({asked}, 'never', '')",
                f"{alias}.param = ANY (ARRAY(SELECT text FROM searches WHERE kind = '{kind}'))"))
        return " AND ".join(pushed) or "true"

    def given(self, column):
        """An expression that has a value before the search."""
        constant = "'" + self.random.choice(self.names if column == "docname"
                                            else ["book", "essay", "7", "true"]).replace(
            "'", "''").replace("{", "{{").replace("}", "}}") + "'"
        local = f"(SELECT max(name) FROM local_rows WHERE n < {self.random.randint(0, 13)})"
        return self.one_of(*[constant] * 9, local, "NULL", f"{constant}::varchar(9)", f"lower({constant})", "''",
                           f"coalesce({local}, {constant})", f"('x' || {constant})", *self.known.get(column, []))

    def pushed(self, a):
        """A condition that the search can carry out."""
        column = self.random.choice(["docname", "docname", "doctype"])
        values = ", ".join(self.given(column) for _ in range(self.random.randint(1, 4)))
        names = f"ARRAY(SELECT name FROM local_rows WHERE n < {self.random.randint(0, 13)})"
        single = [f"{a}.{column} = {self.given(column)}", f"{self.given(column)} = {a}.{column}",
                  f"{a}.{column} IN ({values})", f"{a}.{column} = ANY (ARRAY[{values}]::text[])",
                  f"{a}.{column} = ANY ({names})", f"{a}.{column} = ANY (NULL::text[])"]
        return self.one_of(*single, f"({self.random.choice(single)} OR {self.random.choice(single)})",
                           f"({self.random.choice(single)} OR {self.condition(a)})", f"NOT {single[2]}")

    # ---- statements of their own ----------------------------------------------------------------------------

    def best(self):
        """The first rows by score, which may come from one small search."""
        order = self.one_of("score DESC", "score DESC, docname", "score", "score DESC NULLS LAST", "docname")
        shown = "score" if order in ("score DESC", "score DESC NULLS LAST", "score") else "docname, score"
        tail = self.one_of(f"LIMIT {self.random.randint(0, 30)}", f"LIMIT 5 OFFSET {self.random.randint(0, 9)}",
                           "FETCH FIRST 3 ROWS WITH TIES" if "docname" not in order and self.wide else "LIMIT 9")
        return f"SELECT {shown} {self.found('b')} ORDER BY {order} {tail}"

    def counted(self):
        """The number of documents, which the search tells where nothing else decides on them."""
        found = self.one_of(f"FROM {self.source('b')} WHERE {self.steering('b')}", lambda: self.found("b"))
        return self.one_of(f"SELECT count(*) {found}", f"SELECT count(*) + 1, 'x', count(*) {found} ORDER BY 1",
                           f"SELECT l.n, (SELECT count(*) {found} AND b.docname = l.name) FROM local_rows l",
                           f"SELECT l.n, s.c FROM local_rows l, LATERAL (SELECT count(*) AS c {found} AND l.n > 2) s",
                           f"SELECT count(*) FROM (SELECT b.score {found} LIMIT 3) s", f"SELECT count(*) {found} HAVING count(*) > 3")

    def look_up(self):
        kind = self.random.choice(["JOIN", "LEFT JOIN", "RIGHT JOIN", "FULL JOIN"])
        return (f"SELECT l.n, s.* FROM (SELECT * FROM local_rows WHERE n < {self.random.randint(0, 14)}) l {kind} "
                f"(SELECT b.docname AS k, {self.select_list('b')} {self.found('b')}) s ON s.k = l.name")

    def lateral_look_up(self):
        return (f"SELECT l.n, s.* FROM local_rows l LEFT JOIN LATERAL (SELECT {self.select_list('b')} "
                f"{self.found('b', 'b.docname = ' + self.random.choice(['l.name', 'lower(l.name)', 'ANY (ARRAY[l.name])']))}) s ON true")

    def steered_by_join(self):
        self.kinds["b"] = "all"
        return (f"SELECT q.kind, {self.select_list('b')} FROM searches q JOIN {{rel[any]}} b ON b.param = q.text "
                f"WHERE q.kind <> '{self.random.choice(KINDS)}' AND {self.pushed('b')}")

    def existing(self):
        test = self.random.choice(["EXISTS", "NOT EXISTS"])
        return (f"SELECT * FROM local_rows l WHERE {test} (SELECT {self.found('b', 'b.docname = l.name')}) "
                f"AND l.name {self.random.choice(['IN', 'NOT IN'])} (SELECT c.docname {self.found('c')})")

    def locked(self):
        lock = self.random.choice(["FOR UPDATE", "FOR SHARE", "FOR UPDATE OF l", "FOR NO KEY UPDATE"])
        return (f"SELECT l.n, {self.select_list('b')} FROM local_rows l, {self.source('b')} "
                f"{self.where('b', 'b.docname = l.name')} {lock}")

    def whole(self):
        return self.one_of(lambda: f"SELECT to_jsonb(b), {self.select_list('b')} {self.found('b')}",
                           lambda: f"SELECT b.docname, count(b), jsonb_agg(to_jsonb(b)) {self.found('b')} GROUP BY 1",
                           lambda: f"SELECT b.doccontent->'inner', b.highlights IS NULL, b.param {self.found('b')}")

    def merged(self):
        """A local change beside the relation."""
        found = f"(SELECT b.docname, max(b.score) AS score {self.found('b')} GROUP BY 1) s"
        changes = [f"UPDATE local_rows l SET n = s.score FROM {found} WHERE s.docname = l.name RETURNING l.*",
                   f"DELETE FROM local_rows l USING {found} WHERE s.docname = l.name RETURNING s.*"]
        if self.wide:
            changes.append(f"MERGE INTO local_rows l USING {found} ON s.docname = l.name WHEN MATCHED THEN UPDATE SET "
                           "n = s.score WHEN NOT MATCHED THEN INSERT VALUES (s.docname, -1)")
        return self.random.choice(changes) + "; SELECT * FROM local_rows"

    def prepared(self):
        self.known = {"docname": ["$1", "$1", "$2"], "doctype": ["$2"]}
        made = self.one_of(self.plain, self.look_up, self.best, self.grouped, self.whole, self.counted)
        self.known = {}
        values = [self.random.choice(["'book'", "NULL", "'d008'", "'7'", "'d014'", "''"]) for _ in range(13)]
        return f"PREPARE p(text, text) AS {made}; " + "; ".join(
            f"EXECUTE p({value}, {other})" for value, other in zip(values, values[1:])) + "; DEALLOCATE p"

    def cursor(self):
        made = f"SELECT docname, docindex, score {self.found('b')} ORDER BY 1, 2, 3"
        scroll, back = self.random.choice([("SCROLL ", "; FETCH BACKWARD 3 FROM c"), ("", "")])
        return (f"DECLARE c {scroll}CURSOR FOR {made}; FETCH 5 FROM c; MOVE 3 FROM c{back}; "
                f"{self.random.choice(['FETCH ALL FROM c; ', ''])}CLOSE c")

    def any(self):
        return self.one_of(super().any, self.best, self.counted, self.look_up, self.lateral_look_up,
                           self.steered_by_join, self.existing, self.locked, self.whole, self.merged, self.prepared,
                           self.cursor)
