// probe_columns(relation regclass, expression text) returns text: the names that parseVarName reports for a
// hand-built expression over a table of columns a, b, c.
#include "probe.h"

#include <map>

using namespace probe;

namespace
{

Expr *caseOf(Expr *tested, Expr *condition, Expr *result, Expr *otherwise)
{
    CaseWhen *when = makeNode(CaseWhen);
    when->expr = condition;
    when->result = result;
    CaseExpr *node = makeNode(CaseExpr);
    node->arg = tested;
    node->args = listOf({asExpr(when)});
    node->defresult = otherwise;
    return asExpr(node);
}

Expr *throughText(Expr *argument)
{
    CoerceViaIO *node = makeNode(CoerceViaIO);
    node->arg = argument;
    return asExpr(node);
}

Expr *relabelled(Expr *argument)
{
    return asExpr(makeRelabelType(argument, VARCHAROID, -1, InvalidOid, COERCE_EXPLICIT_CAST));
}

Expr *isNull(Expr *argument)
{
    NullTest *node = makeNode(NullTest);
    node->arg = argument;
    node->nulltesttype = IS_NULL;
    return asExpr(node);
}

// clang-format off: a line an expression
const std::map<std::string, Expr *(*)()> Expressions = {
    {"nothing", [] { return static_cast<Expr *>(nullptr); }},
    {"a", [] { return column(1); }},
    {"f(a, b)", [] { return call({column(1), column(2)}); }},
    {"f(f(b), 1, a)", [] { return call({call({column(2)}), number(1), column(1)}); }},
    {"a = b", [] { return op(96, {column(1), column(2)}); }},
    {"a = any(b)", [] { return any(96, {column(1), column(2)}); }},
    {"c::text", [] { return throughText(column(3)); }},
    {"case when a = 1 then b else c",
     [] { return caseOf(nullptr, op(96, {column(1), number(1)}), column(2), column(3)); }},
    {"case a when 1 then b else c", [] { return caseOf(column(1), number(1), column(2), column(3)); }},
    {"a and b", [] { return combine(AND_EXPR, {column(1), column(2)}); }},
    {"a::varchar", [] { return relabelled(column(1)); }},
    {"a is null", [] { return isNull(column(1)); }},
    {"f(a is null, b)", [] { return call({isNull(column(1)), column(2)}); }},
    {"whole row", [] { return column(0); }},
    {"f(whole row)", [] { return call({column(0)}); }},
    {"system column", [] { return column(-1); }},
    {"beyond", [] { return column(4); }},
};
// clang-format on

void collect(const char *name, void *names)
{
    auto *out = static_cast<std::string *>(names);
    if (!out->empty())
        *out += ' ';
    *out += name;
}

} // namespace

PROBE(probe_columns)
{
    return qm::pgFdw::guardEntry([&] {
        Expr *expression = Expressions.at(textArgument(fcinfo, 1))();
        std::string names;
        qm::pgFdw::withTupleDesc(PG_GETARG_OID(0), [&](tupleDesc *descriptor) {
            qm::pgFdw::parseVarName(expression, descriptor, collect, &names);
        });
        return textResult(names);
    });
}
