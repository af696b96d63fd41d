// The lexer that skips plain bytes against the one that takes every byte, with each scanner below it.
#include "elasticsearch/jsonBlockScan.h"
#include "elasticsearch/jsonParseCtx.h"
#include "randomAnswers.h"
#include "referenceLexer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace zq::elasticsearch;

namespace
{

class JsonLexer : public testing::TestWithParam<BlockScanner>
{
protected:
    JsonLexer() { useBlockScanner(GetParam()); }
    ~JsonLexer() override { useBlockScanner(blockScanners().front()); }
};

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
        lexer.beginChunk(chunk.data());
        for (std::size_t piece = 0; piece < chunk.size(); piece += JsonParseCtx::pieceBytes) {
            const std::size_t length = std::min(chunk.size() - piece, JsonParseCtx::pieceBytes);
            JsonParseCtx::PieceMasks masks;
            lexer.scan(chunk.data() + piece, length, masks);
            for (std::size_t i = 0; i < length; ++i) {
                const BlockMasks &block = masks[i / blockBytes];
                const auto found = block.opening | block.closing | block.brackets | block.separators;
                if ((found >> i % blockBytes & 1) == 0) {
                    continue;
                }
                const char *const at = chunk.data() + piece + i;
                lexer.step(at);
                addIfAny(eventAt(begin + piece + i, lexer, lexer.stringClosed ? lexer.stringText.whole() : "",
                                 lexer.valueClosed ? lexer.valueText.whole() : ""),
                         events);
            }
        }
        lexer.endChunk(chunk.data() + chunk.size());
    }
    return events;
}

TEST_P(JsonLexer, SeesTheSameEventsAsTheReference)
{
    for (unsigned seed = 100001; seed <= 105000; ++seed) {
        std::mt19937 random(seed);
        const std::string text = randomAnswer(random);
        const auto expected = eventsOfReference(text);
        for (const std::size_t chunkSize :
             {std::size_t{1}, std::size_t{2}, std::size_t{5}, std::size_t{67}, text.size() + 1}) {
            ASSERT_EQ(eventsOfLexer(text, chunkSize), expected)
                << "seed " << seed << ", chunks of " << chunkSize << ", text:\n"
                << text;
        }
    }
}

// Runs of backslashes of every length at every place in and across two blocks, each before a quote.
TEST_P(JsonLexer, CountsBackslashesAcrossBlocks)
{
    for (std::size_t start = 0; start < 2 * blockBytes; ++start) {
        for (std::size_t run = 0; run <= blockBytes + 3; ++run) {
            const std::string text =
                std::string(start, 'x') + '"' + std::string(run, '\\') + R"(","a":"\\",[{"b":1}])";
            const auto expected = eventsOfReference(text);
            for (const std::size_t chunkSize : {std::size_t{61}, text.size()}) {
                ASSERT_EQ(eventsOfLexer(text, chunkSize), expected) << start << " " << run;
            }
        }
    }
}

} // namespace

namespace zq::elasticsearch
{
void PrintTo(const BlockScanner &scanner, std::ostream *out) { *out << scanner.name; }
} // namespace zq::elasticsearch

namespace
{

std::string nameOf(const testing::TestParamInfo<BlockScanner> &info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Scanners, JsonLexer, testing::ValuesIn(blockScanners()), nameOf);

} // namespace
