// What any connector needs and that knows nothing of Elasticsearch: the columns that a query uses, the
// values of the clauses on a column, and compressed bytea values.
#pragma once

#include "quelmoraPgUtils.h"

#include "quelmoraPgFdwClauseAnalysis.h"

#include <list>
#include <string>

namespace qm::pgFdw
{

// How a table talks to its search cluster; the values are stored in plans.
enum class ConnectorTypes : int32 { ElasticSearchStd = 1, ElasticSearchScroll = 2 };

inline bool isValidConnectorType(ConnectorTypes type)
{
    return type == ConnectorTypes::ElasticSearchStd || type == ConnectorTypes::ElasticSearchScroll;
}

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

// The analysis of quelmoraPgFdwClauseAnalysis.h for strings, of text and text[] values; the list is emptied
// first. The errors are thrown, as FdwError.
bool analyseExprStringArray(Expr *clause, std::list<std::string> &values, AnalyseCtx &ctx,
                            const char *columnName);

// [server side] Builds a bytea in the current memory context. Levels -1 to 9: the length of `data` as a
// native unsigned 32-bit integer and a zlib stream (RFC 1950); any other level: the bytes as they are; no
// bytes: an empty bytea. `out` is null when zlib fails.
void CompressData(const char *data, unsigned int length, varlena *&out, int level);

} // namespace qm::pgFdw

// The walk of iterateOverRequestedColumns over one plan node, its left subtrees and its chain of right ones.
void iterateOverPlan(unsigned int relationId, qm::pgFdw::ColumnNameCallback callback, void *userData,
                     Plan *plan, tupleDesc *const &descriptor);
