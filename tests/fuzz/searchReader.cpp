#include "chunkedText.h"
#include "elasticsearch/jsonBlockScan.h"
#include "readerPair.h"
#include "targets.h"

namespace
{

/// How many "hits" the reader is inside of; it says so only in the text of an end that comes too early.
char hitTagOf(ReferenceSearchReader &reader)
{
    const std::string_view label = "hittag => ";
    std::string message;
    return reader.finish(&message) ? '0' : message[message.find(label) + label.size()];
}

/// Whether the array of hits came to its end, which only a closing bracket can bring about.
bool endsHits(const std::string &text)
{
    Collecting<ReferenceSearchReader> reader;
    bool ended = false;
    std::size_t at = 0;
    for (std::size_t bracket; (bracket = text.find(']', at)) != std::string::npos; at = bracket + 1) {
        reader.addData(text.data() + at, bracket - at);
        const char before = hitTagOf(reader);
        reader.addData(&text[bracket], 1);
        ended = ended || (before == '2' && hitTagOf(reader) == '1');
    }
    return ended;
}

/// What the reader shows and the reference reader does not.
std::string checkRest(const std::vector<std::string_view> &chunks)
{
    const std::size_t errorText = std::string_view("json to utf8 conversion error").size();
    FastReader reader;
    std::string text;
    for (const std::string_view chunk : chunks) {
        reader.addData(chunk.data(), chunk.size());
        text += chunk;
        // A byte may be part of a value and of an unfinished string, no more.
        if (reader.pendingBytes() > 2 * text.size() + errorText) {
            return "holds " + std::to_string(reader.pendingBytes()) + " of " + std::to_string(text.size());
        }
    }
    return reader.hasHits() == endsHits(text) ? "" : "wrong about the end of the hits";
}

} // namespace

std::string searchReader(std::string_view input)
{
    const std::vector<std::string_view> chunks = chunksOf(input);
    for (const zq::elasticsearch::BlockScanner &scanner : zq::elasticsearch::blockScanners()) {
        zq::elasticsearch::useBlockScanner(scanner);
        ReaderPair pair;
        for (const std::string_view chunk : chunks) {
            pair.feed(chunk);
        }
        if (!pair.disagreement().empty()) {
            return scanner.name + (": " + pair.disagreement());
        }
    }
    return checkRest(chunks);
}
