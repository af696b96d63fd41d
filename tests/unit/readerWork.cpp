// Reads one answer with a scanner of a given name, in chunks of 16 KiB: the work of which instructions are
// counted. Prints the number of documents; without arguments, the names of the scanners.
#include "elasticsearch/jsonBlockScan.h"
#include "elasticsearch/searchResultParserInterface.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>

using namespace zq::elasticsearch;

namespace
{

constexpr std::size_t chunkBytes = 16384;

class CountingReader : public SearchResultParserInterface
{
public:
    using SearchResultParserInterface::SearchResultParserInterface;

    void onNewDocument(const std::string &, const std::string &, const std::string &, const std::string &,
                       const std::string &) override
    {
        ++documents;
    }

    int documents = 0;
};

const BlockScanner &scannerOf(const std::string &name)
{
    for (const BlockScanner &scanner : blockScanners()) {
        if (scanner.name == name) {
            return scanner;
        }
    }
    throw std::invalid_argument("no scanner " + name);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        for (const BlockScanner &scanner : blockScanners()) {
            std::cout << scanner.name << '\n';
        }
        return 0;
    }
    std::ifstream file(argv[2], std::ios::binary);
    const std::string answer{std::istreambuf_iterator<char>(file), {}};
    CountingReader reader(scannerOf(argv[1]));
    for (std::size_t at = 0; at < answer.size(); at += chunkBytes) {
        reader.addData(answer.data() + at, std::min(chunkBytes, answer.size() - at));
    }
    std::cout << reader.documents << '\n';
    return reader.finish(nullptr) ? 0 : 1;
}
