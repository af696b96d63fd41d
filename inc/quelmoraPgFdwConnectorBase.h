// What any connector needs and that knows nothing of Elasticsearch: the columns that a query uses, the
// values of the clauses on a column, and compressed bytea values.
#pragma once

#include "quelmoraPgUtils.h"
#include "veltraneExport.h"

#include <list>
#include <string>

struct z_stream_s; // of zlib.h

namespace qm::pgFdw
{

// How a table talks to its search cluster; the values are stored in plans.
enum class ConnectorTypes : int32 { ElasticSearchStd = 1, ElasticSearchScroll = 2 };

inline bool isValidConnectorType(ConnectorTypes type)
{
    return type == ConnectorTypes::ElasticSearchStd || type == ConnectorTypes::ElasticSearchScroll;
}

// ---- columns -------------------------------------------------------------------------------------------

// Receives one column name, valid only during the call, and the pointer given along with the callback.
using ColumnNameCallback = void (*)(const char *columnName, void *userData);

// Reports every column that `expression` (may be null) references, once per occurrence. Walks Var, FuncExpr,
// OpExpr, ScalarArrayOpExpr, CoerceViaIO, CaseExpr and CaseWhen; every other node is skipped with all that
// is beneath it. Throws FdwError "fail to retrieve column name" for whole-row references, system columns and
// numbers beyond the descriptor.
void parseVarName(Expr *expression, tupleDesc *descriptor, ColumnNameCallback callback, void *userData);

// Reports every output column of the running statement's plan that originates in the relation.
void iterateOverRequestedColumns(unsigned int relationId, ForeignScanState *node, ColumnNameCallback callback,
                                 void *userData);

// ---- clauses -------------------------------------------------------------------------------------------

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

// Each returns whether the clause restricts the column to constant values (column op constant, parameter,
// IN list or ANY array, or an OR of such clauses) and, where the context says so, extracts them. The output
// is emptied (set to 0, to false) first. The errors are "inconsistant OR clause" for an OR that mixes such
// clauses with others, and "fail to extract clause of type %i for %s" for a value that is no constant: thrown as
// FdwError for strings, raised as an ERROR of the server's by the two that are exported ([server side]).
bool analyseExprStringArray(Expr *clause, std::list<std::string> &values, AnalyseCtx &ctx,
                            const char *columnName);
VELTRANE_EXPORT bool analyseExprInt(Expr *clause, int &value, AnalyseCtx &ctx, const char *columnName);
VELTRANE_EXPORT bool analyseExprBool(Expr *clause, bool &value, AnalyseCtx &ctx, const char *columnName);

// ---- values --------------------------------------------------------------------------------------------

// zlib's state for one value after the other: made at the first value, about 260 KiB, and then used again.
// Plain data; all zero but `context` is a new one. Freed with the context.
struct DeflateStream {
    MemoryContext context; // where the state is allocated; must outlive this
    z_stream_s *state;
    int level; // of the state
};

// [server side] Builds a bytea in the current memory context. Levels -1 to 9: the length of `data` as a
// native unsigned 32-bit integer and a zlib stream (RFC 1950); any other level: the bytes as they are; no
// bytes: an empty bytea. `out` is null when zlib fails.
void CompressData(const char *data, unsigned int length, varlena *&out, int level);
// [server side] The same with a stream that is kept for the next value.
void CompressData(const char *data, unsigned int length, varlena *&out, int level, DeflateStream &stream);

} // namespace qm::pgFdw

// The walk of iterateOverRequestedColumns over one plan node, its left subtrees and its chain of right ones.
void iterateOverPlan(unsigned int relationId, qm::pgFdw::ColumnNameCallback callback, void *userData,
                     Plan *plan, tupleDesc *const &descriptor);
