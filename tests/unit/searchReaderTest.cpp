// What the search reader makes of whole answers, against expectations worked out by hand.
#include "handMadeAnswers.h"
#include "recordings.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace
{

FastReader &read(FastReader &reader, const std::string &text)
{
    reader.addData(text.data(), text.size());
    return reader;
}

TEST(SearchReader, ReadsHandMadeAnswers)
{
    for (const HandMadeAnswer &answer : handMadeAnswers()) {
        if (answer.expected) {
            FastReader reader;
            EXPECT_EQ(outcomeOf(read(reader, answer.text)).differenceFrom(*answer.expected), "")
                << answer.name;
        }
    }
}

TEST(SearchReader, ReadsRecordedAnswers)
{
    // Counted in the files by an ordinary JSON library: the total, the hits, the bytes of all sources and
    // highlights, the first and the last id.
    const struct {
        const char *name;
        int total;
        std::size_t hits, sourceBytes, highlightBytes;
        const char *firstId, *lastId;
    } expectations[] = {
        {"scroll-1", 250, 100, 65653, 0, "b000", "b171"},
        {"scroll-2", 250, 100, 61074, 0, "b172", "b140"},
        {"scroll-3", 250, 50, 31964, 0, "b141", "a/b"},
        {"scroll-wide-1", 120, 100, 3604, 0, "w39", "w106"},
        {"search-large", 250, 250, 158691, 0, "b000", "a/b"},
        {"search-total-as-int", 17, 10, 6661, 0, "b225", "b060"},
        {"search-two-indices", 300, 5, 3494, 0, "b000", "b006"},
        {"search-highlight-no-source", 17, 5, 0, 196, "b225", "b015"},
        {"ids-special", 6, 6, 3322, 0, "café", "a/b"},
        {"ids-some-missing", 2, 2, 1330, 0, "b001", "b002"},
        {"partial-shard-failure", 10, 10, 5869, 0, "o1", "o9"},
        {"v8-scroll-1", 250, 100, 65653, 0, "b000", "b171"},
        {"v8-search-single-slash", 17, 10, 6661, 0, "b225", "b060"},
        {"search-single-slash", 17, 10, 6661, 0, "b225", "b060"},
    };
    for (const auto &expected : expectations) {
        const auto recording = std::find_if(recordings().begin(), recordings().end(),
                                            [&](const Recording &one) { return one.name == expected.name; });
        ASSERT_NE(recording, recordings().end()) << expected.name;
        FastReader reader;
        const Outcome outcome = outcomeOf(read(reader, recording->text));
        std::size_t sourceBytes = 0, highlightBytes = 0;
        for (const Document &document : outcome.documents) {
            sourceBytes += document.content.size();
            highlightBytes += document.highlight.size();
        }
        EXPECT_EQ(outcome.finishText, "") << expected.name;
        EXPECT_EQ(outcome.totalHitCount, expected.total) << expected.name;
        EXPECT_EQ(sourceBytes, expected.sourceBytes) << expected.name;
        EXPECT_EQ(highlightBytes, expected.highlightBytes) << expected.name;
        ASSERT_EQ(outcome.documents.size(), expected.hits) << expected.name;
        EXPECT_EQ(outcome.documents.front().docId, expected.firstId) << expected.name;
        EXPECT_EQ(outcome.documents.back().docId, expected.lastId) << expected.name;
    }
}

TEST(SearchReader, TellsWhichShardsAnsweredInTime)
{
    const struct {
        const char *text, *status;
        bool isPartial;
    } answers[] = {
        {R"({"took":1,"timed_out":false,"_shards":{"total":5,"successful":5,"skipped":2,"failed":0}})",
         "in time, 5 shards, 5 good, 0 failed", false},
        {R"({"timed_out" :
 true,"_shards" : {"failed" : 0 ,"successful":4,"total":5
}})",
         "timed out, 5 shards, 4 good, 0 failed", true},
        {R"({"timed_out":true})", "timed out, 0 shards, 0 good, 0 failed", true},
        {R"({"_shards":{"total":2,"successful":1,"failed":1,"failures":[{"failed":9,"total":8}],"x":{"total":7}}})",
         "in time, 2 shards, 1 good, 1 failed", true},
        // The hits have a total too, other objects as well, and a value is no name.
        {R"({"x":"timed_out","hits":{"total":3,"hits":[]},"y":{"total":4,"failed":1},"_shards":{"z":"total"}})",
         "in time, 0 shards, 0 good, 0 failed", false},
        {R"({"timed_out":"true","_shards":{"total":[6],"failed":{"failed":1}}})",
         "in time, 0 shards, 0 good, 0 failed", false},
    };
    for (const auto &expected : answers) {
        FastReader reader;
        read(reader, expected.text);
        EXPECT_EQ(describe(reader.getStatus()), expected.status) << expected.text;
        EXPECT_EQ(reader.getStatus().isPartial(), expected.isPartial) << expected.text;
    }
}

TEST(SearchReader, CountsInSixtyFourBits)
{
    const struct {
        const char *total;
        std::int64_t hits;
        int count;
        bool isLowerBound;
    } totals[] = {
        {"5", 5, 5, false},
        {"4294967298", 4294967298, 2, false},
        {"-1", -1, -1, false},
        {R"({"value":2147483648,"relation":"eq"})", 2147483648, -2147483647 - 1, false},
        {R"({ "value" : 10000 , "relation" : "gte" })", 10000, 10000, true},
    };
    for (const auto &expected : totals) {
        FastReader reader;
        read(reader, std::string(R"({"hits":{"total":)") + expected.total +
                         R"(,"hits":[{"_id":"gte","_source":{"gte":"gte"}}]},"x":{"y":"gte"}})");
        EXPECT_EQ(reader.getTotalHits(), expected.hits) << expected.total;
        EXPECT_EQ(reader.getTotalHitCount(), expected.count) << expected.total;
        EXPECT_EQ(reader.isTotalLowerBound(), expected.isLowerBound) << expected.total;
    }
}

TEST(SearchReader, RefusesRecordedErrors)
{
    int errors = 0;
    for (const Recording &recording : recordings()) {
        const bool isError = recording.text.rfind("{\"error\":", 0) == 0;
        const bool hasRefusedId = recording.name == "ids-emoji";
        FastReader reader;
        const bool goesOn = reader.addData(recording.text.data(), recording.text.size());
        EXPECT_EQ(goesOn, !isError && !hasRefusedId) << recording.name;
        EXPECT_EQ(reader.finish(nullptr), goesOn) << recording.name;
        EXPECT_TRUE(goesOn || !reader.getErrorMessage().empty()) << recording.name;
        errors += isError ? 1 : 0;
    }
    EXPECT_GE(errors, 10);
}

TEST(SearchReader, StaysStoppedAfterAnErrorAndAnswersEmptyChunks)
{
    const std::string good = R"({"hits":{"total":1,"hits":[{"_id":"a")", bad = R"(,"_id":"\x"})",
                      more = "}]}}";
    FastReader reader;
    EXPECT_TRUE(reader.addData(nullptr, 0));
    EXPECT_TRUE(reader.addData(good.data(), good.size()));
    EXPECT_TRUE(reader.addData(nullptr, 0));
    EXPECT_FALSE(reader.addData(bad.data(), bad.size()));
    EXPECT_FALSE(reader.addData(nullptr, 0));
    EXPECT_FALSE(reader.addData(more.data(), more.size()));
    EXPECT_EQ(reader.getErrorMessage(), "json to utf8 conversion error");
    EXPECT_TRUE(reader.documents.empty());
}

TEST(SearchReader, CountsDeepNestingOnly)
{
    const std::size_t depth = 1000000;
    const std::string text = std::string(depth, '[') + std::string(depth, '{');
    FastReader reader;
    std::string message;
    EXPECT_TRUE(reader.addData(text.data(), text.size()));
    EXPECT_FALSE(reader.finish(&message));
    EXPECT_EQ(message, "Finish error : { => 1000000, [ => 1000000, hittag => 0, nextis => 0, error => 0");
}

} // namespace
