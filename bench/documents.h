// The documents that the measurements search: made, not stored, and the same on every machine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace veltrane::bench
{

// What a document is like.
enum class DocumentKind {
    Small,  // 300 bytes, mostly text
    Medium, // 2 KB, mostly text
    Large,  // 20 KB, mostly text
    Dense,  // 2 KB of numbers, short strings and nesting
    Fields, // 2 KB in 24 members of many types
};

// The name of a kind in tables and index names: "300B", "2KB", "20KB", "dense", "fields".
const char *nameOf(DocumentKind kind);
// The kind of that name. Throws std::invalid_argument for any other.
DocumentKind kindNamed(const std::string &name);

// The `_id` of the document of that number, in whatever kind: "doc-00000017".
std::string makeId(std::uint64_t number);
// The `_source` object of the document of that number.
std::string makeSource(DocumentKind kind, std::uint64_t number);

// Ten paths of fields that each document of the kind Fields has, in its order.
const std::vector<std::string> &tenFields();

// One response as a search server gives it: the hits `first` to `first + count - 1` of a search that matches
// `total` documents, in the layout and with the members of an Elasticsearch 7 response. `scrollId` may be
// empty.
std::string makeResponse(DocumentKind kind, std::uint64_t first, std::uint64_t count, std::uint64_t total,
                         const std::string &scrollId);

} // namespace veltrane::bench
