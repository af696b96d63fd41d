// The columns that a query uses, and compressed bytea values.
#include "quelmoraPgFdwConnectorBase.h"
#include "quelmoraPgZlibMemory.h"

#include <cstring>

namespace qm::pgFdw
{
namespace
{

const char *columnNameOf(const Var *var, tupleDesc *descriptor)
{
    const int index = var->varattno - 1;
    if (index < 0 || index >= descriptor->natts)
        throw FdwError(ERRCODE_FDW_ERROR, "fail to retrieve column name");
    return NameStr(TupleDescAttr(descriptor, index)->attname);
}

void parseVarNames(List *expressions, tupleDesc *descriptor, ColumnNameCallback callback, void *userData)
{
    ListCell *cell;
    foreach (cell, expressions)
        parseVarName(static_cast<Expr *>(lfirst(cell)), descriptor, callback, userData);
}

void closeStream(DeflateStream &stream)
{
    if (!stream.state)
        return;
    deflateEnd(stream.state);
    pfree(stream.state);
    stream.state = nullptr;
}

// [server side] Makes the stream ready for a value of its own; false when zlib cannot.
bool prepareStream(DeflateStream &stream, int level)
{
    if (stream.state && stream.level == level)
        return deflateReset(stream.state) == Z_OK;
    closeStream(stream);
    stream.state = static_cast<z_stream *>(MemoryContextAllocZero(stream.context, sizeof(z_stream)));
    allocateIn(stream.context, *stream.state);
    stream.level = level;
    if (deflateInit(stream.state, level) == Z_OK)
        return true;
    pfree(stream.state);
    stream.state = nullptr;
    return false;
}

} // namespace

void parseVarName(Expr *expression, tupleDesc *descriptor, ColumnNameCallback callback, void *userData)
{
    if (!expression)
        return;
    const auto parse = [&](Expr *part) { parseVarName(part, descriptor, callback, userData); };
    const auto parseAll = [&](List *parts) { parseVarNames(parts, descriptor, callback, userData); };

    switch (nodeTag(expression)) {
    case T_Var:
        callback(columnNameOf(reinterpret_cast<Var *>(expression), descriptor), userData);
        break;
    case T_FuncExpr:
        parseAll(reinterpret_cast<FuncExpr *>(expression)->args);
        break;
    case T_OpExpr:
        parseAll(reinterpret_cast<OpExpr *>(expression)->args);
        break;
    case T_ScalarArrayOpExpr:
        parseAll(reinterpret_cast<ScalarArrayOpExpr *>(expression)->args);
        break;
    case T_CoerceViaIO:
        parse(reinterpret_cast<CoerceViaIO *>(expression)->arg);
        break;
    case T_CaseExpr: {
        auto *caseExpr = reinterpret_cast<CaseExpr *>(expression);
        parse(caseExpr->defresult);
        parse(caseExpr->arg);
        parseAll(caseExpr->args);
        break;
    }
    case T_CaseWhen:
        parse(reinterpret_cast<CaseWhen *>(expression)->expr);
        parse(reinterpret_cast<CaseWhen *>(expression)->result);
        break;
    default:
        break;
    }
}

void iterateOverRequestedColumns(unsigned int relationId, ForeignScanState *node, ColumnNameCallback callback,
                                 void *userData)
{
    withTupleDesc(relationId, [&](tupleDesc *descriptor) {
        iterateOverPlan(relationId, callback, userData, node->ss.ps.state->es_plannedstmt->planTree,
                        descriptor);
    });
}

void CompressData(const char *data, unsigned int length, varlena *&out, int level)
{
    DeflateStream stream{CurrentMemoryContext, nullptr, 0};
    CompressData(data, length, out, level, stream);
    closeStream(stream);
}

void CompressData(const char *data, unsigned int length, varlena *&out, int level, DeflateStream &stream)
{
    if (length == 0) {
        allocateBytea(0, out);
        return;
    }
    out = nullptr;
    if (level < -1 || level > 9) {
        allocateBytea(length, out);
        std::memcpy(VARDATA(out), data, length);
        return;
    }

    // The slack keeps deflate, even of incompressible data, far from the end of the buffer.
    const unsigned int workSize = length + 5 * (length / 16384) + 15;
    auto *work = static_cast<char *>(palloc(workSize));
    if (!work)
        return;
    std::memcpy(work, &length, sizeof(uint32));

    if (prepareStream(stream, level)) {
        z_stream &zlib = *stream.state;
        zlib.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data));
        zlib.avail_in = length;
        zlib.next_out = reinterpret_cast<Bytef *>(work + sizeof(uint32));
        zlib.avail_out = workSize;
        if (deflate(&zlib, Z_FINISH) == Z_STREAM_END) {
            const unsigned int compressed = workSize - zlib.avail_out;
            allocateBytea(compressed + sizeof(uint32), out);
            std::memcpy(VARDATA(out), work, compressed + sizeof(uint32));
        }
    }
    pfree(work);
}

} // namespace qm::pgFdw

void iterateOverPlan(unsigned int relationId, qm::pgFdw::ColumnNameCallback callback, void *userData,
                     Plan *plan, tupleDesc *const &descriptor)
{
    for (; plan; plan = plan->righttree) {
        ListCell *cell;
        foreach (cell, plan->targetlist) {
            auto *entry = static_cast<TargetEntry *>(lfirst(cell));
            if (!IsA(entry, TargetEntry) || entry->resorigtbl != relationId)
                continue;
            // A whole-row reference has origin column 0: it names no column.
            const int index = entry->resorigcol - 1;
            if (index >= 0 && index < descriptor->natts)
                callback(NameStr(TupleDescAttr(descriptor, index)->attname), userData);
        }
        if (plan->lefttree)
            iterateOverPlan(relationId, callback, userData, plan->lefttree, descriptor);
    }
}
