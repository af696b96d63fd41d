// The exact reader against its reference reader, and against what was worked out by hand.
#include "responses.h"
#include "exactComparison.h"

#include <gtest/gtest.h>

namespace
{

// The address sanitizer makes all of it slow.
#ifdef __SANITIZE_ADDRESS__
constexpr unsigned Thinning = 5;
#else
constexpr unsigned Thinning = 1;
#endif

// After each byte, and when the response is there.
constexpr std::size_t AtOnce = 1, AtTheEnd = std::size_t{1} << 30;

std::string seenIn(std::string_view text)
{
    ExactReader reader;
    reader.read(text.data(), text.size());
    reader.finish();
    return shown(reader);
}

std::vector<Response> handMadeResponses()
{
    std::vector<Response> responses = handMade("exact.txt");
    for (const char *others : {"search.txt", "termAgg.txt"})
        for (const Response &response : handMade(others))
            responses.push_back(response);
    return responses;
}

TEST(ExactResponse, ReadsHandMadeResponses)
{
    const std::vector<Response> responses = handMade("exact.txt");
    for (const Response &response : responses) {
        EXPECT_EQ(seenIn(response.text), response.expected) << response.name;
        EXPECT_EQ(expectedOf(response.text), response.expected) << response.name << ", by the reference";
    }
    EXPECT_GT(responses.size(), 30U);
}

// Cut in two at every byte, and cut off there.
TEST(ExactResponse, SeesTheSameWhereverAHandMadeResponseIsCut)
{
    ExactReaders readers(AtOnce);
    for (const Response &response : handMadeResponses()) {
        const std::string_view text = response.text;
        const std::string expected = expectedOf(text);
        for (std::size_t at = 0; at <= text.size(); ++at) {
            ASSERT_EQ(readers.differenceFrom(expected, {text.substr(0, at), text.substr(at)}), "")
                << response.name << ", cut at " << at;
            ASSERT_EQ(readers.differenceFrom(expectedOf(text.substr(0, at)), {text.substr(0, at)}), "")
                << response.name << ", cut off at " << at;
        }
        for (const auto &sizes : std::vector<std::vector<std::size_t>>{{1}, {3, 0}, {7}, {64}})
            ASSERT_EQ(readers.differenceFrom(expected, cut(text, sizes)), "") << response.name;
    }
}

TEST(ExactResponse, SeesTheSameWhereverARecordedResponseIsCut)
{
    ExactReaders readers(AtOnce), patient(AtTheEnd);
    for (const Response &response : recordings()) {
        const std::string_view text = response.text;
        const std::string expected = expectedOf(text);
        const std::size_t step = text.size() < 3000 ? Thinning : text.size() < 20000 ? 17 * Thinning : 1009;
        for (std::size_t at = 0; at <= text.size(); at += step) {
            ASSERT_EQ(readers.differenceFrom(expected, {text.substr(0, at), text.substr(at)}), "")
                << response.name << ", cut at " << at;
        }
        for (const auto &sizes : std::vector<std::vector<std::size_t>>{{1, 60}, {7, 64, 0}, {16384}})
            ASSERT_EQ(readers.differenceFrom(expected, cut(text, sizes)), "") << response.name;
        ASSERT_EQ(patient.differenceFrom(expected, {text}), "") << response.name;
    }
}

TEST(ExactResponse, SeesTheSameInRandomTexts)
{
    ExactReaders readers(AtOnce);
    const std::vector<Response> responses = handMadeResponses();
    for (unsigned seed = 1; seed <= 40000 / Thinning; ++seed) {
        std::mt19937 random(seed);
        const std::string text = randomResponse(responses, random);
        const std::size_t some = random() % 200 + 1;
        ASSERT_EQ(exactDifferenceIn(readers, cut(text, {some, some / 20})), "")
            << "seed " << seed << ", text:\n"
            << text;
    }
}

// The depth is that of no stack, and memory that is forgotten on the way is not missed.
TEST(ExactResponse, TakesWhatIsDeepOrLarge)
{
    const std::size_t depth = 100000;
    const std::string open(depth, '['), closed(depth, ']'), array = open + closed, text(300000, 'x');
    const auto response = [](const std::string &member, const std::string &source) {
        return "{\"x\":" + member + R"(,"hits":{"hits":[{"_id":"a","_source":)" + source + "}]}}";
    };
    const std::string hit = "good | _id a _source ";
    EXPECT_EQ(seenIn(response(array, "{}")), hit + "{}");
    EXPECT_EQ(seenIn(response(array + ']', "{}")), "at byte 200006");
    EXPECT_EQ(seenIn(response("0", R"({"a":)" + array + "}")), hit + R"({"a":)" + array + "}");
    EXPECT_EQ(seenIn(response("0", open + '}' + closed)), "at byte 200044");
    const std::string large = response("\"" + text + "\"", "{\"y\":\"" + text + "\"}");
    ExactReaders readers(64);
    EXPECT_EQ(readers.differenceFrom(expectedOf(large), cut(large, {4096, 70000})), "");
}

} // namespace
