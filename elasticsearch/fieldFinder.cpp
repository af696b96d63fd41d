// The values of chosen fields in the sources of documents.
#include "elasticsearch/fieldFinder.h"

#include <algorithm>

namespace zq::elasticsearch
{
namespace
{

constexpr std::uint32_t Nowhere = UINT32_MAX;

// How many names of the objects at one place are remembered, and how long ones.
constexpr std::size_t MostKnown = 256, MostKnownBytes = 64;

// Calls take(name) for each name of a path.
template <typename Take>
void forEachName(std::string_view path, Take &&take)
{
    std::size_t dot = path.find('.');
    for (; dot != std::string_view::npos; dot = path.find('.')) {
        take(path.substr(0, dot));
        path.remove_prefix(dot + 1);
    }
    take(path);
}

} // namespace

FieldFinder::FieldFinder(const std::vector<std::string> &paths) : nodes(1)
{
    for (std::size_t number = 0; number < paths.size(); ++number) {
        NodeNumber node = 0;
        forEachName(paths[number], [&](std::string_view name) {
            const NodeNumber child = childOf(node, name);
            node = child == Nowhere ? add(node, name) : child;
        });
        nodes[node].paths.push_back(static_cast<std::uint32_t>(number));
    }
}

FieldFinder::NodeNumber FieldFinder::childOf(NodeNumber node, std::string_view name) const
{
    const std::vector<NodeNumber> &children = nodes[node].children;
    const auto found = std::find_if(children.begin(), children.end(),
                                    [&](NodeNumber child) { return nodes[child].name == name; });
    return found == children.end() ? Nowhere : *found;
}

FieldFinder::NodeNumber FieldFinder::add(NodeNumber node, std::string_view name)
{
    const auto child = static_cast<NodeNumber>(nodes.size());
    nodes.emplace_back().name = name;
    nodes[node].children.push_back(child);
    return child;
}

// Where a member's name leads, which may have dots.
FieldFinder::NodeNumber FieldFinder::targetOf(NodeNumber node, std::string_view name) const
{
    forEachName(name, [&](std::string_view part) { node = node == Nowhere ? Nowhere : childOf(node, part); });
    return node;
}

void FieldFinder::read(JsonCursor &cursor, std::vector<FoundField> &found)
{
    open.clear();
    cursor.take('{');
    open.push_back({0, true, 0, 0, {}});
    while (!open.empty())
        if (open.back().arrays == 0)
            readMembers(cursor, found);
        else
            readElements(cursor, found);
}

// Up to one whose value is entered, or the end.
void FieldFinder::readMembers(JsonCursor &cursor, std::vector<FoundField> &found)
{
    Level &level = open.back();
    while (cursor.nextName(level.isFirst)) {
        level.isFirst = false;
        const NodeNumber target = takeName(cursor, level);
        cursor.take(':');
        if (target == Nowhere)
            cursor.passOver();
        else if (enters(cursor, target, found))
            return;
    }
    complete(cursor, level.finds, found);
    open.pop_back();
}

// The same for arrays in one another.
void FieldFinder::readElements(JsonCursor &cursor, std::vector<FoundField> &found)
{
    Level &level = open.back();
    while (level.arrays > 0) {
        if (!cursor.nextElement(level.isFirst)) {
            --level.arrays;
            level.isFirst = false;
            continue;
        }
        const char first = cursor.peek();
        level.isFirst = first == '[';
        if (first == '{') {
            cursor.take('{');
            open.push_back({level.node, true, 0, 0, {}});
            return;
        }
        if (first == '[') {
            cursor.take('[');
            ++level.arrays;
        } else {
            cursor.passOver();
        }
    }
    complete(cursor, level.finds, found);
    open.pop_back();
}

// Documents of one index mostly have the same members in the same order, so a name is first compared with the
// one that followed last time.
FieldFinder::NodeNumber FieldFinder::takeName(JsonCursor &cursor, Level &level)
{
    const std::vector<Known> &known = nodes[level.node].known;
    for (std::size_t i = 0; i < known.size(); ++i) {
        level.following = level.following < known.size() ? level.following : 0;
        const Known &likely = known[level.following++];
        if (cursor.takeIfNext(likely.token))
            return likely.target;
    }
    return learnName(cursor, level);
}

FieldFinder::NodeNumber FieldFinder::learnName(JsonCursor &cursor, Level &level)
{
    cursor.peek();
    const std::size_t begin = cursor.position();
    const NodeNumber target = targetOf(level.node, cursor.name());
    if (cursor.position() - begin > MostKnownBytes)
        return target;
    Known learnt = {std::string(cursor.from(begin)), target};
    std::vector<Known> &known = nodes[level.node].known;
    if (known.size() < MostKnown)
        known.insert(known.begin() + static_cast<std::ptrdiff_t>(level.following), std::move(learnt));
    else
        known[level.following % MostKnown] = std::move(learnt);
    ++level.following;
    return target;
}

// Takes the value of a member that leads to the node, or, where a path goes on in it, its first bracket and
// returns true.
bool FieldFinder::enters(JsonCursor &cursor, NodeNumber number, std::vector<FoundField> &found)
{
    const Node &node = nodes[number];
    const char first = cursor.peek();
    const Finds finds = {found.size(), node.paths.size()};
    for (const std::uint32_t path : node.paths)
        found.push_back({path, static_cast<std::uint32_t>(cursor.position()), 0});
    if (!node.children.empty() && (first == '{' || first == '[')) {
        cursor.take(first);
        open.push_back({number, true, first == '[', 0, finds});
        return true;
    }
    cursor.passOver();
    complete(cursor, finds, found);
    return false;
}

// The value that was found comes to its end here.
void FieldFinder::complete(const JsonCursor &cursor, Finds finds, std::vector<FoundField> &found)
{
    for (std::size_t place = finds.place; place < finds.place + finds.count; ++place)
        found[place].length = static_cast<std::uint32_t>(cursor.position()) - found[place].begin;
}

} // namespace zq::elasticsearch
