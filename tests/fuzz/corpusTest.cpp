// Every fuzz target over every file of its corpus: what fuzzing once reached stays tested.
#include "responses.h"
#include "targets.h"

#include <gtest/gtest.h>

#include <filesystem>

TEST(Corpus, HasNoFinding)
{
    using Target = std::string (*)(std::string_view);
    const std::pair<std::string, Target> targets[] = {
        {"searchReader", searchReader}, {"termAggReader", termAggReader}, {"searchResponse", searchResponse},
        {"idDecoder", idDecoder},       {"jsonEscaper", jsonEscaper},     {"params", params}};
    for (const auto &[name, target] : targets) {
        int files = 0;
        for (const auto &file : std::filesystem::directory_iterator(TEST_DATA_DIR "/corpus/" + name)) {
            EXPECT_EQ(target(contentOf(file.path())), "") << file.path();
            ++files;
        }
        EXPECT_GT(files, 10) << name;
    }
}
