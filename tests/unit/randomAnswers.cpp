// Random texts of the pieces that matter to the readers; mostly malformed.
#include "randomAnswers.h"

#include "handMadeAnswers.h"

namespace
{

// clang-format off: what steers the lexer comes more than once.
const std::vector<const char *> jsonTokens = {"{",
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
                                              "\"error\"",
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
// clang-format on

const AnswerKind &searchAnswers()
{
    static const AnswerKind kind = [] {
        AnswerKind made{
            {"\"hits\"",           "\"_id\"",       "\"_id\":\"a\"",   "\"_source\"",    "\"_source\":{",
             "\"total\"",          "\"total\":3,",  "\"type\"",        "\"type\":\"x\"", "\"_score\"",
             "\"_score\":1.5,",    "\"highlight\"", "\"highlight\":{", "\"_scroll_id\"", "hits",
             "\"timed_out\":true", "\"_shards\":{", "\"failed\":2,",   "\"successful\"", "true", "\"gte\""},
            {"", "{", R"({"hits":{)", R"({"hits":{"hits":[{)", R"({"hits":{"total":2,"hits":[{"_id":"x",)",
             R"({"hits":{"hits":[{"_source":{)",
             R"({"timed_out" : true, "_shards":{"total":4,"successful":1,)"},
            {}};
        for (const HandMadeAnswer &answer : handMadeAnswers()) {
            made.answers.push_back(answer.text);
        }
        return made;
    }();
    return kind;
}

template <class Values>
const auto &oneOf(const Values &values, std::mt19937 &random)
{
    return values[below(static_cast<unsigned>(values.size()), random)];
}

const char *randomToken(const AnswerKind &kind, std::mt19937 &random)
{
    const unsigned choice = below(static_cast<unsigned>(jsonTokens.size() + kind.tokens.size()), random);
    return choice < jsonTokens.size() ? jsonTokens[choice] : kind.tokens[choice - jsonTokens.size()];
}

std::string garbage(const AnswerKind &kind, std::mt19937 &random)
{
    std::string text = oneOf(kind.beginnings, random);
    for (unsigned count = below(40, random); count > 0; --count) {
        text += randomToken(kind, random);
    }
    return text;
}

/// A whole answer with a few places cut out or overwritten.
std::string damaged(const AnswerKind &kind, std::mt19937 &random)
{
    std::string text = oneOf(kind.answers, random);
    for (unsigned count = 1 + below(4, random); count > 0; --count) {
        const std::size_t at = below(static_cast<unsigned>(text.size()) + 1, random);
        text.replace(at, below(6, random), below(3, random) == 0 ? "" : randomToken(kind, random));
    }
    return text;
}

} // namespace

std::string randomAnswer(const AnswerKind &kind, std::mt19937 &random)
{
    return below(3, random) == 0 ? damaged(kind, random) : garbage(kind, random);
}

std::string randomAnswer(std::mt19937 &random) { return randomAnswer(searchAnswers(), random); }
