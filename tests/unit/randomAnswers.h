// Random texts of the pieces that matter to the readers; mostly malformed.
#pragma once

#include <random>
#include <string>
#include <vector>

/// What the random answers of one kind are made of, besides the pieces that all JSON has.
struct AnswerKind {
    std::vector<const char *> tokens;     ///< the names that the reader knows, alone and in their places
    std::vector<const char *> beginnings; ///< bring the text to where the interesting rules apply
    std::vector<std::string> answers;     ///< whole answers, to be damaged
};

/// Makes one text. The same state of the generator gives the same text.
std::string randomAnswer(const AnswerKind &kind, std::mt19937 &random);
/// The same for answers to a search.
std::string randomAnswer(std::mt19937 &random);

/// A number from 0 to `limit` - 1; the same on every platform.
inline unsigned below(unsigned limit, std::mt19937 &random)
{
    return static_cast<unsigned>(random() % limit);
}
