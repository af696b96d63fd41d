// However an answer is cut into chunks, the search reader must show the same as the reference reader after
// each chunk, and in the end the same as for the uncut answer.
#include "handMadeAnswers.h"
#include "elasticsearch/jsonBlockScan.h"
#include "randomAnswers.h"
#include "recordings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>

namespace
{

using namespace zq::elasticsearch;

constexpr std::size_t smallAnswer = 20000;

/// Tries ways of cutting one text, and keeps what went wrong first.
class Cutter
{
public:
    explicit Cutter(const std::string &text_) : text(text_)
    {
        FastReader reader;
        reader.addData(text.data(), text.size());
        uncut = outcomeOf(reader);
    }

    void inTwo(std::size_t at)
    {
        check("cut at " + std::to_string(at), [&](ReaderPair &pair) {
            const std::string_view view = text;
            pair.feed(view.substr(0, at)) && pair.feed(view.substr(at));
        });
    }

    void inChunksOf(std::size_t size)
    {
        check("chunks of " + std::to_string(size), [&](ReaderPair &pair) { pair.feedAll(text, size); });
    }

    void atRandom(unsigned longest, std::mt19937 &random)
    {
        check("random chunks", [&](ReaderPair &pair) {
            std::string_view rest = text;
            while (!rest.empty()) {
                const std::size_t size = std::min<std::size_t>(rest.size(), 1 + below(longest, random));
                pair.feed(rest.substr(0, size));
                rest.remove_prefix(size);
            }
        });
    }

    const std::string &failure() const { return firstFailure; }

private:
    void check(const std::string &way, const std::function<void(ReaderPair &)> &feed)
    {
        if (!firstFailure.empty()) {
            return;
        }
        ReaderPair pair;
        feed(pair);
        std::string difference = pair.disagreement();
        if (difference.empty()) {
            difference = pair.outcome().differenceFrom(uncut);
        }
        if (!difference.empty()) {
            firstFailure = way + ": " + difference;
        }
    }

    const std::string &text;
    Outcome uncut;
    std::string firstFailure;
};

/// Every `stride`-th cut in two, and chunks of many sizes.
std::string failureOf(const std::string &text, std::size_t stride)
{
    std::mt19937 random(static_cast<unsigned>(text.size()));
    Cutter cutter(text);
    for (std::size_t at = 0; at <= text.size(); at += stride) {
        cutter.inTwo(at);
    }
    for (const std::size_t size : {1, 3, 7, 64, 16384}) {
        cutter.inChunksOf(size);
    }
    cutter.atRandom(20, random);
    cutter.atRandom(2000, random);
    return cutter.failure();
}

/// Cutting moves the blocks that the scanners take, so that each meets every byte at every place.
TEST(SearchReaderSplit, HandMadeAnswersAtEveryByte)
{
    for (const BlockScanner &scanner : blockScanners()) {
        useBlockScanner(scanner);
        for (const HandMadeAnswer &answer : handMadeAnswers()) {
            EXPECT_EQ(failureOf(answer.text, 1), "") << answer.name << ", " << scanner.name;
        }
    }
    useBlockScanner(blockScanners().front());
}

TEST(SearchReaderSplit, SmallRecordingsAtEveryByte)
{
    for (const Recording &recording : recordings()) {
        if (recording.text.size() < smallAnswer) {
            EXPECT_EQ(failureOf(recording.text, 1), "") << recording.name;
        }
    }
}

/// To cut these in two at every byte would take time by the square of their length. The chunks of one byte
/// meet every boundary; of the cuts in two only every 251st is tried.
TEST(SearchReaderSplit, LargeRecordingsAtSomeBytes)
{
    for (const Recording &recording : recordings()) {
        if (recording.text.size() >= smallAnswer) {
            EXPECT_EQ(failureOf(recording.text, 251), "") << recording.name;
        }
    }
}

TEST(SearchReaderSplit, RandomTexts)
{
    for (unsigned seed = 1; seed <= 40000; ++seed) {
        std::mt19937 random(seed);
        const std::string text = randomAnswer(random);
        Cutter cutter(text);
        cutter.inTwo(text.size());
        cutter.inTwo(below(static_cast<unsigned>(text.size()) + 1, random));
        cutter.inChunksOf(1);
        cutter.atRandom(20, random);
        ASSERT_EQ(cutter.failure(), "") << "seed " << seed << ", text:\n" << text;
    }
}

} // namespace
