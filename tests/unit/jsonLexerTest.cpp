// The lexer that skips plain bytes against the one that takes every byte, and the byte search below it.
#include "jsonByteScan.h"
#include "jsonParseCtx.h"
#include "randomAnswers.h"
#include "referenceLexer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using zq::elasticsearch::JsonParseCtx;
namespace byteScan = zq::elasticsearch::byteScan;

namespace
{

/// Describes what happened at one byte; empty when nothing did.
template <class Lexer>
std::string eventAt(std::size_t position, const Lexer &lexer, std::string_view string, std::string_view value)
{
    std::string event;
    if (lexer.stringClosed) {
        event += " string " + std::string(string);
    }
    if (lexer.valueClosed) {
        event += " value " + std::string(value);
    }
    if (lexer.arrayDepth != lexer.prevArrayDepth || lexer.objectDepth != lexer.prevObjectDepth) {
        event += " depths " + std::to_string(lexer.arrayDepth) + " " + std::to_string(lexer.objectDepth);
    }
    return event.empty() ? event : std::to_string(position) + event;
}

void addIfAny(std::string event, std::vector<std::string> &events)
{
    if (!event.empty()) {
        events.push_back(std::move(event));
    }
}

std::vector<std::string> eventsOfReference(const std::string &text)
{
    ReferenceLexer lexer;
    std::vector<std::string> events;
    for (std::size_t i = 0; i < text.size(); ++i) {
        lexer.step(text[i]);
        addIfAny(eventAt(i, lexer, lexer.stringText, lexer.valueText), events);
    }
    return events;
}

std::vector<std::string> eventsOfLexer(const std::string &text, std::size_t chunkSize)
{
    JsonParseCtx lexer(true);
    std::vector<std::string> events;
    for (std::size_t begin = 0; begin < text.size(); begin += chunkSize) {
        const std::string chunk = text.substr(begin, chunkSize);
        const char *const end = chunk.data() + chunk.size();
        lexer.beginChunk(chunk.data());
        for (const char *at = chunk.data(); (at = lexer.skipPlain(at, end)) != end; ++at) {
            lexer.step(at);
            const std::size_t position = begin + static_cast<std::size_t>(at - chunk.data());
            addIfAny(eventAt(position, lexer, lexer.stringClosed ? lexer.stringText.whole() : "",
                             lexer.valueClosed ? lexer.valueText.whole() : ""),
                     events);
        }
        lexer.endChunk(end);
    }
    return events;
}

TEST(JsonLexer, SeesTheSameEventsAsTheReference)
{
    for (unsigned seed = 100001; seed <= 110000; ++seed) {
        std::mt19937 random(seed);
        const std::string text = randomAnswer(random);
        const auto expected = eventsOfReference(text);
        for (const std::size_t chunkSize :
             {std::size_t{1}, std::size_t{2}, std::size_t{5}, text.size() + 1}) {
            ASSERT_EQ(eventsOfLexer(text, chunkSize), expected)
                << "seed " << seed << ", chunks of " << chunkSize << ", text:\n"
                << text;
        }
    }
}

template <byteScan::ByteSet set>
void expectFinds(const std::string &wanted)
{
    for (int byte = 0; byte < 256; ++byte) {
        for (std::size_t position = 0; position < 40; ++position) {
            std::string text(40, 'x');
            text[position] = static_cast<char>(byte);
            const char *const end = text.data() + text.size();
            const bool isWanted = wanted.find(static_cast<char>(byte)) != std::string::npos;
            const char *const expected = isWanted ? text.data() + position : end;
            ASSERT_EQ(byteScan::find<set>(text.data(), end), expected) << byte << " at " << position;
            ASSERT_EQ(byteScan::findPortably<set>(text.data(), end), expected) << byte << " at " << position;
        }
    }
}

TEST(JsonByteScan, FindsExactlyTheBytesOfTheSetEverywhere)
{
    expectFinds<byteScan::ByteSet::StringEnds>("\"\\");
    expectFinds<byteScan::ByteSet::Brackets>("\"\\[]{}");
    expectFinds<byteScan::ByteSet::Members>("\"\\[]{}:,");
}

} // namespace
