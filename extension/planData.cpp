// What the planner hands to the scan.
#include "extension/planData.h"

namespace qm::extension
{
namespace
{

Const *makeInt64(int64 value)
{
    return makeConst(INT8OID, -1, InvalidOid, sizeof(int64), Int64GetDatum(value), false, FLOAT8PASSBYVAL);
}

int64 int64At(List *list, int place)
{
    return DatumGetInt64(static_cast<Const *>(list_nth(list, place))->constvalue);
}

} // namespace

List *packPlanData(const PlanData &data)
{
    return list_make5(data.attributes, data.conditions, makeInt64(data.limit), makeInt64(data.rowsHint),
                      makeInt64(data.isSmall ? 1 : 0));
}

PlanData unpackPlanData(List *packed)
{
    return {static_cast<List *>(list_nth(packed, 0)), static_cast<List *>(list_nth(packed, 1)),
            int64At(packed, 2), int64At(packed, 3), int64At(packed, 4) != 0};
}

Bitmapset *attributeSetOf(const PlanData &data)
{
    Bitmapset *set = nullptr;
    ListCell *cell;
    foreach (cell, data.attributes)
        set = bms_add_member(set, lfirst_int(cell) - FirstLowInvalidHeapAttributeNumber);
    return set;
}

} // namespace qm::extension
