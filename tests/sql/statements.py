"""Random statements on a relation, to be asked twice: of the foreign table and of a local copy of its rows."""


class Statements:
    """Makes statements over the expressions `texts` and `numbers`, in which @ is an alias of a relation, beside the local table `local_rows (name
    text, n integer)`. A statement names the relation as {rel} and has {steer[alias]} for the condition that the
    wrapper may need: str.format puts them in."""

    most_conditions = 2  # beside the one that steers

    def __init__(self, random, texts, numbers, constants):
        self.random, self.texts, self.numbers, self.constants = random, texts, numbers, constants
        self.depth = 0

    def one_of(self, *choices):
        """One of the choices; a function stands for what it returns."""
        chosen = self.random.choice(choices)
        if not callable(chosen):
            return chosen
        self.depth += 1
        try:
            return chosen()
        finally:
            self.depth -= 1

    def chance(self, probability):
        return self.random.random() < probability

    # ---- the relation under an alias, and what the scan of it needs; whoever calls them, calls them in this order

    def source(self, alias):
        return f"{{rel}} {alias}"

    def steering(self, alias):
        return f"{{steer[{alias}]}}"

    # ---- expressions over an alias ------------------------------------------------------------------------

    def column(self, alias, names):
        return self.random.choice(names).replace("@", alias)

    def literal(self):
        return f"'{self.random.choice(self.constants)}'"

    def text(self, a):
        plain = [lambda: self.column(a, self.texts)] * 3 + [self.literal]
        if self.depth > 3:
            return self.one_of(*plain)
        return self.one_of(
            *plain, lambda: f"upper({self.text(a)})", lambda: f"({self.text(a)} || {self.text(a)})",
            lambda: f"coalesce({self.text(a)}, {self.literal()})", lambda: f"({self.text(a)})::varchar(4)",
            lambda: f"nullif({self.text(a)}, {self.literal()})", lambda: f"(ARRAY[{self.text(a)}, 'x'])[1]",
            lambda: f"CASE WHEN {self.condition(a)} THEN {self.text(a)} ELSE {self.literal()} END",
            lambda: f"(SELECT {self.text(a)})", lambda: f"format('%s-%s', {self.text(a)}, {self.number(a)})",
            lambda: f"left({self.text(a)}, 3)::bpchar", lambda: f"ROW({self.text(a)}, {self.number(a)})::text")

    def number(self, a):
        plain = [lambda: self.column(a, self.numbers), lambda: str(self.random.randint(-2, 9))]
        if self.depth > 3:
            return self.one_of(*plain)
        return self.one_of(
            *plain, lambda: f"length({self.text(a)})", lambda: f"coalesce({self.number(a)}, -1)",
            lambda: f"greatest({self.number(a)}, {self.number(a)})", lambda: f"({self.number(a)} + {self.number(a)})",
            lambda: f"CASE {self.text(a)} WHEN {self.literal()} THEN {self.number(a)} END")

    def condition(self, a):
        plain = [lambda: f"{self.number(a)} < {self.number(a)}", lambda: f"{self.text(a)} >= {self.literal()}",
                 lambda: f"{self.text(a)} IS NULL", lambda: f"{self.text(a)} LIKE '%{self.random.randint(0, 9)}%'"]
        if self.depth > 2:
            return self.one_of(*plain)
        return self.one_of(
            *plain, lambda: f"NOT ({self.condition(a)})", lambda: f"({self.condition(a)} OR {self.condition(a)})",
            lambda: f"({self.condition(a)}) IS NOT TRUE", lambda: f"{self.number(a)} BETWEEN 0 AND 4",
            lambda: f"upper({self.text(a)}) IN ({self.literal()}, 'B')",
            lambda: f"{self.text(a)} || '' IN (SELECT name FROM local_rows WHERE n < 9)",
            lambda: f"EXISTS (SELECT FROM local_rows l WHERE l.name = {self.text(a)} || '' AND l.n > 2)")

    # ---- statements -------------------------------------------------------------------------------------------

    def where(self, a, *others):
        """A WHERE clause that steers the scan of the alias."""
        conditions = [self.steering(a), *others, *[self.condition(a) for _ in range(self.random.randint(0, self.most_conditions))]]
        return "WHERE " + " AND ".join(f"({each})" for each in conditions)

    def found(self, a, *others):
        return f"FROM {self.source(a)} {self.where(a, *others)}"

    def select_list(self, a):
        return ", ".join(self.one_of(lambda: self.text(a), lambda: self.number(a), lambda: self.condition(a))
                         for _ in range(self.random.randint(1, 3)))

    def plain(self):
        tail = " ORDER BY 1, 2 LIMIT 7" if self.chance(0.3) else ""
        return f"SELECT {self.text('b')}, {self.number('b')} {self.found('b')}{tail}"

    def grouped(self):
        key = self.text("b")
        return (f"SELECT {key}, count(*), max({self.text('b')}), sum({self.number('b')}::numeric), "
                f"count(*) FILTER (WHERE {self.condition('b')}) {self.found('b')} GROUP BY 1 "
                f"HAVING count(*) > {self.random.randint(0, 2)}")

    def window(self):
        return (f"SELECT DISTINCT {self.select_list('b')}, rank() OVER (PARTITION BY {self.text('b')} "
                f"ORDER BY {self.text('b')}) {self.found('b')}")

    def join(self):
        kind = self.random.choice(["JOIN", "LEFT JOIN", "RIGHT JOIN", "FULL JOIN"])
        found = f"(SELECT {self.select_list('b')}, {self.text('b')} AS k {self.found('b')})"
        return f"SELECT * FROM local_rows l {kind} {found} s ON s.k = l.name"

    def lateral(self):
        return (f"SELECT l.n, s.* FROM local_rows l, LATERAL (SELECT {self.select_list('b')} "
                f"{self.found('b', 'length(' + self.texts[0].replace('@', 'b') + ') > l.n - 99')}) s WHERE l.n < 2")

    def two(self):
        return (f"SELECT {self.text('b')}, {self.number('c')} FROM {self.source('b')} JOIN {self.source('c')} ON "
                f"{self.text('b')} = {self.text('c')} {self.where('b', self.steering('c'))}")

    def set_operation(self):
        kind = self.random.choice(["UNION", "UNION ALL", "EXCEPT", "INTERSECT"])
        arms = [f"SELECT {self.text('b')}, {self.number('b')}::numeric {self.found('b')}" for _ in "12"]
        return f" {kind} ".join(arms)

    def with_query(self):
        return (f"WITH w AS (SELECT {self.text('b')} AS t, {self.number('b')} AS n {self.found('b')}) "
                "SELECT t, count(*), (SELECT max(n) FROM w) FROM w GROUP BY t")

    def changed(self):
        """A local change that reads the relation, and what it left."""
        made = f"SELECT {self.text('b')} AS t, {self.number('b')}::numeric AS n {self.found('b')}"
        return self.random.choice([
            f"WITH i AS (INSERT INTO changes {made} RETURNING *) SELECT * FROM i",
            f"WITH d AS (DELETE FROM changes WHERE (t) IN (SELECT t FROM ({made}) s) RETURNING *) SELECT * FROM d",
            f"WITH s AS ({made}), u AS (UPDATE changes SET n = s.n FROM (SELECT t, max(n) AS n FROM s GROUP BY t) s "
            "WHERE s.t = changes.t RETURNING changes.*) SELECT * FROM u"])

    def any(self):
        return self.one_of(self.plain, self.plain, self.grouped, self.window, self.join, self.lateral, self.two,
                           self.set_operation, self.with_query, self.changed)
