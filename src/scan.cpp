// A scan from its begin to its end, and how a hit becomes a row.
#include "fetch.h"
#include "server/memory.h"

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::ConnectorTypes;
using search::Null;
using search::Value;
using server::callServer;
using server::FdwError;

namespace
{

void refill(ElasticSearchConnector *connector)
{
    switch (connector->connectorType) {
    case ConnectorTypes::ElasticSearchStd:
        UpdateConnectorCacheStdMode(connector);
        break;
    case ConnectorTypes::ElasticSearchScroll:
        UpdateConnectorCacheScrollMode(connector);
        break;
    default:
        throw FdwError(ERRCODE_FDW_INVALID_HANDLE, "elasticsearch IterateScan invalid connector type");
    }
}

// [server side] A text or number of its own.
Value plainValue(const ElasticSearchConnector *connector, Column column, Datum datum)
{
    if (connector->shapes[column].isArray)
        datum = PointerGetDatum(construct_array(&datum, 1, TEXTOID, -1, false, 'i'));
    return {datum, false};
}

// [server side]
Value contents(ElasticSearchConnector *connector, Column column, search::Field field)
{
    if (!connector->requestedColumns[column] || !connector->fillColumns[column])
        return Null;
    const int level = connector->paramCompressionLevel >= server::RawLevel ? connector->paramCompressionLevel
                                                                           : connector->compressionLevel;
    return search::contentValue(connector->page->valueOf(field), level, connector->shapes[column].container,
                                connector->deflateStream);
}

// [server side] The value of a column of the current hit.
Value valueOf(ElasticSearchConnector *connector, Column column)
{
    const bool filled = connector->fillColumns[column];
    if (column != DocName && !connector->requestedColumns[column])
        return Null;
    switch (column) {
    case DocName:
        return plainValue(connector, column, connector->page->valueOf(search::DocId));
    case DocContent:
        return contents(connector, column, search::Content);
    case Score:
        return {filled ? connector->page->valueOf(search::HitScore) : Float4GetDatum(0), false};
    case DocType:
        return plainValue(connector, column,
                          filled ? connector->page->valueOf(search::DocumentType)
                                 : PointerGetDatum(cstring_to_text("")));
    case Highlights:
        return contents(connector, column, search::Highlight);
    default:
        return Null;
    }
}

// [server side] Fills the slot with the current hit; columns beyond the six are NULL.
void storeRow(ElasticSearchConnector *connector, TupleTableSlot *slot)
{
    tupleDesc *descriptor = slot->tts_tupleDescriptor;
    for (int column = 0; column < descriptor->natts; ++column) {
        const bool isKnown = column < ColumnCount && !TupleDescAttr(descriptor, column)->attisdropped;
        const Value value = isKnown ? valueOf(connector, static_cast<Column>(column)) : Null;
        slot->tts_values[column] = value.datum;
        slot->tts_isnull[column] = value.isNull;
    }
    ExecStoreVirtualTuple(slot);
}

} // namespace

void BeginScan(ElasticSearchConnector *connector, ForeignScanState *node)
{
    server::MemoryContextScope scope(connector->scanContext);
    bool(&requested)[ColumnCount] = connector->requestedColumns;
    qm::pgFdw::iterateOverRequestedColumns(connector->tableOid, node, parseEsSearchVarNameCallback,
                                           requested);
    tupleDesc *descriptor = RelationGetDescr(node->ss.ss_currentRelation);
    // The conditions that the server checks on each row need their columns too.
    flagReferencedColumns(reinterpret_cast<Node *>(node->ss.ps.plan->qual), descriptor, requested);
    readColumnShapes(descriptor, requested, connector->shapes);

    bool *fill = connector->fillColumns;
    fill[DocName] = true;
    fill[DocContent] = requested[DocContent];
    fill[Score] = requested[Score] && connector->searchMode != SearchByDocName &&
                  connector->connectorType != ConnectorTypes::ElasticSearchScroll;
    fill[DocType] = requested[DocType];
    fill[Highlights] = requested[Highlights] && connector->highlight;
}

void IterateScan(ElasticSearchConnector *connector, ForeignScanState *, TupleTableSlot *&slot)
{
    if (connector->page->isEmpty())
        refill(connector);
    if (connector->page->isEmpty())
        return;
    ++connector->rowsReturned;

    connector->page->next();
    MemoryContextReset(connector->rowContext);
    server::MemoryContextScope scope(connector->rowContext);
    callServer([&] { storeRow(connector, slot); });
}

void EndScan(ElasticSearchConnector *connector, ForeignScanState *)
{
    if (connector->scrollId)
        DeleteScroll(connector);
    MemoryContextDelete(connector->scanContext);
}

} // namespace qm::pgFdwElaticSearch
