// The values of chosen fields in the sources of documents.
#pragma once

#include "elasticsearch/jsonCursor.h"

#include <array>
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
// JsonCursor::endOfValue. No depth of the text is one of the stack's. Elasticsearch takes no document that
// has a name twice in one object; here, both would be found.
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

    // What stood between a comma or the brace of an object and the value of a member: blanks, the name, the
    // colon.
    class Known
    {
    public:
        Known(std::string_view token, NodeNumber target);
        // Whether it stands there; near the end of the text this may be denied.
        bool isAt(std::string_view text, std::size_t position) const;
        std::size_t size() const { return token.size(); }
        NodeNumber target() const { return leadsTo; }

    private:
        using Head = std::array<std::uint64_t, 2>;

        static Head headOf(const char *bytes);

        Head head; // of the token
        Head mask; // which of its bytes count
        std::string token;
        NodeNumber leadsTo;
    };

    // A path, or the beginning of one up to one of its dots; the first is the empty beginning.
    struct Node {
        std::string name; // the last one
        std::vector<NodeNumber> children;
        std::vector<std::uint32_t> paths; // those that end here
        std::vector<Known> known;         // from objects here, in their usual order
    };

    // What was found with a value, among all that was found.
    struct Finds {
        std::size_t place = 0;
        std::size_t count = 0;
    };

    // What is being read: an object, or arrays in one another.
    struct Level {
        NodeNumber node;
        bool isFirst;              // of the members or elements
        std::size_t arrays;        // how many are open; 0: it is an object
        std::size_t following = 0; // place of the known name that is likely to come next
        Finds finds = {};
    };

    NodeNumber childOf(NodeNumber node, std::string_view name) const;
    NodeNumber add(NodeNumber node, std::string_view name);
    NodeNumber targetOf(NodeNumber node, std::string_view name) const;
    void readMembers(JsonCursor &cursor, std::vector<FoundField> &found);
    void readElements(JsonCursor &cursor, std::vector<FoundField> &found);
    bool leadsOn(NodeNumber node, char first) const;
    void enter(NodeNumber node, char first, std::size_t begin, std::vector<FoundField> &found);
    NodeNumber takeName(JsonCursor &cursor, NodeNumber node, std::size_t &following);
    NodeNumber learnName(JsonCursor &cursor, NodeNumber node, std::size_t &following);
    static void note(const Node &node, std::size_t begin, std::size_t end, std::vector<FoundField> &found);
    void leave(const JsonCursor &cursor, std::vector<FoundField> &found);

    std::vector<Node> nodes;
    std::vector<Level> open; // no deeper than twice the names of a path
};

} // namespace zq::elasticsearch
