// Reads one response with a scanner of a given name, in chunks of 16 KiB: the work of which instructions are
// counted. Prints the number of documents; without arguments, the names of the scanners.
#include "elasticsearch/jsonBlockScan.h"
#include "elasticsearch/searchResultParserInterface.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

using namespace zq::elasticsearch;

namespace
{

struct CountingReader : SearchResultParserInterface {
    using SearchResultParserInterface::SearchResultParserInterface;

    int documents = 0;

    void onNewDocument(const std::string &, const std::string &, const std::string &, const std::string &,
                       const std::string &) override
    {
        ++documents;
    }
};

} // namespace

int main(int argc, char **argv)
{
    const BlockScanner *wanted = nullptr;
    for (const BlockScanner &scanner : blockScanners())
        if (argc != 3)
            std::cout << scanner.name << '\n';
        else if (scanner.name == std::string_view(argv[1]))
            wanted = &scanner;
    if (!wanted)
        return argc == 3 ? 1 : 0;
    std::ifstream file(argv[2], std::ios::binary);
    const std::string response{std::istreambuf_iterator<char>(file), {}};
    constexpr std::size_t ChunkBytes = 16384;
    CountingReader reader(*wanted);
    for (std::size_t at = 0; at < response.size(); at += ChunkBytes)
        reader.addData(response.data() + at, std::min(ChunkBytes, response.size() - at));
    std::cout << reader.documents << '\n';
    return reader.finish(nullptr) ? 0 : 1;
}
