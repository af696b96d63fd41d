// Checks of how the columns of a foreign table are declared.
#include "server/errorBoundary.h"

#include "functions/checkColumns.h"
#include "functions/checkOptions.h"

namespace qm::functions
{

using server::callServer;

namespace
{

// A copy, which lives as long as the call of the function.
tupleDesc *descriptorOf(Oid relation)
{
    return callServer([&] {
        const Relation open = relation_open(relation, NoLock);
        const TupleDesc copy = CreateTupleDescCopy(RelationGetDescr(open));
        relation_close(open, NoLock);
        return copy;
    });
}

Soundness checkColumn(Report &report, tupleDesc *descriptor, Form_pg_attribute attribute, Columns &columns)
{
    const std::string what = nameOf(NameStr(attribute->attname));
    List *options =
        callServer([&] { return GetForeignColumnOptions(attribute->attrelid, attribute->attnum); });
    const Soundness sound = reportFaults(report, what, options, AttributeRelationId);
    if (sound == Soundness::Unusable)
        return sound;
    const Bitmapset *itself = callServer(
        [&] { return bms_make_singleton(attribute->attnum - FirstLowInvalidHeapAttributeNumber); });
    if (!report.survives(what,
                         [&] { columns.push_back(extension::readColumns(descriptor, itself).front()); }))
        return Soundness::Unusable;
    return sound;
}

} // namespace

std::string nameOf(const char *column) { return std::string("column \"") + column + "\""; }

Columns checkColumns(Report &report, Oid relation)
{
    Columns columns;
    tupleDesc *const descriptor = descriptorOf(relation);
    Soundness worst = Soundness::Sound;
    for (int i = 0; i < descriptor->natts; ++i) {
        const Form_pg_attribute attribute = TupleDescAttr(descriptor, i);
        if (!attribute->attisdropped)
            worst = std::max(worst, checkColumn(report, descriptor, attribute, columns));
    }
    if (worst == Soundness::Sound)
        report.fine("columns", "The declarations of " + std::to_string(columns.size()) + " can be used.");
    return columns;
}

} // namespace qm::functions
