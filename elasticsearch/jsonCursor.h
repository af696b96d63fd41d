// Reading a JSON text that lies in one piece, token by token, by the grammar of RFC 8259. What a caller is
// not interested in can be passed over at the speed of the scan.
#pragma once

#include "elasticsearch/jsonStructure.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zq::elasticsearch
{

// The text breaks the grammar. `position` counts bytes from the beginning of the text.
class JsonError : public std::runtime_error
{
public:
    JsonError(const char *what, std::size_t position) : std::runtime_error(what), position(position) {}
    const std::size_t position;
};

// The text ends where it could go on: with more of it, reading may start again at the last position that was
// good.
struct JsonNeedsMore {
};

// A place in a text. Copies are cheap: whoever must not lose his place reads with a copy. All functions that
// read skip blanks first, and throw JsonError or JsonNeedsMore.
class JsonCursor
{
public:
    // `text` must be what `structure` knows; both must outlive the cursor.
    JsonCursor(std::string_view text, const JsonStructure &structure, std::size_t position)
        : text(text), structure(&structure), at(position)
    {
    }

    std::size_t position() const { return at; }

    // The first byte of the next token.
    char peek();
    // Whether nothing but blanks is left.
    bool isAtEnd();
    // Takes the byte, which must come next.
    void take(char byte);

    // Takes what leads to the next member of an object whose brace was taken: a comma, unless it is the
    // first, the name and the colon. Takes the closing brace and returns false when there is none. The name
    // is that of name().
    bool nextMember(bool isFirst, std::string_view &name);
    // The same for the elements of an array.
    bool nextElement(bool isFirst) { return nextIn(']', isFirst); }

    // The parts of it: what leads to the next member's name, and the name. It is decoded, unless it cannot
    // be, and good until the next one is asked for.
    bool nextName(bool isFirst) { return nextIn('}', isFirst); }
    std::string_view memberName();

    // A string; returns what stands between the quotes, whose escapes are valid but not decoded.
    std::string_view string();
    // A number, true, false or null, as it stands.
    std::string_view scalar();
    // Any value, as it stands. Containers must be well formed all through.
    std::string_view value();
    // An object or array, as it stands. Of what is inside only strings and the balance of the brackets are
    // looked at.
    std::string_view container();

    // For those who know more than the cursor. The text, another place in it, and, from a place on that need
    // not be the cursor's: the first byte of the next token, and the end of the value that begins right
    // there. Of a string only the end is looked for, a container is one of container().
    std::string_view wholeText() const { return text; }
    void goTo(std::size_t position) { at = position; }
    std::size_t tokenFrom(std::size_t position) const;
    std::size_t endOfValue(std::size_t begin) const;

private:
    static bool isBlank(char byte) { return byte == ' ' || byte == '\n' || byte == '\r' || byte == '\t'; }
    std::string_view from(std::size_t begin) const { return {text.data() + begin, at - begin}; }
    void skipBlanks();
    std::size_t endOfScalar(std::size_t begin) const;
    std::size_t endOfContainer(std::size_t begin) const;
    std::size_t endOfNumber(std::size_t begin) const;
    std::size_t endOfDigits(std::size_t begin) const;
    std::size_t endOfWord(std::size_t begin, std::string_view word) const;
    bool nextIn(char closing, bool isFirst);
    bool takeMember(bool isFirst, std::string_view &name);
    std::size_t closingQuote(std::size_t begin) const;
    void checkString(std::size_t begin, std::size_t end);
    void decodeName(std::string_view &name);
    bool closesValue(std::string &open);

    std::string_view text;
    const JsonStructure *structure;
    std::size_t at;
    bool hasEscapes = false; // the last string
    std::string decodedName;
};

// Calls take(name) for each member of the object that comes next; it must read the value. Throws what the
// cursor throws.
template <typename Take>
void forEachMember(JsonCursor &cursor, Take &&take)
{
    cursor.take('{');
    std::string_view name;
    for (bool isFirst = true; cursor.nextMember(isFirst, name); isFirst = false)
        take(name);
}

inline void JsonCursor::skipBlanks()
{
    while (at < text.size() && isBlank(text[at]))
        ++at;
}

inline char JsonCursor::peek()
{
    skipBlanks();
    if (at == text.size())
        throw JsonNeedsMore();
    return text[at];
}

inline void JsonCursor::take(char byte)
{
    if (peek() != byte)
        throw JsonError("unexpected character", at);
    ++at;
}

inline bool JsonCursor::nextIn(char closing, bool isFirst)
{
    if (peek() == closing) {
        ++at;
        return false;
    }
    if (!isFirst)
        take(',');
    return true;
}

inline bool JsonCursor::takeMember(bool isFirst, std::string_view &name)
{
    if (!nextName(isFirst))
        return false;
    name = string();
    take(':');
    return true;
}

inline bool JsonCursor::nextMember(bool isFirst, std::string_view &name)
{
    if (!takeMember(isFirst, name))
        return false;
    if (hasEscapes)
        decodeName(name);
    return true;
}

inline std::string_view JsonCursor::memberName()
{
    std::string_view name = string();
    if (hasEscapes)
        decodeName(name);
    return name;
}

inline std::size_t JsonCursor::closingQuote(std::size_t begin) const
{
    const std::size_t end = structure->nextClosingQuote(begin);
    if (end == JsonStructure::NoPosition)
        throw JsonNeedsMore();
    return end;
}

inline std::string_view JsonCursor::string()
{
    take('"');
    const std::size_t begin = at;
    const std::size_t end = closingQuote(begin);
    checkString(begin, end);
    at = end + 1;
    return {text.data() + begin, end - begin};
}

inline std::string_view JsonCursor::scalar()
{
    const std::size_t begin = tokenFrom(at);
    at = endOfScalar(begin);
    return from(begin);
}

inline std::string_view JsonCursor::container()
{
    const std::size_t begin = tokenFrom(at);
    at = endOfContainer(begin);
    return from(begin);
}

inline std::size_t JsonCursor::tokenFrom(std::size_t position) const
{
    while (position < text.size() && isBlank(text[position]))
        ++position;
    if (position == text.size())
        throw JsonNeedsMore();
    return position;
}

inline std::size_t JsonCursor::endOfValue(std::size_t begin) const
{
    const char first = text[begin];
    if (first == '"')
        return closingQuote(begin + 1) + 1;
    return first == '{' || first == '[' ? endOfContainer(begin) : endOfScalar(begin);
}

} // namespace zq::elasticsearch
