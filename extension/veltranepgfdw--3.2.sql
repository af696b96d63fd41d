\echo Use "CREATE EXTENSION veltranepgfdw" to load this file. \quit

CREATE FUNCTION veltranepgfdwinterfacehandler() RETURNS fdw_handler
    AS 'MODULE_PATHNAME' LANGUAGE C STRICT;
COMMENT ON FUNCTION veltranepgfdwinterfacehandler() IS
    'handler of the foreign-data wrapper veltranepgfdw';

CREATE FUNCTION veltranepgfdwinterfacevalidator(text[], oid) RETURNS void
    AS 'MODULE_PATHNAME' LANGUAGE C STRICT;
COMMENT ON FUNCTION veltranepgfdwinterfacevalidator(text[], oid) IS
    'validator of the foreign-data wrapper veltranepgfdw';

CREATE FOREIGN DATA WRAPPER veltranepgfdw
    HANDLER veltranepgfdwinterfacehandler VALIDATOR veltranepgfdwinterfacevalidator;
COMMENT ON FOREIGN DATA WRAPPER veltranepgfdw IS
    'reads the documents of an Elasticsearch cluster as rows';

CREATE FUNCTION veltranepgfdw_text(bytea) RETURNS text
    AS 'MODULE_PATHNAME' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION veltranepgfdw_text(bytea) IS
    'JSON text of a value of the columns doccontent and highlights, whatever its compression level';

CREATE FUNCTION veltranepgfdw_jsonb(bytea) RETURNS jsonb
    AS 'MODULE_PATHNAME' LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION veltranepgfdw_jsonb(bytea) IS
    'JSON of a value of the columns doccontent and highlights, whatever its compression level';
