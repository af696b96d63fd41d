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
    List *numbers = NIL;
    for (const int64 number : {data.limit, int64{data.limitIsByScore}, data.rowsHint, int64{data.isSmall}})
        numbers = lappend(numbers, makeInt64(number));
    return list_make3(data.attributes, data.conditions, numbers);
}

PlanData unpackPlanData(List *packed)
{
    auto *numbers = static_cast<List *>(list_nth(packed, 2));
    return {static_cast<List *>(list_nth(packed, 0)),
            static_cast<List *>(list_nth(packed, 1)),
            int64At(numbers, 0),
            int64At(numbers, 1) != 0,
            int64At(numbers, 2),
            int64At(numbers, 3) != 0};
}

List *packCondition(const Condition &condition)
{
    return list_make3(list_make1_int(static_cast<int>(condition.role)), condition.arrays, condition.tree);
}

Condition unpackCondition(List *packed)
{
    return {static_cast<Role>(linitial_int(static_cast<List *>(linitial(packed)))), NIL,
            static_cast<List *>(lsecond(packed)), static_cast<List *>(lthird(packed))};
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
