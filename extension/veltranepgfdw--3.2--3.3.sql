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
