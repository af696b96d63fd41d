// What the planner hands to the scan: nodes in the plan's private list.
#pragma once

#include "extension/conditions.h"

namespace qm::extension
{

// What a scan has to know beside the values of its conditions, which are the plan's fdw_exprs.
struct PlanData {
    List *attributes;    // integers: the attributes that the query uses, as pull_varattnos numbers them
    List *conditions;    // packed ones; their values are the plan's fdw_exprs, in this order
    int64 limit;         // rows that are enough; -1: all are wanted; 0: their number is
    bool limitIsByScore; // they are those of the highest scores
    int64 rowsHint;      // rows that the query is likely to read first; 0: all
    bool isSmall;        // the result is likely to fit into a page
};

// [server side] To and from a list of nodes that can be copied.
List *packPlanData(const PlanData &data);
PlanData unpackPlanData(List *packed);

// [server side] A condition without its values.
List *packCondition(const Condition &condition);
Condition unpackCondition(List *packed);

// [server side] The attributes as a set, as pull_varattnos makes it.
Bitmapset *attributeSetOf(const PlanData &data);

} // namespace qm::extension
