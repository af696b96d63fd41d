// Whether a restriction clause pins a column to constant values, for other code in the server's process.
// Needs postgres.h, access/tupdesc.h, nodes/execnodes.h and nodes/primnodes.h, as C, before it.
#pragma once

#include "elasticsearch/veltraneExport.h"

#include <type_traits>

// The descriptor's structure is named `tupleDesc` in some versions and TupleDescData in the others.
using tupleDesc = std::remove_pointer_t<TupleDesc>;

namespace qm::pgFdw
{

// What the analysis of one clause needs to know. At plan time there is no plan state and no value to extract.
struct AnalyseCtx {
    AnalyseCtx(::tupleDesc *&desc, PlanState *planState, bool extractValues)
        : tupleDesc(desc), planState(planState), extractValues(extractValues)
    {
    }

    ::tupleDesc *&tupleDesc;
    PlanState *planState;
    bool extractValues;
};

// [server side] Each returns whether the clause restricts the column to constant values (column op constant,
// parameter, IN list or ANY array, or an OR of such clauses) and, where the context says so, extracts the
// value, which is set to 0 or false first. Raise "inconsistant OR clause" (HV000) for an OR that mixes such
// clauses with others, and "fail to extract clause of type %i for %s" for a value that is no constant.
VELTRANE_EXPORT bool analyseExprInt(Expr *clause, int &value, AnalyseCtx &ctx, const char *columnName);
VELTRANE_EXPORT bool analyseExprBool(Expr *clause, bool &value, AnalyseCtx &ctx, const char *columnName);

} // namespace qm::pgFdw
