// A scan from its begin to its end, and how a hit becomes a row.
#include "quelmoraPgFdwElasticSearchInternal.h"
#include "quelmoraPgFdwEncoding.h"

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::callServer;
using qm::pgFdw::ConnectorTypes;
using qm::pgFdw::FdwError;

namespace
{

// Rows are filled by position, whatever a column's name, so a column must be able to hold what comes to its
// position: a text in place of a number would be read as a pointer or the other way round.
enum class Fit { No, Yes, AsArrayElement };

bool holdsBytes(Oid type)
{
    return type == TEXTOID || type == BYTEAOID || type == VARCHAROID || type == BPCHAROID;
}

// [server side] Nothing makes the values as short as the type says, or checks what a domain demands.
Fit fitOf(int column, Form_pg_attribute attribute)
{
    int32 modifier = attribute->atttypmod;
    const Oid type = getBaseTypeAndTypmod(attribute->atttypid, &modifier);
    if (modifier >= 0 || (type != attribute->atttypid && DomainHasConstraints(attribute->atttypid)))
        return Fit::No;
    if (column == ParamColumn)
        return Fit::Yes; // NULL, whatever the query asks for
    if (column == Score)
        return type == FLOAT4OID ? Fit::Yes : Fit::No;
    if (holdsBytes(type) || (type == JSONOID && (column == DocContent || column == Highlights)))
        return Fit::Yes;
    // Steering columns may be text[]: an id or a type is then an array of one element.
    if (type == TEXTARRAYOID && (column == DocName || column == DocType))
        return Fit::AsArrayElement;
    return Fit::No;
}

const char *const ValueTypes[ColumnCount] = {"text", "bytea", "real", "text", "bytea", "text"};

void checkColumns(ElasticSearchConnector *connector, tupleDesc *descriptor)
{
    const int columns = Min(descriptor->natts, static_cast<int>(ColumnCount));
    for (int column = 0; column < columns; ++column) {
        const Form_pg_attribute attribute = TupleDescAttr(descriptor, column);
        const bool alwaysNull = column != DocName && !connector->requestedColumns[column];
        if (alwaysNull || attribute->attisdropped)
            continue;
        const Fit fit = callServer([&] { return fitOf(column, attribute); });
        if (fit == Fit::No)
            throw FdwError(ERRCODE_FDW_ERROR, std::string("column \"") + NameStr(attribute->attname) +
                                                  "\" at position " + std::to_string(column + 1) +
                                                  " should be of type " + ValueTypes[column]);
        connector->wrapInArray[column] = fit == Fit::AsArrayElement;
        const Oid type = callServer([&] { return getBaseType(attribute->atttypid); });
        connector->holdsText[column] = type != BYTEAOID;
        connector->holdsJson[column] = type == JSONOID;
    }
}

void refill(ElasticSearchConnector *connector)
{
    MemoryContextReset(connector->pageContext);
    connector->resultDocNames = {};
    connector->resultDocContents = {};
    connector->resultScores = {};
    connector->resultDocTypes = {};
    connector->resultHighlights = {};
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

struct Value {
    Datum datum;
    bool isNull;
};

constexpr Value Null = {0, true};

// The compression level that leaves values as they are.
constexpr int RawLevel = -2;

// [server side] A text or number of its own.
Value plainValue(const ElasticSearchConnector *connector, Column column, Datum datum)
{
    if (connector->wrapInArray[column])
        datum = PointerGetDatum(construct_array(&datum, 1, TEXTOID, -1, false, 'i'));
    return {datum, false};
}

// [server side] The compressed form of a fetched text; NULL for an empty one. In a column of a text type only
// what is text may arrive: an uncompressed value in the database's encoding.
Value compressedValue(ElasticSearchConnector *connector, Column column, Datum fetched)
{
    const auto *source = reinterpret_cast<const text *>(DatumGetPointer(fetched));
    const int level = connector->paramCompressionLevel >= RawLevel ? connector->paramCompressionLevel
                                                                   : connector->compressionLevel;
    if (VARSIZE_ANY_EXHDR(source) == 0)
        return Null;
    if (level == RawLevel) { // as it was fetched it is the value already: a text and a bytea look the same
        if (connector->holdsText[column])
            fetched = utf8ToServer(fetched);
        if (connector->holdsJson[column])
            DirectFunctionCall1(json_in, CStringGetDatum(TextDatumGetCString(fetched))); // refuses what is none
        return {fetched, false};
    }
    varlena *compressed = nullptr;
    qm::pgFdw::CompressData(VARDATA_ANY(source), VARSIZE_ANY_EXHDR(source), compressed, level,
                            connector->deflateStream);
    if (connector->holdsText[column] && compressed)
        checkText(compressed);
    return {PointerGetDatum(compressed), compressed == nullptr};
}

// [server side] The value of a column of the next row. Takes the head of every queue that is filled.
Value nextValue(ElasticSearchConnector *connector, Column column)
{
    const bool requested = connector->requestedColumns[column];
    const bool filled = connector->fillColumns[column];
    switch (column) {
    case DocName:
        return plainValue(connector, column, connector->resultDocNames.take());
    case DocContent:
        return requested && filled ? compressedValue(connector, column, connector->resultDocContents.take())
                                   : Null;
    case Score:
        if (!requested)
            return Null;
        return {filled ? connector->resultScores.take() : Float4GetDatum(0), false};
    case DocType:
        if (!requested)
            return Null;
        return plainValue(connector, column,
                          filled ? connector->resultDocTypes.take() : PointerGetDatum(cstring_to_text("")));
    case Highlights:
        return requested && filled ? compressedValue(connector, column, connector->resultHighlights.take())
                                   : Null;
    default:
        return Null;
    }
}

// [server side] Fills the slot with the next row; columns beyond the six are NULL.
void storeRow(ElasticSearchConnector *connector, TupleTableSlot *slot)
{
    tupleDesc *descriptor = slot->tts_tupleDescriptor;
    for (int column = 0; column < ColumnCount; ++column) {
        // Every queue is drained in step, also where the table has no column for its values.
        const Value value = nextValue(connector, static_cast<Column>(column));
        if (column >= descriptor->natts)
            continue;
        const bool dropped = TupleDescAttr(descriptor, column)->attisdropped;
        slot->tts_values[column] = dropped ? 0 : value.datum;
        slot->tts_isnull[column] = dropped || value.isNull;
    }
    for (int column = ColumnCount; column < descriptor->natts; ++column) {
        slot->tts_values[column] = 0;
        slot->tts_isnull[column] = true;
    }
    ExecStoreVirtualTuple(slot);
}

} // namespace

void BeginScan(ElasticSearchConnector *connector, ForeignScanState *node)
{
    qm::pgFdw::MemoryContextScope scope(connector->scanContext);
    bool *requested = connector->requestedColumns;
    qm::pgFdw::iterateOverRequestedColumns(connector->tableOid, node, parseEsSearchVarNameCallback,
                                           requested);
    tupleDesc *descriptor = RelationGetDescr(node->ss.ss_currentRelation);
    // The conditions that the server checks on each row need their columns too.
    flagReferencedColumns(reinterpret_cast<Node *>(node->ss.ps.plan->qual), descriptor, requested);
    checkColumns(connector, descriptor);

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
    if (connector->resultDocNames.isEmpty())
        refill(connector);
    if (connector->resultDocNames.isEmpty())
        return;
    ++connector->rowsReturned;

    MemoryContextReset(connector->rowContext);
    qm::pgFdw::MemoryContextScope scope(connector->rowContext);
    callServer([&] { storeRow(connector, slot); });
}

void EndScan(ElasticSearchConnector *connector, ForeignScanState *)
{
    if (connector->scrollId)
        DeleteScroll(connector);
    MemoryContextDelete(connector->scanContext);
}

} // namespace qm::pgFdwElaticSearch
