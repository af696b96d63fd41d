// Loads the recorded answers; of each file only the string of its member "response" is decoded.
#include "recordings.h"

#include <utf8.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace
{

unsigned takeHex(const std::string &text, std::size_t &at)
{
    at += 4;
    return static_cast<unsigned>(std::stoul(text.substr(at - 4, 4), nullptr, 16));
}

/// Decodes the JSON string whose first character, behind the quote, is at `at`.
std::string decodeString(const std::string &text, std::size_t at)
{
    const std::string letters = "\"\\/bfnrt", meanings = "\"\\/\b\f\n\r\t";
    std::string decoded;
    while (text.at(at) != '"') {
        if (text[at] != '\\') {
            decoded += text[at++];
        } else if (text.at(at + 1) != 'u') {
            decoded += meanings.at(letters.find(text[at + 1]));
            at += 2;
        } else {
            unsigned codePoint = takeHex(text, at += 2);
            if (codePoint >= 0xD800 && codePoint < 0xDC00) {
                codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (takeHex(text, at += 2) - 0xDC00);
            }
            utf8::append(codePoint, std::back_inserter(decoded));
        }
    }
    return decoded;
}

std::vector<Recording> load()
{
    const std::string member = "\n \"response\": \"";
    std::vector<Recording> all;
    for (const auto &entry : std::filesystem::directory_iterator(TEST_DATA_DIR "/recordings")) {
        std::ifstream file(entry.path());
        const std::string text((std::istreambuf_iterator<char>(file)), {});
        if (const std::size_t found = text.find(member); found != std::string::npos) {
            all.push_back({entry.path().stem(), decodeString(text, found + member.size())});
        }
    }
    if (all.size() < 40) {
        throw std::runtime_error("recordings are missing in " TEST_DATA_DIR);
    }
    std::sort(all.begin(), all.end(), [](const auto &a, const auto &b) { return a.name < b.name; });
    return all;
}

} // namespace

const std::vector<Recording> &recordings()
{
    static const std::vector<Recording> all = load();
    return all;
}
