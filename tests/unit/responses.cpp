// The responses that the readers are tried with: recorded, made by hand, and random.
#include "responses.h"

#include "referenceJsonString.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace
{

const std::string data = TEST_DATA_DIR;

// The entries of the fuzzers' dictionary.
std::vector<std::string> readTokens()
{
    std::vector<std::string> tokens;
    std::istringstream lines(contentOf(data + "/tokens.dict"));
    for (std::string line; std::getline(lines, line);) {
        std::string token;
        for (std::size_t at = 1; at + 1 < line.size(); ++at) {
            const bool isEscape = line[at] == '\\', isByte = isEscape && line[at + 1] == 'x';
            token += isByte ? static_cast<char>(std::stoi(line.substr(at + 2, 2), nullptr, 16))
                            : line[at + isEscape];
            at += isByte ? 3 : isEscape;
        }
        if (line[0] == '"')
            tokens.push_back(token);
    }
    return tokens;
}

} // namespace

std::string contentOf(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    file.exceptions(std::ios::failbit); // at once when it could not be opened
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<Response> handMade(const std::string &file)
{
    std::vector<Response> responses;
    std::istringstream lines(contentOf(data + "/responses/" + file));
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("# ", 0) == 0)
            responses.push_back({line.substr(2), "", ""});
        else if (line.rfind("=> ", 0) == 0)
            responses.back().expected = line.substr(3);
        else
            responses.back().text += (responses.back().text.empty() ? "" : "\n") + line;
    return responses;
}

std::vector<Response> recordings()
{
    const std::string member = "\n \"response\": \"";
    std::vector<Response> responses;
    for (const auto &file : std::filesystem::directory_iterator(data + "/recordings")) {
        const std::string text = contentOf(file.path());
        if (const std::size_t found = text.find(member); found != std::string::npos) {
            const std::size_t begin = found + member.size();
            const std::string raw = text.substr(begin, text.rfind('"') - begin);
            responses.push_back({file.path().stem(), decodeSimply(raw).value(), ""});
        }
    }
    return responses;
}

std::string randomResponse(const std::vector<Response> &responses, std::mt19937 &random)
{
    static const std::vector<std::string> tokens = readTokens();
    const auto below = [&](std::size_t limit) { return random() % limit; };
    std::string text = responses[below(responses.size())].text;
    const bool isWhole = below(3) == 0;
    text.resize(isWhole ? text.size() : below(text.size() + 1));
    for (std::size_t count = below(isWhole ? 5 : 40); count > 0; --count) {
        const std::size_t at = isWhole ? below(text.size() + 1) : text.size();
        const std::string &token = tokens[below(tokens.size())];
        text.replace(at, below(6), token);
    }
    return text;
}
