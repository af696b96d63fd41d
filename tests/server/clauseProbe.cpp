// probe_clause(statement text, equality oid, integers boolean, extract boolean) returns text: the outcome and
// the value of the integer or else the boolean analysis, on the column "a", of what a SELECT from one table
// returns. That is one clause as the parser made it; or, with the number of an operator, the operands of a
// clause of that operator, which need not fit it. Parameters are an integer, a boolean and a text.
#include "probe.h"

#include "quelmoraPgFdwClauseAnalysis.h"

extern "C" {
#include "executor/spi.h"
#include "nodes/nodeFuncs.h"
#include "utils/plancache.h"
PG_MODULE_MAGIC;
}

namespace
{

Query *analysed(const char *statement)
{
    Oid types[] = {INT4OID, BOOLOID, TEXTOID};
    const SPIPlanPtr plan = SPI_prepare(statement, lengthof(types), types);
    auto *source = static_cast<CachedPlanSource *>(linitial(SPI_plan_get_plan_sources(plan)));
    return static_cast<Query *>(linitial(source->query_list));
}

Expr *clauseOf(const Query *query, Oid equality)
{
    List *operands = NIL;
    ListCell *cell;
    foreach (cell, query->targetList)
        operands = lappend(operands, static_cast<TargetEntry *>(lfirst(cell))->expr);
    if (equality == InvalidOid)
        return static_cast<Expr *>(linitial(operands));
    auto *last = static_cast<Node *>(llast(operands));
    if (IsA(last, ArrayExpr)) // of clauses, in the place of a value
        reinterpret_cast<ArrayExpr *>(last)->array_typeid = exprType(static_cast<Node *>(linitial(operands)));
    OpExpr *clause = makeNode(OpExpr);
    clause->opno = equality;
    clause->args = operands;
    return reinterpret_cast<Expr *>(clause);
}

} // namespace

// Nothing with a destructor lives while the analysis runs: it raises the server's own errors.
PROBE(probe_clause)
{
    SPI_connect();
    const Query *query = analysed(text_to_cstring(PG_GETARG_TEXT_PP(0)));
    Expr *clause = clauseOf(query, PG_GETARG_OID(1));
    const Oid table = static_cast<RangeTblEntry *>(linitial(query->rtable))->relid;
    const Relation relation = RelationIdGetRelation(table);
    qm::pgFdw::AnalyseCtx ctx(relation->rd_att, nullptr, PG_GETARG_BOOL(3));
    int integer = -1;
    bool boolean = true;
    const bool recognised = PG_GETARG_BOOL(2) ? qm::pgFdw::analyseExprInt(clause, integer, ctx, "a")
                                              : qm::pgFdw::analyseExprBool(clause, boolean, ctx, "a");
    RelationClose(relation);
    SPI_finish();
    const char *value = PG_GETARG_BOOL(2) ? psprintf("%d", integer) : boolean ? "true" : "false";
    return PointerGetDatum(cstring_to_text(psprintf("%s %s", recognised ? "yes" : "no", value)));
}
