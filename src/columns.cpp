// The six columns of a foreign table.
#include "columns.h"

#include <cstring>

namespace qm::pgFdwElaticSearch
{

using server::callServer;
using server::FdwError;

namespace
{

constexpr struct {
    const char *name;
    Column column;
} ColumnNames[] = {
    {"doccontent", DocContent}, {"score", Score},           {"docname", DocName},
    {"param", ParamColumn},     {"highlights", Highlights}, {"doctype", DocType},
};

const char *const ValueTypes[ColumnCount] = {"text", "bytea", "real", "text", "bytea", "text"};

bool setColumnFlag(const char *columnName, void *flags)
{
    for (const auto &known : ColumnNames) {
        if (std::strcmp(columnName, known.name) == 0) {
            static_cast<char *>(flags)[known.column] = 1;
            return true;
        }
    }
    return false;
}

bool holdsBytes(Oid type)
{
    return type == TEXTOID || type == BYTEAOID || type == VARCHAROID || type == BPCHAROID;
}

bool isContainer(int column) { return column == DocContent || column == Highlights; }

// Rows are filled by position, whatever a column's name, so a column must be able to hold what comes to its
// position: a text in place of a number would be read as a pointer or the other way round.
bool fits(int column, Oid type)
{
    if (column == ParamColumn)
        return true; // NULL, whatever the query asks for
    if (column == Score)
        return type == FLOAT4OID;
    // Steering columns may be text[]: an id or a type is then an array of one element.
    if (type == TEXTARRAYOID)
        return column == DocName || column == DocType;
    return holdsBytes(type) || (type == JSONOID && isContainer(column));
}

search::Container containerOf(Oid type)
{
    if (type == BYTEAOID)
        return search::Container::Bytes;
    return type == JSONOID ? search::Container::Json : search::Container::Text;
}

} // namespace

void parseEsSearchVarNameCallback(const char *columnName, void *flags)
{
    if (setColumnFlag(columnName, flags))
        return;
    callServer([&] {
        ereport(WARNING, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                          errmsg_internal("unhandled column %s", columnName)));
    });
}

void flagReferencedColumns(Node *expression, tupleDesc *descriptor, void *flags)
{
    List *vars = callServer([&] {
        return pull_var_clause(expression,
                               PVC_RECURSE_AGGREGATES | PVC_RECURSE_WINDOWFUNCS | PVC_RECURSE_PLACEHOLDERS);
    });
    ListCell *cell;
    foreach (cell, vars) {
        const AttrNumber number = static_cast<Var *>(lfirst(cell))->varattno;
        if (number == 0)
            std::memset(flags, 1, ColumnCount); // the whole row
        else if (number > 0 && number <= descriptor->natts)
            setColumnFlag(NameStr(TupleDescAttr(descriptor, number - 1)->attname), flags);
    }
}

void readColumnShapes(tupleDesc *descriptor, const bool (&requested)[ColumnCount],
                      ColumnShape (&shapes)[ColumnCount])
{
    const int columns = Min(descriptor->natts, static_cast<int>(ColumnCount));
    for (int column = 0; column < columns; ++column) {
        const Form_pg_attribute attribute = TupleDescAttr(descriptor, column);
        const bool alwaysNull = column != DocName && !requested[column];
        if (alwaysNull || attribute->attisdropped)
            continue;
        int32 modifier = attribute->atttypmod;
        const Oid type = callServer([&] { return getBaseTypeAndTypmod(attribute->atttypid, &modifier); });
        // Nothing makes the values as short as the type says, or checks what a domain demands.
        const bool demandsMore = modifier >= 0 || (type != attribute->atttypid && callServer([&] {
                                                       return DomainHasConstraints(attribute->atttypid);
                                                   }));
        if (demandsMore || !fits(column, type))
            throw FdwError(ERRCODE_FDW_ERROR, std::string("column \"") + NameStr(attribute->attname) +
                                                  "\" at position " + std::to_string(column + 1) +
                                                  " should be of type " + ValueTypes[column]);
        shapes[column] = {type == TEXTARRAYOID, containerOf(type)};
    }
}

} // namespace qm::pgFdwElaticSearch
