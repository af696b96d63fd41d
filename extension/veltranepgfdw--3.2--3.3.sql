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
