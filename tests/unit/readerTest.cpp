// The readers against the reference readers, which take every byte by itself, and against what was worked out
// by hand or counted by other programs.
#include "responses.h"
#include "comparison.h"

#include <gtest/gtest.h>

#include <map>

namespace
{

// The address sanitizer makes all of it slow: with it recordings are cut at every fifth byte, which still
// meets every place in a block, and there are fewer random texts.
#ifdef __SANITIZE_ADDRESS__
constexpr unsigned Thinning = 5;
#else
constexpr unsigned Thinning = 1;
#endif

// Where the readers differ in a text that is cut in each of these ways.
template <class Kind>
std::string differenceInAll(std::string_view text, const std::vector<std::vector<std::size_t>> &ways)
{
    std::string difference;
    for (const std::vector<std::size_t> &sizes : ways)
        difference += differenceIn<Kind>(cut(text, sizes));
    return difference;
}

template <class Kind>
void expectWhatWasWorkedOut()
{
    const std::vector<Response> responses = handMade(Kind::Fast::handMade);
    for (const Response &response : responses) {
        typename Kind::Fast reader;
        feed(reader, response.text);
        EXPECT_EQ(response.expected.empty() ? "" : reader.events + reader.state(), response.expected)
            << response.name;
    }
    EXPECT_GT(responses.size(), 20U);
}

TEST(SearchReader, ReadsHandMadeResponses) { expectWhatWasWorkedOut<Search>(); }
TEST(TermAggReader, ReadsHandMadeResponses) { expectWhatWasWorkedOut<TermAgg<true>>(); }

// Refused are errors, and an id that is not allowed.
TEST(SearchReader, ReadsRecordedResponses)
{
    std::map<std::string, std::string> recorded;
    for (const Response &response : recordings())
        recorded[response.name] = response.text;
    for (const Response &counted : handMade("recorded.txt")) {
        Search::Fast reader;
        feed(reader, recorded[counted.name]);
        const std::string shown = std::to_string(reader.events.size()) + " bytes of hits, " + reader.state();
        EXPECT_EQ(reader.finish(nullptr) ? shown.substr(0, counted.expected.size()) : "refused",
                  counted.expected)
            << counted.name;
    }
}

// To cut the large ones in two at every byte would take time by the square of their length.
TEST(SearchReader, SeesTheSameWhereverARecordedResponseIsCut)
{
    for (const Response &response : recordings()) {
        const std::size_t stride = response.text.size() < 20000 ? Thinning : 251;
        EXPECT_EQ(differenceWhenCut<Search>(response.text, stride), "") << response.name;
        EXPECT_EQ(differenceInAll<Search>(response.text, {{1, 60}, {7, 64, 0}, {16384}}), "")
            << response.name;
    }
}

TEST(SearchReader, HoldsStringsThatItNeedsAndTellsHowMuch)
{
    Search::Fast wanted, unwanted;
    feed(wanted, R"({"_scroll_id":")");
    feed(unwanted, R"({"hits":{"hits":[{"_id":"a","_source":{"b":1},"c":")");
    for (int i = 0; i < 1000; ++i) {
        feed(wanted, "a long string");
        feed(unwanted, "a long string");
    }
    EXPECT_GE(wanted.pendingBytes(), 13000U);
    EXPECT_LE(unwanted.pendingBytes(), 20U);
}

template <class Kind>
class Reader : public testing::Test
{
};

using Kinds = testing::Types<Search, TermAgg<true>, TermAgg<false>>;
TYPED_TEST_SUITE(Reader, Kinds);

// Cutting moves the blocks that the scanners take, so that each meets every byte at every place.
TYPED_TEST(Reader, SeesTheSameWhereverAHandMadeResponseIsCut)
{
    for (const Response &response : handMade(TypeParam::Fast::handMade)) {
        EXPECT_EQ(differenceWhenCut<TypeParam>(response.text, 1), "") << response.name;
        EXPECT_EQ(differenceInAll<TypeParam>(response.text, {{1}, {3, 0}, {7}, {64}}), "") << response.name;
    }
}

TYPED_TEST(Reader, SeesTheSameInRandomTexts)
{
    const std::vector<Response> responses = handMade(TypeParam::Fast::handMade);
    for (unsigned seed = 1; seed <= 20000 / Thinning; ++seed) {
        std::mt19937 random(seed);
        const std::string text = randomResponse(responses, random);
        const auto some = [&](std::size_t limit) { return random() % limit; };
        ASSERT_EQ(differenceInAll<TypeParam>(text, {{1}, {1000}, {some(9), some(20), some(200)}}), "")
            << "seed " << seed << ", text:\n"
            << text;
    }
}

// Runs of backslashes of every length at every place in and across two blocks, each before a quote.
TYPED_TEST(Reader, CountsBackslashesAcrossBlocks)
{
    for (std::size_t start = 0; start < 2 * zq::elasticsearch::BlockBytes; ++start) {
        for (std::size_t run = 0; run <= zq::elasticsearch::BlockBytes + 3; ++run) {
            const std::string text = R"({"error":)" + std::string(start, ' ') + '"' + std::string(run, '\\') +
                                     R"(","a":"\\",[{"b":1}]})";
            ASSERT_EQ(differenceInAll<TypeParam>(text, {{61}, {1000}}), "") << start << " " << run;
        }
    }
}

TYPED_TEST(Reader, CountsDeepNestingOnly)
{
    const std::string text = std::string(100000, '[') + std::string(100000, '{');
    EXPECT_EQ(differenceIn<TypeParam>(cut(text, {4097})), "");
}

} // namespace
