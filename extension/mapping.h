// What the mapping of an index says of its fields.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qm::extension
{

// How the search knows the values of a field. All texts as column options have them.
struct Searchable {
    std::string type;
    std::string field; // that is indexed; empty: the field itself
    std::string ignoreAbove;
    std::string scalingFactor;
    std::string format; // of dates, as it is mapped

    bool operator==(const Searchable &other) const;
};

// What the column of a field is made of. The order counts: of two whole numbers the later type is wider.
enum class Kind {
    Text,
    Boolean,
    Inet,
    Json,
    SmallInt,
    Integer,
    BigInt,
    Numeric,
    Real,
    Double,
    Instant,      // in ISO 8601
    Day,          // yyyy-MM-dd
    Milliseconds, // since 1970
    Seconds,
    OtherDate // in a format that is not read as a date
};

// A field with values in the source.
struct MappedField {
    std::string path; // with dots between the names of objects, in UTF-8
    std::string type; // as it is mapped
    Kind kind;
    std::optional<Searchable> searchable; // where the search finds what the source says, and nothing else
    std::vector<Searchable> parts;        // its sub-fields, of type keyword, where it does so, too
};

// A field without.
struct ValuelessField {
    std::string path;
    std::string type;
};

struct Mapping {
    std::vector<MappedField> fields;  // in the mapping's order
    std::vector<std::string> parents; // objects whose members are among them
    std::vector<ValuelessField> valueless;
};

// Settings of an index that count where a field of the mapping has none of its own.
struct MappingDefaults {
    bool ignoresMalformed = false;
    std::string ignoreAbove;
};

// Reads what stands at "mappings" of an index; in version 6 that is under the name of a type. Throws
// JsonError and JsonNeedsMore, and FdwError for a mapping that is deeper or has more fields than any.
Mapping readMapping(std::string_view text, const MappingDefaults &defaults);

// More fields than an index ever has: FdwError.
void checkFieldCount(std::size_t count);

} // namespace qm::extension
