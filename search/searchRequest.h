// What is asked of a search cluster, and the JSON of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qm::search
{

// How much of the source of each hit is wanted.
struct SourceChoice {
    bool isWanted = false;
    std::vector<std::string> includes; // field names or patterns; all when there are none
    std::vector<std::string> excludes;
};

// A search, all texts in UTF-8. What stands here as JSON was checked to be one value of its kind.
struct SearchRequest {
    std::string indices;              // as they stand in the path, percent-encoded
    std::optional<std::string> body;  // JSON members, each with a comma behind it, in place of what follows
    std::string query;                // a JSON object; empty: all documents, each with a score of 1
    std::vector<std::string> filters; // JSON objects, which must hold too and score nothing
    std::string highlight;            // a JSON object; empty: none
    std::string sort;                 // a JSON array; empty: by score
    std::string minScore;             // a JSON number; empty: none
    SourceChoice source;
    std::vector<std::string> fields; // paths of the source whose values are wanted one by one
    bool needsScores = false;
    std::optional<std::vector<std::string>> ids; // the documents of these only
    std::string scrollTimeout;                   // an Elasticsearch time value
};

// The filter of a look-up by ids, of documents whose field is one of the values.
std::string idFilter(const std::vector<std::string> &ids);
std::string termsFilter(std::string_view field, const std::vector<std::string> &values);

// The path of a search in these; that there is none of them is an error, also where they are a pattern.
std::string searchPath(const std::string &indices);

enum class Order { ByScore, AsItComes };

// The body of a search for so many hits, with one more filter (empty: none). In the order as it comes hits
// have no scores. A body that is given has its own of both.
std::string searchBody(const SearchRequest &request, std::string_view filter, std::int64_t size, Order order);

// A text as a JSON string. Throws std::invalid_argument for what is not valid UTF-8.
std::string jsonString(std::string_view utf8);

// A name of an index or a list of them as a part of a path: all but what is harmless there is
// percent-encoded.
std::string pathPart(std::string_view text);

} // namespace qm::search
