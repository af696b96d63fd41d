\echo Use "ALTER EXTENSION veltranepgfdw UPDATE" to load this file. \quit

CREATE FUNCTION veltranesearch_handler() RETURNS fdw_handler
    AS 'MODULE_PATHNAME' LANGUAGE C STRICT;
COMMENT ON FUNCTION veltranesearch_handler() IS
    'handler of the foreign-data wrapper veltranesearch';

CREATE FUNCTION veltranesearch_validator(text[], oid) RETURNS void
    AS 'MODULE_PATHNAME' LANGUAGE C STRICT;
COMMENT ON FUNCTION veltranesearch_validator(text[], oid) IS
    'validator of the foreign-data wrapper veltranesearch';

CREATE FOREIGN DATA WRAPPER veltranesearch
    HANDLER veltranesearch_handler VALIDATOR veltranesearch_validator;
COMMENT ON FOREIGN DATA WRAPPER veltranesearch IS
    'reads the documents of an Elasticsearch cluster as rows, as SQL asks for them';

CREATE FUNCTION veltranesearch_exchanges(server oid, OUT requests bigint, OUT pages bigint, OUT hits bigint,
        OUT bytes bigint, OUT retries bigint, OUT connections_opened bigint, OUT connections_reused bigint,
        OUT waited_ms double precision, OUT deflated_ms double precision)
    AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED;
COMMENT ON FUNCTION veltranesearch_exchanges(oid) IS
    'what this session has exchanged with a foreign server of the wrapper veltranesearch';

CREATE FUNCTION veltranesearch_exchanges_reset() RETURNS void
    AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED;
COMMENT ON FUNCTION veltranesearch_exchanges_reset() IS
    'sets what veltranesearch_exchanges shows to zero, for this session';

CREATE VIEW veltranesearch_exchanges AS
    SELECT s.srvname AS server, e.*
    FROM pg_catalog.pg_foreign_server s
        JOIN pg_catalog.pg_foreign_data_wrapper w ON w.oid = s.srvfdw,
        LATERAL veltranesearch_exchanges(s.oid) e
    WHERE w.fdwhandler = 'veltranesearch_handler()'::pg_catalog.regprocedure;
COMMENT ON VIEW veltranesearch_exchanges IS
    'what this session has exchanged with each foreign server of the wrapper veltranesearch';
GRANT SELECT ON veltranesearch_exchanges TO PUBLIC;

-- What follows searches with the caller's user mapping whatever the table's indices hold: it is for those to
-- whom it is granted.

CREATE FUNCTION veltranesearch_hits(relation regclass, body jsonb, OUT docindex text, OUT docname text,
        OUT score real, OUT sort jsonb, OUT source jsonb, OUT highlights jsonb, OUT fields jsonb,
        OUT inner_hits jsonb)
    RETURNS SETOF record AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED COST 10000;
COMMENT ON FUNCTION veltranesearch_hits(regclass, jsonb) IS
    'the hits of a search with this body in the indices of a foreign table';

CREATE FUNCTION veltranesearch_terms(relation regclass, fields text[], query jsonb DEFAULT '{"match_all": {}}',
        size integer DEFAULT 10, OUT field text, OUT value text, OUT documents bigint)
    RETURNS SETOF record AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED COST 10000 ROWS 10;
COMMENT ON FUNCTION veltranesearch_terms(regclass, text[], jsonb, integer) IS
    'the most frequent values of each field among the documents that a query finds';

CREATE FUNCTION veltranesearch_aggregate(relation regclass, aggregations jsonb,
        query jsonb DEFAULT '{"match_all": {}}')
    RETURNS jsonb AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED COST 10000;
COMMENT ON FUNCTION veltranesearch_aggregate(regclass, jsonb, jsonb) IS
    'what these aggregations are of the documents that a query finds';

CREATE FUNCTION veltranesearch_buckets(relation regclass, sources jsonb, aggregations jsonb DEFAULT '{}',
        query jsonb DEFAULT '{"match_all": {}}', OUT key jsonb, OUT documents bigint,
        OUT aggregations jsonb)
    RETURNS SETOF record AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED COST 10000;
COMMENT ON FUNCTION veltranesearch_buckets(regclass, jsonb, jsonb, jsonb) IS
    'all buckets of a composite aggregation with these sources';

CREATE FUNCTION veltranesearch_explain(relation regclass, docname text, query jsonb, OUT docindex text,
        OUT score real, OUT explanation jsonb)
    RETURNS SETOF record AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED COST 10000 ROWS 1;
COMMENT ON FUNCTION veltranesearch_explain(regclass, text, jsonb) IS
    'why a document that a query finds has its score';

CREATE FUNCTION veltranesearch_analyze(relation regclass, field text, text text, OUT term text,
        OUT "position" integer, OUT start_offset integer, OUT end_offset integer, OUT type text)
    RETURNS SETOF record AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED COST 10000 ROWS 10;
COMMENT ON FUNCTION veltranesearch_analyze(regclass, text, text) IS
    'the terms that a text becomes in a field of the index of a foreign table';

CREATE FUNCTION veltranesearch_check(relation regclass, OUT ok boolean, OUT what text, OUT detail text, OUT hint text)
    RETURNS SETOF record AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED COST 10000 ROWS 15;
COMMENT ON FUNCTION veltranesearch_check(regclass) IS
    'what is as it should be with a foreign table and the cluster that it searches, and what is not';

CREATE FUNCTION veltranesearch_checkserver(server name, OUT ok boolean, OUT what text, OUT detail text, OUT hint text)
    RETURNS SETOF record AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE PARALLEL RESTRICTED COST 10000 ROWS 10;
COMMENT ON FUNCTION veltranesearch_checkserver(name) IS
    'what is as it should be with a foreign server and its cluster, and what is not';

REVOKE ALL ON FUNCTION veltranesearch_hits(regclass, jsonb), veltranesearch_terms(regclass, text[], jsonb, integer),
    veltranesearch_aggregate(regclass, jsonb, jsonb), veltranesearch_buckets(regclass, jsonb, jsonb, jsonb),
    veltranesearch_explain(regclass, text, jsonb), veltranesearch_analyze(regclass, text, text),
    veltranesearch_check(regclass), veltranesearch_checkserver(name)
    FROM PUBLIC;
