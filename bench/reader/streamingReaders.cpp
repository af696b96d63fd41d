// The readers that take a page in chunks.
#include "contestants.h"

#include "elasticsearch/jsonBlockScan.h"
#include "referenceSearchReader.h"
#include "elasticsearch/searchResultParserInterface.h"

#include <algorithm>
#include <stdexcept>

namespace veltrane::bench
{

namespace
{

using namespace zq::elasticsearch;

// Counts what `Reader` finds, so that the figure is the reader's own.
template <class Reader>
class Counter : public Reader
{
public:
    using Reader::Reader;

    std::size_t hits = 0;
    std::size_t contentBytes = 0;

    void onNewDocument(const std::string &, const std::string &content, const std::string &,
                       const std::string &, const std::string &) override
    {
        ++hits;
        contentBytes += content.size();
    }
};

template <class Reader>
void readInChunks(Counter<Reader> &reader, const std::string &name, std::size_t chunk, const Page &page)
{
    const char *const end = page.text.data() + page.text.size();
    for (const char *at = page.text.data(); at != end;) {
        const std::size_t length = std::min(chunk, static_cast<std::size_t>(end - at));
        if (!reader.addData(at, length))
            throw std::runtime_error(name + ": " + reader.getErrorMessage());
        at += length;
    }
    std::string message;
    if (!reader.finish(&message))
        throw std::runtime_error(name + ": " + message);
    page.expect(name, reader.hits, reader.contentBytes);
}

Contestant ours(const std::string &name, std::size_t chunk, const BlockScanner &scanner)
{
    return {name, chunk,
            [=](const Page &page) {
                Counter<SearchResultParserInterface> reader(scanner);
                readInChunks(reader, name, chunk, page);
            }};
}

} // namespace

std::vector<Contestant> streamingReaders()
{
    constexpr std::size_t UsualChunk = 16384, SmallChunk = 1024;
    const std::string reference = "byte by byte";
    const BlockScanner &fastest = blockScanners().front();
    std::vector<Contestant> readers = {ours("ours", UsualChunk, fastest),
                                       ours("ours", SmallChunk, fastest),
                                       {reference, UsualChunk, [=](const Page &page) {
                                            Counter<ReferenceSearchReader> reader;
                                            readInChunks(reader, reference, UsualChunk, page);
                                        }}};
    for (const BlockScanner &scanner : blockScanners())
        if (&scanner != &fastest)
            readers.push_back(ours(std::string("ours, ") + scanner.name, UsualChunk, scanner));
    return readers;
}

} // namespace veltrane::bench
