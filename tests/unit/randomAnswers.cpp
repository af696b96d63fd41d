// Random texts of the pieces that matter to the readers; mostly malformed.
#include "randomAnswers.h"

#include "handMadeAnswers.h"

#include <array>

namespace
{

const char *randomToken(std::mt19937 &random)
{
    static const std::array tokens = {"{",
                                      "}",
                                      "[",
                                      "]",
                                      "\"",
                                      ":",
                                      ",",
                                      "\\",
                                      "{",
                                      "}",
                                      "\"",
                                      ":",
                                      ",",
                                      "\"hits\"",
                                      "\"_id\"",
                                      "\"_id\":\"a\"",
                                      "\"_source\"",
                                      "\"_source\":{",
                                      "\"total\"",
                                      "\"total\":3,",
                                      "\"error\"",
                                      "\"type\"",
                                      "\"type\":\"x\"",
                                      "\"_score\"",
                                      "\"_score\":1.5,",
                                      "\"highlight\"",
                                      "\"highlight\":{",
                                      "\"_scroll_id\"",
                                      "hits",
                                      " ",
                                      "\n",
                                      "0",
                                      "17",
                                      "-",
                                      "null",
                                      "u00e9",
                                      "\\u00e9",
                                      "\\ud83d",
                                      "\\n",
                                      "\\\\",
                                      "\\\"",
                                      "x",
                                      "a plain span of some length",
                                      "\"a string of some length\"",
                                      "\"k\":{",
                                      "},{",
                                      "}]",
                                      "\xc3\xa9",
                                      "\xf0\x9f\x90\x8b",
                                      "\xc3",
                                      "\xff",
                                      "|"};
    return tokens[below(static_cast<unsigned>(tokens.size()), random)];
}

/// A prefix that brings the text to where the interesting rules apply.
const char *randomBeginning(std::mt19937 &random)
{
    static const std::array beginnings = {"",
                                          "{",
                                          R"({"hits":{)",
                                          R"({"hits":{"hits":[{)",
                                          R"({"hits":{"total":2,"hits":[{"_id":"x",)",
                                          R"({"hits":{"hits":[{"_source":{)"};
    return beginnings[below(static_cast<unsigned>(beginnings.size()), random)];
}

std::string garbage(std::mt19937 &random)
{
    std::string text = randomBeginning(random);
    for (unsigned count = below(40, random); count > 0; --count) {
        text += randomToken(random);
    }
    return text;
}

/// A hand-made answer with a few places cut out or overwritten.
std::string damaged(std::mt19937 &random)
{
    const auto &answers = handMadeAnswers();
    std::string text = answers[below(static_cast<unsigned>(answers.size()), random)].text;
    for (unsigned count = 1 + below(4, random); count > 0; --count) {
        const std::size_t at = below(static_cast<unsigned>(text.size()) + 1, random);
        text.replace(at, below(6, random), below(3, random) == 0 ? "" : randomToken(random));
    }
    return text;
}

} // namespace

std::string randomAnswer(std::mt19937 &random)
{
    return below(3, random) == 0 ? damaged(random) : garbage(random);
}
