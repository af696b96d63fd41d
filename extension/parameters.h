// The parameters of a search: the values of a condition on `param`, each `name=value`.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qm::extension
{

// All texts in UTF-8. JSON is one value of its kind and nothing else.
struct Parameters {
    std::string query;     // a JSON object
    std::string highlight; // a JSON object
    std::string sort;      // a JSON array
    std::string minScore;  // a JSON number
    std::vector<std::string> sourceIncludes;
    std::vector<std::string> sourceExcludes;
    std::optional<int> compressionLevel;
};

// Reads the values, in their order. Throws FdwError for an unknown name, for a second value of a name that
// takes one, and for a value that the name does not take.
Parameters readParameters(const std::vector<std::string> &values);

} // namespace qm::extension
