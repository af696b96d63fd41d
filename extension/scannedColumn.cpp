// Columns of a scanned relation as they stand in its conditions. All of this is on the server's side of the
// error boundary.
#include "extension/scannedColumn.h"

namespace qm::extension
{
namespace
{

// Types that are compared as text are one.
Oid comparedType(Oid type)
{
    const Oid base = getBaseType(type);
    const Oid element = get_element_type(base);
    if (OidIsValid(element))
        return getBaseType(element) == VARCHAROID ? TEXTARRAYOID : base;
    return base == VARCHAROID ? TEXTOID : base;
}

} // namespace

// A relabelling between types that are compared alike changes nothing.
const Var *columnIn(const ScannedRelation &scanned, Node *expression)
{
    while (IsA(expression, RelabelType)) {
        auto *relabel = reinterpret_cast<RelabelType *>(expression);
        auto *inner = reinterpret_cast<Node *>(relabel->arg);
        if (comparedType(exprType(inner)) != comparedType(relabel->resulttype))
            return nullptr;
        expression = inner;
    }
    if (!IsA(expression, Var))
        return nullptr;
    const auto *var = reinterpret_cast<const Var *>(expression);
    const bool isOwn = var->varlevelsup == 0 && static_cast<Index>(var->varno) == scanned.relation->relid &&
                       var->varattno > 0;
    return isOwn ? var : nullptr;
}

bool isFixed(const ScannedRelation &scanned, Node *expression)
{
    return !bms_is_member(static_cast<int>(scanned.relation->relid),
                          server::pullVarnos(scanned.root, expression)) &&
           !contain_volatile_functions(expression) && !contain_subplans(expression);
}

} // namespace qm::extension
