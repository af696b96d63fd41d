// probe_clause(relation regclass, flavour text, clause text, extract boolean) returns text: the outcome and
// the value of the integer or boolean analysis of a hand-built clause on the column "a".
#include "probe.h"

#include "quelmoraPgFdwClauseAnalysis.h"

#include <cstring>
#include <map>

extern "C" {
PG_MODULE_MAGIC;
}

using namespace probe;

namespace
{

Expr *equals(Expr *left, Expr *right) { return op(96, {left, right}); }

Expr *either(const Nodes &arms) { return combine(OR_EXPR, arms); }

// clang-format off: a line a clause
const std::map<std::string, Expr *(*)()> Clauses = {
    {"a = 7", [] { return equals(column(1), number(7)); }},
    {"7 = a", [] { return equals(number(7), column(1)); }},
    {"b = 7", [] { return equals(column(2), number(7)); }},
    {"a = b", [] { return equals(column(1), column(2)); }},
    {"b = a", [] { return equals(column(2), column(1)); }},
    {"f(a) = 7", [] { return equals(call({column(1)}), number(7)); }},
    {"a = f()", [] { return equals(column(1), call({})); }},
    {"a = null", [] { return equals(column(1), constant(INT4OID, 0, true)); }},
    {"a = true by int4", [] { return equals(column(1), truth(true)); }},
    {"a = true by bool", [] { return op(91, {column(1), truth(true)}); }},
    {"a < 7", [] { return op(97, {column(1), number(7)}); }},
    {"not a", [] { return op(96, {column(1)}); }},
    {"a = 1 or a = 2", [] { return either({equals(column(1), number(1)), equals(column(1), number(2))}); }},
    {"a = 1 or (a = 2 or a = 3)",
     [] {
         return either({equals(column(1), number(1)),
                        either({equals(column(1), number(2)), equals(column(1), number(3))})});
     }},
    {"a = 1 or b = 2", [] { return either({equals(column(1), number(1)), equals(column(2), number(2))}); }},
    {"b = 1 or b = 2", [] { return either({equals(column(2), number(1)), equals(column(2), number(2))}); }},
    {"empty or", [] { return either({}); }},
    {"a = 1 and a = 2",
     [] { return combine(AND_EXPR, {equals(column(1), number(1)), equals(column(1), number(2))}); }},
    {"not a = 1", [] { return combine(NOT_EXPR, {equals(column(1), number(1))}); }},
    {"a = any(7)", [] { return any(96, {column(1), number(7)}); }},
    {"a = any(7) by text", [] { return any(98, {column(1), number(7)}); }},
    {"a = any(f())", [] { return any(98, {column(1), call({})}); }},
    {"a = $1", [] { return equals(column(1), parameter(INT4OID)); }},
    {"a = $1::text", [] { return equals(column(1), parameter(TEXTOID)); }},
    {"a = $exec", [] { return equals(column(1), parameter(INT4OID, PARAM_EXEC)); }},
    {"a = array[1, 2]", [] { return equals(column(1), array(INT4OID, {number(1), number(2)})); }},
    {"a = array[]", [] { return equals(column(1), array(INT4OID, {})); }},
    {"a = array[a = 5, 1]",
     [] { return equals(column(1), array(INT4OID, {equals(column(1), number(5)), number(1)})); }},
    {"a = array[a = 5]::text", [] { return equals(column(1), array(TEXTOID, {equals(column(1), number(5))})); }},
};
// clang-format on

Expr *clauseOf(const char *name) { return Clauses.at(name)(); }

} // namespace

// Nothing with a destructor lives while the analysis runs: it raises the server's own errors.
PROBE(probe_clause)
{
    const bool integers = std::strcmp(text_to_cstring(PG_GETARG_TEXT_PP(1)), "int") == 0;
    Expr *clause = clauseOf(text_to_cstring(PG_GETARG_TEXT_PP(2)));
    const Relation relation = RelationIdGetRelation(PG_GETARG_OID(0));
    qm::pgFdw::AnalyseCtx ctx(relation->rd_att, nullptr, PG_GETARG_BOOL(3));
    int integer = -1;
    bool boolean = true;
    const bool recognised = integers ? qm::pgFdw::analyseExprInt(clause, integer, ctx, "a")
                                     : qm::pgFdw::analyseExprBool(clause, boolean, ctx, "a");
    RelationClose(relation);
    const char *value = integers ? psprintf("%d", integer) : boolean ? "true" : "false";
    return PointerGetDatum(cstring_to_text(psprintf("%s %s", recognised ? "yes" : "no", value)));
}
