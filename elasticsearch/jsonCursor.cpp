// Reading a JSON text that lies in one piece, token by token.
#include "elasticsearch/jsonCursor.h"

#include "elasticsearch/jsonString.h"

#include <cstring>

namespace zq::elasticsearch
{
namespace
{

bool isDigit(char byte) { return byte >= '0' && byte <= '9'; }

bool isHexDigit(char byte)
{
    return isDigit(byte) || (byte >= 'a' && byte <= 'f') || (byte >= 'A' && byte <= 'F');
}

// Whether one of eight bytes is a backslash or a control character.
bool isSpecial(std::uint64_t bytes)
{
    constexpr std::uint64_t Ones = 0x0101010101010101;
    constexpr std::uint64_t HighBits = Ones << 7;
    const std::uint64_t backslashes = bytes ^ Ones * '\\';
    const std::uint64_t isBackslash = (backslashes - Ones) & ~backslashes;
    const std::uint64_t isControl = (bytes - Ones * ' ') & ~bytes;
    return ((isBackslash | isControl) & HighBits) != 0;
}

} // namespace

bool JsonCursor::isAtEnd()
{
    skipBlanks();
    return at == text.size();
}

// Escapes are the known ones, and control characters stand as escapes only.
void JsonCursor::checkString(std::size_t begin, std::size_t end)
{
    constexpr std::string_view Escapes = "\"\\/bfnrt";
    hasEscapes = false;
    std::size_t i = begin;
    while (i < end) {
        std::uint64_t bytes = 0;
        if (end - i >= sizeof bytes) {
            std::memcpy(&bytes, text.data() + i, sizeof bytes);
            if (!isSpecial(bytes)) {
                i += sizeof bytes;
                continue;
            }
        }
        const char byte = text[i++];
        if (static_cast<unsigned char>(byte) < ' ')
            throw JsonError("control character in a string", i - 1);
        if (byte != '\\')
            continue;
        hasEscapes = true;
        const char escaped = text[i++]; // the closing quote is no escaped one, so this is before it
        if (escaped == 'u') {
            for (int digit = 0; digit < 4; ++digit)
                if (!isHexDigit(text[i++])) // the closing quote is none either
                    throw JsonError("escape without four hexadecimal digits", i - 1);
        } else if (Escapes.find(escaped) == std::string_view::npos) {
            throw JsonError("unknown escape", i - 1);
        }
    }
}

// Only what holds escapes differs from how it stands.
void JsonCursor::decodeName(std::string_view &name)
{
    if (decodeJsonText(name, decodedName))
        name = decodedName;
}

std::size_t JsonCursor::endOfDigits(std::size_t begin) const
{
    std::size_t end = begin;
    while (end < text.size() && isDigit(text[end]))
        ++end;
    if (end == text.size())
        throw JsonNeedsMore(); // nothing says that the number ends here
    if (end == begin)
        throw JsonError("digit expected", begin);
    return end;
}

std::size_t JsonCursor::endOfNumber(std::size_t begin) const
{
    const std::size_t whole = begin + (text[begin] == '-' ? 1 : 0);
    std::size_t end = endOfDigits(whole);
    if (text[whole] == '0' && end > whole + 1)
        throw JsonError("number with a leading zero", whole);
    if (text[end] == '.')
        end = endOfDigits(end + 1);
    if (text[end] == 'e' || text[end] == 'E') {
        ++end;
        if (end < text.size() && (text[end] == '+' || text[end] == '-'))
            ++end;
        end = endOfDigits(end);
    }
    return end;
}

std::size_t JsonCursor::endOfWord(std::size_t begin, std::string_view word) const
{
    const std::string_view found = text.substr(begin, word.size());
    if (found != word.substr(0, found.size()))
        throw JsonError("unknown word", begin);
    if (found.size() < word.size())
        throw JsonNeedsMore();
    return begin + word.size();
}

std::size_t JsonCursor::endOfScalar(std::size_t begin) const
{
    switch (const char first = text[begin]) {
    case 't':
        return endOfWord(begin, "true");
    case 'f':
        return endOfWord(begin, "false");
    case 'n':
        return endOfWord(begin, "null");
    default:
        if (first != '-' && !isDigit(first))
            throw JsonError("value expected", begin);
        return endOfNumber(begin);
    }
}

std::string_view JsonCursor::value()
{
    peek();
    const std::size_t begin = at;
    // The brackets that are open: no depth of the text is one of the stack's.
    std::string open;
    do {
        switch (const char first = peek()) {
        case '{':
        case '[':
            ++at;
            open += first;
            break;
        case '"':
            string();
            break;
        default:
            scalar();
            break;
        }
        // What was opened just now may be empty; else its first value is next.
        while (!open.empty() && closesValue(open)) {
        }
    } while (!open.empty());
    return from(begin);
}

// Goes on to the next value of the innermost open container and returns false, or takes its end and returns
// true.
bool JsonCursor::closesValue(std::string &open)
{
    const char before = text[at - 1];
    const bool isFirst = before == open.back();
    std::string_view name;
    const bool goesOn = open.back() == '{' ? takeMember(isFirst, name) : nextElement(isFirst);
    if (!goesOn)
        open.pop_back();
    return !goesOn;
}

std::size_t JsonCursor::endOfContainer(std::size_t begin) const
{
    if (text[begin] != '{' && text[begin] != '[')
        throw JsonError("object or array expected", begin);
    std::size_t last = begin;
    std::ptrdiff_t objects = 0;
    std::ptrdiff_t arrays = 0;
    const bool isClosed = structure->findBracket(begin, [&](std::size_t position) {
        const char bracket = text[position];
        // Sums instead of branches: which bracket comes next is nothing a processor could foresee.
        objects += (bracket == '{') - (bracket == '}');
        arrays += (bracket == '[') - (bracket == ']');
        last = position;
        return objects + arrays == 0;
    });
    if (!isClosed)
        throw JsonNeedsMore();
    if (objects != 0)
        throw JsonError("brackets that do not match", last);
    return last + 1;
}

} // namespace zq::elasticsearch
