-- The installed extension on a running server, without a search cluster: made, asked for, dropped.
CREATE EXTENSION veltranepgfdw;
SELECT veltranepgfdw_jsonb(convert_to('{"title": "Moby-Dick"}', 'UTF8')) ->> 'title' AS title;
SELECT veltranepgfdw_text('\x02000000789cabae0500017500f9') AS text;
CREATE SERVER search FOREIGN DATA WRAPPER veltranepgfdw OPTIONS (address '127.0.0.1', port '1', timeout '1000');
CREATE FOREIGN TABLE books
    (docname text, doccontent bytea, score real, doctype text, highlights bytea, param text)
    SERVER search OPTIONS (connectortype 'elasticsearch', indexlist 'books');
EXPLAIN (COSTS OFF) SELECT docname FROM books WHERE docname IN ('a', 'b') AND score > 1;
SELECT docname FROM books WHERE docname = 'a'; -- nobody listens on that port
SELECT docname FROM books;
DROP EXTENSION veltranepgfdw CASCADE;
