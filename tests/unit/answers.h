// The answers that the readers are tried with: recorded, made by hand, and random.
#pragma once

#include <random>
#include <string>
#include <vector>

struct Answer {
    std::string name;
    std::string text;
    std::string expected; ///< what a reader must make of it; empty when that is not written down
};

/// The whole of a file, byte by byte. Throws when there is none.
std::string contentOf(const std::string &path);

/// The answers in a file of tests/data/answers; the README beside it tells how they are written.
std::vector<Answer> handMade(const std::string &file);

/// The answers of a real Elasticsearch in tests/data/recordings.
std::vector<Answer> recordings();

/// A start of one of the answers with pieces that matter to the readers behind it, or a whole one with some
/// of them in it. The same state of the generator gives the same text, on every platform.
std::string randomAnswer(const std::vector<Answer> &answers, std::mt19937 &random);
