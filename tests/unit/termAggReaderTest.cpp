// What the terms-aggregation reader makes of whole answers, against expectations worked out by hand, and of
// answers cut anywhere, against the reference reader.
#include "randomAnswers.h"
#include "recordings.h"
#include "termAggTranscript.h"

#include <gtest/gtest.h>

namespace
{

using Chunks = std::vector<std::string_view>;

/// What the reader makes of an uncut answer: its events, then "good", or "bad" with the error text.
std::string outcome(std::string_view text, bool collectValues = true)
{
    return Transcript<zq::elasticsearch::TermAggResultParserInterface>::of({text}, collectValues, false);
}

Chunks inChunksOf(std::string_view text, std::size_t size)
{
    Chunks chunks;
    for (; text.size() > size; text.remove_prefix(size)) {
        chunks.push_back(text.substr(0, size));
    }
    chunks.push_back(text);
    return chunks;
}

std::string inRoot(const std::string &subAggs) { return R"({"aggregations":{"rootagg":{)" + subAggs + "}}}"; }

/// The members of one bucket, or of several, behind an ordinary one.
std::string withBucket(const std::string &members)
{
    return inRoot(R"("1":{"buckets":[{"key":0,"doc_count":2},{)" + members + "}]}");
}

std::string recordedAnswer()
{
    for (const Recording &recording : recordings()) {
        if (recording.name == "terms-aggregation") {
            return recording.text;
        }
    }
    return "missing";
}

struct TermAggAnswer {
    std::string text;
    std::string expected;
};

const std::string keyIsLast = "bad Parsing error, fail to retrieve field value";

const std::vector<TermAggAnswer> termAggAnswers = {
    {recordedAnswer(),
     R"(1=3["manual","novel","essay"] 2=10[1800,1807,1814,1821,1835,1849,1856,1863,1884,1898] 3=0[] good)"},
    // Several aggregations, with what stands around their buckets.
    {R"({"took":1,"hits":{"total":{"value":9},"hits":[{"_source":{"a":{"key":1,"b":2}}}]},"aggregations":{"rootagg":)"
     R"({"1":{"doc_count_error_upper_bound":0,"buckets":[]},)"
     R"("x" : {"buckets" : [ { "key" : 1.50 , "doc_count" : 1 } ],"z":0},)"
     R"("doc_count":7},"other":{"4":{"buckets":[{"key":1,"n":2}]}}},"status":200})",
     "1=0[] x=1[ 1.50 ] good"},
    {inRoot(R"("1":{"buckets":[{"key":1,"n":2}]},"1":{"buckets":[{"key":2,"n":2},{"key":3,"n":1}]},)"
            R"("2":{"meta":{"key":5,"n":1},"buckets":[{"key":1,"sub":{"buckets":[{"key":9,"n":1}]}}]})"),
     "1=1[1] 1=2[2,3] 2=1[1] good"},
    // Keys of every kind.
    {withBucket(
         R"("key":"a,b}]:[{\"","n":1},{"n":1,"key":"\u00e9\\","m":1},{"key":null,"n":1},{"key":,"n":1)"),
     R"(1=5[0,"a,b}]:[{\"","\u00e9\\",null,] good)"},
    {withBucket(R"("key":"key","key_as_string":"key","n":1},{"n":"key","m":3},{"key":{"a":1,"b":"x"},"n":1)"),
     R"(1=5[0,"key","key","key","x"] good)"},
    {withBucket(R"("key":{"a":{"b":1}},"n":5,"m":6},{"key":["a","b"],"n":7,"m":6)"), "1=3[0,5,7] good"},
    {withBucket(R"("Key":1,"k":{"key":1},"l":[{"key":1,"n":2}])"), "1=1[0] good"},
    {withBucket(R"("key":[1],"n":5)"), keyIsLast},
    {withBucket(R"("n":1,"key":"x")"), keyIsLast},
    {withBucket(R"("n":"key")"), keyIsLast},
    // Names in and out of their places.
    {R"({"aggregations":{"other":{"1":{"buckets":[{"key":1,"n":1}]}}},"rootagg":{"rootagg":{"2":{}}},)"
     R"("aggregations":"x","y":{"rootagg":{"1":{}}},"aggregations":{"rootagg":"x","y":{"1":{}}},)"
     R"("aggregations":{"a":{"b":1}},"x":{"rootagg":{"1":{}}},"aggregations":{"rootagg":{},"x":{"1":{}}}})",
     "good"},
    {R"([{"aggregations":{"rootagg":{"1":{}}}}])", "good"},
    {R"({"a":"aggregations":{"b":"rootagg":{"1":{}}}})", "1=0[] good"},
    {R"({"aggregations":{"rootagg":{"1":{}})", "1=0[] bad "},
    {R"({"aggregations":{"rootagg":{"1":5}},"a":{"b":{"c":1}}})", "1=0[] good"},
    {inRoot(R"("1":{"key":1},"2":"x","":{},"3":5,"doc_count":1,"4":[{}],"5":["6"])"),
     "1=0[] 2=0[] x=0[] 3=0[] 4=0[] 5=0[] good"},
    {inRoot(R"("1":{"a":["buckets",{"key":1,"n":2}]},"2":{"bucket":[{"key":1,"n":2}]},)"
            R"("3":{"buckets":{"a":{"key":1,"n":2}}},"4":{"a":[{"key":1,"n":2}]})"),
     "1=0[] 2=0[] 3=0[] 4=1[1] good"},
    // Buckets once seen, the keys of later objects at that depth count as well.
    {R"({"aggregations":{"rootagg":{"1":{"buckets":[]}}},"x":[{"a":{"b":{"c":{"key":1}}}}]})",
     "1=0[] " + keyIsLast},
    // Errors; of an object, the next member's name is all that is seen.
    {R"({"error":"no \"such\" index","status":404})", R"(bad no \"such\" index)"},
    {R"({"error":{"reason":"y","error":"z"},"status":404})", "bad status"},
    {R"({"error":{"reason":"y"}})", "good"},
    {R"({"error":["a"],"error":"error","aggregations":"","x":1})", "bad "},
    {R"({"a":"error","b":1})", "bad b"},
    {R"([{"error":"x"}])", "good"},
    {R"({"aggregations":{"rootagg":{"1":{}},"error":{"error":{}}},"x":1})", "1=0[] good"},
    // Junk.
    {"", "good"},
    {R"({"aggregations":{"rootagg":{"1":{"buckets":[{"key":"x)", "bad "},
    {R"(}{{"error":"x"})", "bad x"},
    {R"({\"error":"x"})", "bad "},
};

std::vector<std::string> texts()
{
    std::vector<std::string> all;
    for (const TermAggAnswer &answer : termAggAnswers) {
        all.push_back(answer.text);
    }
    return all;
}

TEST(TermAggReader, ReadsWholeAnswers)
{
    for (const TermAggAnswer &answer : termAggAnswers) {
        EXPECT_EQ(outcome(answer.text), answer.expected) << answer.text;
    }
    EXPECT_EQ(outcome(withBucket(R"("key":"a","n":1)"), false), "1=2[] good");
    EXPECT_EQ(outcome(withBucket(R"("n":1,"key":"a")"), false), keyIsLast);
}

TEST(TermAggReader, SeesTheSameHoweverTheAnswerIsCut)
{
    for (const TermAggAnswer &answer : termAggAnswers) {
        const std::string_view text = answer.text;
        SCOPED_TRACE(text);
        for (std::size_t at = 0; at <= text.size(); ++at) {
            // An empty chunk in the middle only asks for the verdict.
            ASSERT_EQ(termAggDisagreement({text.substr(0, at), "", text.substr(at), "", "}"}), "") << at;
        }
        for (const std::size_t size : {1, 2, 7, 64}) {
            ASSERT_EQ(termAggDisagreement(inChunksOf(text, size)), "") << "chunks of " << size;
        }
    }
}

TEST(TermAggReader, SeesTheSameInRandomTexts)
{
    const AnswerKind kind{{R"("key")", R"("key":"a")", R"("key":1,)", R"("key":"a,}",)", R"("buckets":[{)",
                           R"("buckets":[],)", R"("n":5)", R"("rootagg":{)", R"("rootagg")",
                           R"("aggregations":{)", R"("aggregations")", R"("1":{)", R"("doc_count")", "}}"},
                          {"", "{", R"({"aggregations":{)", R"({"aggregations":{"rootagg":{)",
                           R"({"aggregations":{"rootagg":{"1":{)",
                           R"({"aggregations":{"rootagg":{"1":{"buckets":[{)"},
                          texts()};
    for (unsigned seed = 1; seed <= 20000; ++seed) {
        std::mt19937 random(seed);
        const std::string text = randomAnswer(kind, random);
        SCOPED_TRACE("seed " + std::to_string(seed) + ", text:\n" + text);
        for (const std::size_t size : {std::size_t{1}, 1 + std::size_t{below(20, random)}, text.size() + 1}) {
            ASSERT_EQ(termAggDisagreement(inChunksOf(text, size)), "") << "chunks of " << size;
        }
    }
}

} // namespace
