// The values of a field, as they stand in a source, on their way to the value of a column.
#pragma once

#include "extension/columns.h"
#include "search/values.h"

#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace qm::extension
{

// One value, read as what its column takes.
struct ScalarValue {
    bool isNull = false;
    std::string_view text;   // of texts and numbers that the server reads, and of JSON
    std::int64_t number = 0; // whole numbers; 0 or 1; microseconds since 1970
};

// What a hit brings for a column that shows a field.
struct FieldValues {
    std::vector<ScalarValue> values;
    bool isMissing = true;         // the document has no such field, or null in its place
    const char *problem = nullptr; // why the values do not fit the column; null when they do
};

// Reads the values of fields. What the texts refer to lives until the next hit.
class FieldReader
{
public:
    // What was read for the hit before is gone.
    void clear() { used = 0; }

    // Reads the values (each as it stands in the source) that were found for a column. Throws std::bad_alloc.
    void read(const Column &column, const std::vector<std::string_view> &found, FieldValues &target);

private:
    void add(const Column &column, std::string_view json, FieldValues &target);
    void addScalar(const Column &column, std::string_view json, FieldValues &target);
    std::string &newText();

    std::deque<std::string> texts; // of which the first `used` are in use; a deque leaves them in place
    std::size_t used = 0;
};

// [server side] The value of a column, in the current memory context. Raises the errors of the type's own
// input, and of a domain that it is an array of.
search::Value makeFieldValue(FieldType &type, const FieldValues &read);

} // namespace qm::extension
