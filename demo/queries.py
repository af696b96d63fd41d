"""The tour: what the demo creates and the queries it shows, each with a line on what to look at."""

SETUP = """
CREATE FUNCTION veltranepgfdwinterfacehandler() RETURNS fdw_handler AS {module} LANGUAGE C STRICT;
CREATE FUNCTION veltranepgfdwinterfacevalidator(text[], oid) RETURNS void AS {module} LANGUAGE C STRICT;
CREATE FOREIGN DATA WRAPPER veltranepgfdw
    HANDLER veltranepgfdwinterfacehandler VALIDATOR veltranepgfdwinterfacevalidator;
CREATE FUNCTION veltranepgfdw_text(bytea) RETURNS text
    AS {module} LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE FUNCTION veltranepgfdw_jsonb(bytea) RETURNS jsonb
    AS {module} LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
CREATE SERVER search FOREIGN DATA WRAPPER veltranepgfdw;
CREATE FOREIGN TABLE books
    (docname text, doccontent bytea, score real, doctype text, highlights bytea, param text)
    SERVER search
    OPTIONS (connectortype 'elasticsearch', address {address}, port {port}, indexlist {index},
             batchsize '100', fullerrormsg 'true');
CREATE TABLE loans (docname text PRIMARY KEY, reader text, due date);
INSERT INTO loans VALUES ('moby-dick', 'Ada', '2024-05-02'), ('kon-tiki', 'Grace', '2024-05-09'),
    ('walden', 'Edsger', '2024-05-16'), ('treasure-island', 'Barbara', '2024-05-23');
-- The expression compiler, where there is one, would take longer than the queries.
SELECT set_config(name, 'off', false) FROM pg_settings WHERE name = 'jit';
"""

TOUR = [
    ("Full-text search, best first, with the words that were found (bytea is shown unpacked)", """\
SELECT docname, score, highlights
FROM books
WHERE param IN ('query={"match":{"text":"whale sea ship"}}',
                'highlight={"fields":{"text":{"number_of_fragments":2}}}')
ORDER BY score DESC
LIMIT 5"""),
    ("Documents by id; an id that does not exist gives no row", """\
SELECT docname, doctype, doccontent
FROM books
WHERE docname IN ('moby-dick', 'either-or', 'no-such-book')"""),
    ("Only documents of some types", """\
SELECT docname, doctype, score
FROM books
WHERE doctype IN ('poetry', 'philosophy') AND param = 'query={"match":{"text":"book poet"}}'"""),
    ("Only a part of each document travels: two source filters", """\
SELECT docname, doccontent
FROM books
WHERE param IN ('query={"term":{"tags":"japanese"}}',
                'sourceincludefilter=title', 'sourceincludefilter=author')"""),
    ("Everything but the text", """\
SELECT docname, doccontent
FROM books
WHERE doctype = 'memoir'
  AND param IN ('query={"range":{"year":{"gte":1940}}}', 'sourceexcludefilter=text')"""),
    ("Contents are at hand in SQL as jsonb; level -2 leaves out packing what is unpacked at once", """\
SELECT doc->>'author' AS author, doc->>'title' AS title, (doc->>'year')::int AS year
FROM (SELECT veltranepgfdw_jsonb(doccontent) AS doc
      FROM books
      WHERE param IN ('query={"match":{"tags":"italian"}}', 'compressionlevel=-2')) AS found
ORDER BY year"""),
    ("Joined with a local table: who has borrowed a book about the sea?", """\
SELECT loans.reader, loans.due, books.docname, books.score
FROM books JOIN loans ON loans.docname = books.docname
WHERE books.param = 'query={"match":{"text":"sea whale"}}'
ORDER BY loans.due"""),
]
