// probe_compress(bytea, level integer) returns bytea: CompressData at any level.
#include "probe.h"

PROBE(probe_compress)
{
    bytea *data = PG_GETARG_BYTEA_PP(0);
    varlena *result = nullptr;
    qm::pgFdw::CompressData(VARDATA_ANY(data), static_cast<unsigned int>(VARSIZE_ANY_EXHDR(data)), result,
                            PG_GETARG_INT32(1));
    if (!result)
        PG_RETURN_NULL();
    PG_RETURN_POINTER(result);
}
