// A row of a foreign table, made of a hit.
#pragma once

#include "extension/rowValues.h"
#include "search/hitStream.h"

#include <string>
#include <vector>

namespace qm::extension
{

// Makes rows of the columns that are wanted; all others are NULL. The values of a row live until the next is
// made.
class HitRow
{
public:
    // `parent` must outlive this.
    HitRow(std::vector<Column> columns, MemoryContext parent);

    const std::vector<Column> &columns() const { return wanted; }

    // What `param` shows; NULL when it is not set.
    void setParam(const std::string *text);
    void setCompressionLevel(int level) { packing.compressionLevel = level; }
    // What `score` shows in place of the hits' own scores.
    void setScore(std::string_view number) { fixedScore = number; }

    // Fills the arrays, of one entry for each attribute of the table, with the values of the stream's hit.
    // Throws FdwError and ServerError for what a column cannot show.
    void make(const search::HitStream &hits, int attributes, Datum *values, bool *nulls);

private:
    RawValue rawValue(const search::HitStream &hits, const Column &column);

    const std::vector<Column> wanted;
    const MemoryContext context;
    Packing packing;
    std::string param;
    bool hasParam = false;
    std::string fixedScore;
    std::vector<RawValue> raw;

    // What the raw values refer to.
    std::string id;
    std::string index;
    std::string docType;
};

// The decoded id of a stream's hit.
std::string_view idOf(const search::HitStream &hits, std::string &target);

} // namespace qm::extension
