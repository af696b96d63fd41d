"""The tour: what the demo creates and the queries it shows, each with a line on what to look at."""

SETUP = """
CREATE SERVER search FOREIGN DATA WRAPPER veltranesearch OPTIONS (address {url});
CREATE FOREIGN TABLE books
    (docname text, score real, title text, author text, year int OPTIONS (search 'long'), type text,
     tags text[] OPTIONS (search 'keyword', searchfield 'tags.keyword', ignoreabove '256'),
     doccontent jsonb, highlights jsonb, param text)
    SERVER search OPTIONS (indexlist {index});

CREATE SERVER classic FOREIGN DATA WRAPPER veltranepgfdw;
CREATE FOREIGN TABLE classic_books
    (docname text, doccontent bytea, score real, doctype text, highlights bytea, param text)
    SERVER classic
    OPTIONS (connectortype 'elasticsearch', address {address}, port {port}, indexlist {index},
             batchsize '100', esversion {version}, fullerrormsg 'true');

CREATE TABLE loans (docname text PRIMARY KEY, reader text, due date);
INSERT INTO loans VALUES ('moby-dick', 'Ada', '2024-05-02'), ('kon-tiki', 'Grace', '2024-05-09'),
    ('walden', 'Edsger', '2024-05-16'), ('treasure-island', 'Barbara', '2024-05-23');
CREATE TABLE topics (topic text);
INSERT INTO topics VALUES ('whale'), ('poet'), ('robot');
ANALYZE;
-- The expression compiler, where there is one, would take longer than the queries.
SELECT set_config(name, 'off', false) FROM pg_settings WHERE name = 'jit';
"""

TOUR = [
    ("Fields of the documents are columns; a condition on them is one of the search, where it can be", """\
SELECT title, author, year
FROM books
WHERE year BETWEEN 1850 AND 1870 AND tags && ARRAY['nature', 'sea']
ORDER BY year"""),
    ("Full-text search, best first, with the words that were found", """\
SELECT docname, score, highlights->'text' AS found
FROM books
WHERE param IN ('query={"match":{"text":"whale sea ship"}}',
                'highlight={"fields":{"text":{"number_of_fragments":2}}}')
ORDER BY score DESC
LIMIT 5"""),
    ("Documents by id; an id that does not exist gives no row", """\
SELECT docname, type, doccontent
FROM books
WHERE docname IN ('moby-dick', 'either-or', 'no-such-book')
ORDER BY docname"""),
    ("Any condition holds, whether the search knows it or not", """\
SELECT docname, type, author, score
FROM books
WHERE param = 'query={"match":{"text":"book poet"}}'
  AND (type = 'poetry' OR author LIKE 'S%')
ORDER BY docname"""),
    ("Only a part of each document travels: two source filters", """\
SELECT docname, doccontent
FROM books
WHERE param IN ('query={"term":{"tags":"japanese"}}',
                'sourceincludefilter=title', 'sourceincludefilter=author')
ORDER BY docname"""),
    ("No condition means all documents: groups, sums, whatever SQL can do with them", """\
SELECT type, count(*), min(year) AS first, max(year) AS last
FROM books
GROUP BY type
HAVING count(*) > 2
ORDER BY count(*) DESC, type"""),
    ("Joined with a local table: the documents of the loans are looked up, or all read, as is cheaper", """\
SELECT reader, due, title
FROM loans JOIN books USING (docname)
ORDER BY due"""),
    ("A search for each row, made of it: the two best of each topic", """\
SELECT topic, docname, score
FROM topics LEFT JOIN LATERAL (
    SELECT docname, score
    FROM books
    WHERE param = format('query={"match":{"text":%s}}', to_json(topic))
    ORDER BY score DESC
    LIMIT 2) AS found ON true
ORDER BY topic, score DESC"""),
    ("Facets of a search, counted by the cluster", """\
SELECT field, value, documents
FROM veltranesearch_terms('books', ARRAY['type.keyword', 'tags.keyword'], '{"match": {"text": "sea ship"}}', 100)
WHERE documents > 1"""),
    ("Every group of documents, with a figure of each", """\
SELECT key->>'type' AS type, documents, aggregations->'first'->>'value' AS first
FROM veltranesearch_buckets('books', '[{"type": {"terms": {"field": "type.keyword"}}}]',
                            '{"first": {"min": {"field": "year"}}}')
ORDER BY documents DESC, type"""),
    ("A search with a body of one's own: the best of each type", """\
SELECT fields->'type.keyword'->>0 AS type, docname, score
FROM veltranesearch_hits('books', '{"query": {"match": {"text": "life book"}},
                                    "collapse": {"field": "type.keyword"}, "size": 4}')
ORDER BY score DESC"""),
    ("What becomes of a text, so what a search compares", """\
SELECT term, start_offset, end_offset FROM veltranesearch_analyze('books', 'text', 'The White Whale''s ship')"""),
    ("What goes to the search, before it goes", """\
EXPLAIN (VERBOSE, COSTS OFF)
SELECT docname FROM books WHERE docname LIKE 'm%' AND param = 'query={"match":{"text":"whale"}}'"""),
    ("The classic wrapper: the same search with compressed contents (a bytea is shown unpacked)", """\
SELECT docname, score, doccontent
FROM classic_books
WHERE param IN ('query={"match":{"text":"whale"}}', 'sourceexcludefilter=text')
ORDER BY score DESC"""),
]
