// Every fuzz target over every file of its corpus: what fuzzing once reached stays tested.
#include "targets.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace
{

void replay(const char *name, std::string (*target)(std::string_view))
{
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(std::filesystem::path(CORPUS_DIR) / name)) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input((std::istreambuf_iterator<char>(file)), {});
        EXPECT_TRUE(file) << entry.path();
        EXPECT_EQ(target(input), "") << entry.path();
        ++files;
    }
    EXPECT_GT(files, 0) << "the corpus is empty";
}

TEST(Corpus, SearchReader) { replay("searchReader", searchReader); }
TEST(Corpus, TermAggReader) { replay("termAggReader", termAggReader); }
TEST(Corpus, IdDecoder) { replay("idDecoder", idDecoder); }
TEST(Corpus, JsonEscaper) { replay("jsonEscaper", jsonEscaper); }
TEST(Corpus, Params) { replay("params", params); }

} // namespace
