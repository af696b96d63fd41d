// The responses that the readers are tried with: recorded, made by hand, and random.
#pragma once

#include <random>
#include <string>
#include <vector>

struct Response {
    std::string name;
    std::string text;
    std::string expected; // what a reader must make of it; empty when that is not written down
};

// The whole of a file, byte by byte. Throws when there is none.
std::string contentOf(const std::string &path);

// The responses in a file of tests/data/responses; the README beside it tells how they are written.
std::vector<Response> handMade(const std::string &file);

// The responses of a real Elasticsearch in tests/data/recordings.
std::vector<Response> recordings();

// A start of one of the responses with pieces that matter to the readers behind it, or a whole one with some
// of them in it. The same state of the generator gives the same text, on every platform.
std::string randomResponse(const std::vector<Response> &responses, std::mt19937 &random);
