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

    // Values of fields that do not fit their columns are NULL, not an error.
    void setNullsBadValues(bool isSet) { nullsBadValues = isSet; }
    const std::vector<Column> &columns() const { return wanted; }

    // What `param` shows; NULL when it is not set.
    void setParam(const std::string *text);
    void setCompressionLevel(int level) { packing.compressionLevel = level; }
    // The milliseconds that compressing has taken.
    double deflatedMs() const { return packing.deflatedMs; }
    // What `score` shows in place of the hits' own scores.
    void setScore(std::string_view number) { fixedScore = number; }

    // Fills the arrays, of one entry for each attribute of the table, with the values of the stream's hit.
    // Throws FdwError and ServerError for what a column cannot show.
    void make(const search::HitStream &hits, int attributes, Datum *values, bool *nulls);

private:
    void readMember(const search::HitStream &hits, const Column &column, RawValue &target);
    void readFields(const search::HitStream &hits);
    void makeValues(const search::HitStream &hits, Datum *values, bool *nulls);
    void dropBadValue(const search::HitStream &hits, std::size_t place, const std::string &reason);

    std::vector<Column> wanted;
    std::vector<std::size_t> fieldColumns; // the places among them of those that show a field
    const MemoryContext context;
    bool nullsBadValues = false;
    Packing packing;
    std::string param;
    bool hasParam = false;
    std::string fixedScore;
    std::vector<RawValue> raw;                        // one for each column
    std::vector<std::vector<std::string_view>> found; // the values of each field as they stand

    // What the raw values refer to.
    FieldReader fields;
    std::string id;
    std::string index;
    std::string docType;
};

// The decoded id of a stream's hit, and the name of its index.
std::string_view idOf(const search::HitStream &hits, std::string &target);
std::string_view indexOf(const search::HitStream &hits, std::string &target);

} // namespace qm::extension
