// The values of chosen fields in the sources of documents.
#include "elasticsearch/fieldFinder.h"

#include <algorithm>
#include <cstring>

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

FieldFinder::Known::Known(std::string_view bytes, NodeNumber target) : token(bytes), leadsTo(target)
{
    char first[sizeof head] = {};
    char counting[sizeof head] = {};
    const std::size_t counted = std::min(sizeof first, token.size());
    std::memcpy(first, token.data(), counted);
    std::memset(counting, 0xFF, counted);
    head = headOf(first);
    mask = headOf(counting);
}

inline FieldFinder::Known::Head FieldFinder::Known::headOf(const char *bytes)
{
    Head head;
    std::memcpy(head.data(), bytes, sizeof head);
    return head;
}

// Nearly every name differs in the first bytes or is no longer than these.
inline bool FieldFinder::Known::isAt(std::string_view text, std::size_t position) const
{
    if (position + sizeof head > text.size())
        return false;
    const Head there = headOf(text.data() + position);
    if ((((there[0] ^ head[0]) & mask[0]) | ((there[1] ^ head[1]) & mask[1])) != 0)
        return false;
    return token.size() <= sizeof head || text.compare(position, token.size(), token) == 0;
}

void FieldFinder::read(JsonCursor &cursor, std::vector<FoundField> &found)
{
    open.clear();
    cursor.take('{');
    open.push_back({0, true, 0});
    while (!open.empty())
        if (open.back().arrays == 0)
            readMembers(cursor, found);
        else
            readElements(cursor, found);
}

// Reads members up to one whose value is entered, or the end. Documents of one index mostly have the same
// ones in the same order, and what was taken for good once needs no second look.
void FieldFinder::readMembers(JsonCursor &cursor, std::vector<FoundField> &found)
{
    Level &level = open.back();
    const std::vector<Known> &known = nodes[level.node].known;
    const std::string_view text = cursor.wholeText();
    std::size_t at = cursor.position();
    std::size_t following = level.following;
    for (std::size_t commas = level.isFirst ? 0 : 1;; commas = 1) {
        NodeNumber target;
        if (following < known.size() && known[following].isAt(text, at + commas) &&
            (commas == 0 || text[at] == ',')) {
            at += commas + known[following].size();
            target = known[following++].target();
        } else {
            cursor.goTo(at);
            if (!cursor.nextName(commas == 0)) {
                leave(cursor, found);
                return;
            }
            target = takeName(cursor, level.node, following);
            at = cursor.position();
        }
        at = cursor.tokenFrom(at);
        if (target != Nowhere && leadsOn(target, text[at])) {
            level.isFirst = false;
            level.following = following;
            cursor.goTo(at + 1);
            enter(target, text[at], at, found);
            return;
        }
        const std::size_t begin = at;
        at = cursor.endOfValue(begin);
        if (target != Nowhere)
            note(nodes[target], begin, at, found);
    }
}

// Whether a path goes on in a value that begins so.
inline bool FieldFinder::leadsOn(NodeNumber node, char first) const
{
    return (first == '{' || first == '[') && !nodes[node].children.empty();
}

void FieldFinder::enter(NodeNumber node, char first, std::size_t begin, std::vector<FoundField> &found)
{
    open.push_back({node, true, first == '[', 0, {found.size(), nodes[node].paths.size()}});
    note(nodes[node], begin, begin, found); // the end is not known yet
}

inline void FieldFinder::note(const Node &node, std::size_t begin, std::size_t end,
                              std::vector<FoundField> &found)
{
    for (const std::uint32_t path : node.paths)
        found.push_back({path, static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(end - begin)});
}

// Takes what stands before a member's value, and puts the place of what is likely to come next into
// `following`.
FieldFinder::NodeNumber FieldFinder::takeName(JsonCursor &cursor, NodeNumber node, std::size_t &following)
{
    const std::vector<Known> &known = nodes[node].known;
    for (std::size_t i = 0; i < known.size(); ++i) {
        following = following < known.size() ? following : 0;
        const Known &likely = known[following++];
        if (likely.isAt(cursor.wholeText(), cursor.position())) {
            cursor.goTo(cursor.position() + likely.size());
            return likely.target();
        }
    }
    return learnName(cursor, node, following);
}

FieldFinder::NodeNumber FieldFinder::learnName(JsonCursor &cursor, NodeNumber node, std::size_t &following)
{
    const std::size_t begin = cursor.position();
    const NodeNumber target = targetOf(node, cursor.memberName());
    cursor.take(':');
    cursor.peek();
    const std::string_view token = cursor.wholeText().substr(begin, cursor.position() - begin);
    if (token.size() > MostKnownBytes)
        return target;
    std::vector<Known> &known = nodes[node].known;
    if (known.size() < MostKnown)
        known.emplace(known.begin() + static_cast<std::ptrdiff_t>(following), token, target);
    else
        known[following % MostKnown] = Known(token, target);
    ++following;
    return target;
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
        const std::size_t begin = cursor.tokenFrom(cursor.position());
        const char first = cursor.wholeText()[begin];
        const bool isOpened = first == '{' || first == '[';
        cursor.goTo(isOpened ? begin + 1 : cursor.endOfValue(begin));
        level.isFirst = first == '[';
        level.arrays += first == '[';
        if (first == '{') {
            open.push_back({level.node, true, 0});
            return;
        }
    }
    leave(cursor, found);
}

// The innermost value came to its end.
void FieldFinder::leave(const JsonCursor &cursor, std::vector<FoundField> &found)
{
    const Finds finds = open.back().finds;
    for (std::size_t place = finds.place; place < finds.place + finds.count; ++place)
        found[place].length = static_cast<std::uint32_t>(cursor.position()) - found[place].begin;
    open.pop_back();
}

} // namespace zq::elasticsearch
