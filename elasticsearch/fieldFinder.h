// The values of chosen fields in the sources of documents.
#pragma once

#include "elasticsearch/jsonCursor.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zq::elasticsearch
{

// A value that was found, as it stands: a string with its quotes. Positions are those of the whole text,
// which is bounded by 4 GiB.
struct FoundField {
    std::uint32_t path; // its number
    std::uint32_t begin;
    std::uint32_t length;
};

// Finds fields by their paths as Elasticsearch understands them: `a.b` is in {"a":{"b":1}} and in {"a.b":1},
// of whatever number of names, and {"a":[{"b":1},{"b":2}]} has it twice, however many arrays there are in one
// another. A path finds nothing where another kind of value stands in its way. A path and one that goes on
// from it are both found.
//
// Objects and arrays that a path leads through are held to the grammar; all other values as by
// JsonCursor::passOver. No depth of the text is one of the stack's. Elasticsearch takes no document that has
// a name twice in one object; here, both would be found.
class FieldFinder
{
public:
    // The number of a path is its place among these, which are in UTF-8; one that is there twice is found
    // twice.
    explicit FieldFinder(const std::vector<std::string> &paths = {});

    bool looksForNothing() const { return nodes.front().children.empty(); }

    // Reads the object that comes next and appends what is found in it, in the order of the text. Throws what
    // the cursor throws, with some of it appended, and std::bad_alloc. One finder reads whatever texts: what
    // it remembers of one serves its speed only.
    void read(JsonCursor &cursor, std::vector<FoundField> &found);

private:
    using NodeNumber = std::uint32_t;

    // A name as it stood in a text, with its quotes, and where it leads.
    struct Known {
        std::string token;
        NodeNumber target;
    };

    // A path, or the beginning of one up to one of its dots; the first is the empty beginning.
    struct Node {
        std::string name; // the last one
        std::vector<NodeNumber> children;
        std::vector<std::uint32_t> paths; // those that end here
        std::vector<Known> known;         // names in objects here, in their usual order
    };

    // What was found with a value, among all that was found.
    struct Finds {
        std::size_t place = 0;
        std::size_t count = 0;
    };

    // What is being read: an object, or arrays in one another.
    struct Level {
        NodeNumber node;
        bool isFirst;          // of the members or elements
        std::size_t arrays;    // how many are open; 0: it is an object
        std::size_t following; // place of the known name that is likely to come next
        Finds finds;
    };

    NodeNumber childOf(NodeNumber node, std::string_view name) const;
    NodeNumber add(NodeNumber node, std::string_view name);
    NodeNumber targetOf(NodeNumber node, std::string_view name) const;
    NodeNumber takeName(JsonCursor &cursor, Level &level);
    NodeNumber learnName(JsonCursor &cursor, Level &level);
    void readMembers(JsonCursor &cursor, std::vector<FoundField> &found);
    void readElements(JsonCursor &cursor, std::vector<FoundField> &found);
    bool enters(JsonCursor &cursor, NodeNumber node, std::vector<FoundField> &found);
    static void complete(const JsonCursor &cursor, Finds finds, std::vector<FoundField> &found);

    std::vector<Node> nodes;
    std::vector<Level> open; // no deeper than twice the names of a path
};

} // namespace zq::elasticsearch
