// What a reader shows, written down, and the comparison of each reader with its reference reader.
#pragma once

#include "elasticsearch/jsonBlockScan.h"
#include "referenceSearchReader.h"
#include "referenceTermAggReader.h"
#include "elasticsearch/searchResultParserInterface.h"
#include "elasticsearch/termAggResultParserInterface.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

template <class Reader>
struct SearchRecord : Reader {
    using Reader::Reader;

    static constexpr const char *handMade = "search.txt";
    std::string events; // the hits
    bool goesOn = true; // the last verdict

    void onNewDocument(const std::string &id, const std::string &source, const std::string &score,
                       const std::string &highlight, const std::string &type) override
    {
        events += "[" + id + "][" + source + "][" + score + "][" + highlight + "][" + type + "] ";
    }

    // All else that can be asked at this moment; numbers that are 0 are left out.
    std::string state()
    {
        const auto &status = this->getStatus();
        const std::pair<const char *, std::int64_t> numbers[] = {
            {"total ", this->getTotalHits()},     {"int ", this->getTotalHitCount()},
            {"more ", this->isTotalLowerBound()}, {"shards ", status.totalShards},
            {"good ", status.successfulShards},   {"failed ", status.failedShards},
            {"late ", status.timedOut},           {"partial ", status.isPartial()},
            {"ended ", this->hasHits()},          {"stopped ", !goesOn}};
        std::string text, end = "good";
        for (const auto &[name, number] : numbers)
            if (number != 0)
                text.append(name).append(std::to_string(number)).append(" ");
        this->finish(&end);
        text.append(end).append(" <").append(this->getErrorMessage()).append("> <");
        return text.append(this->getScrollId()).append(">");
    }
};

template <class Reader, bool collectValues>
struct TermAggRecord : Reader {
    static constexpr const char *handMade = "termAgg.txt";
    std::string events; // the aggregations
    bool goesOn = true;

    TermAggRecord() : Reader(collectValues) {}
    explicit TermAggRecord(const zq::elasticsearch::BlockScanner &scanner) : Reader(collectValues, scanner) {}

    void onAttributes(const std::string &name, int count, const std::string &values) override
    {
        events += name + "=" + std::to_string(count) + values + " ";
    }

    std::string state()
    {
        const std::string verdict = goesOn ? "" : "stopped ";
        return verdict + (this->finish() ? "good <" : "bad <") + this->getErrorMessage() + ">";
    }
};

// A kind of responses: the reader under test, and the one that judges it.
struct Search {
    using Fast = SearchRecord<zq::elasticsearch::SearchResultParserInterface>;
    using Reference = SearchRecord<ReferenceSearchReader>;

    // Whether the reader owns up to all that it must hold.
    static bool ownsUp(const Fast &fast, const Reference &reference)
    {
        return fast.pendingBytes() >= reference.heldBytes();
    }
};

template <bool collectValues>
struct TermAgg {
    using Fast = TermAggRecord<zq::elasticsearch::TermAggResultParserInterface, collectValues>;
    using Reference = TermAggRecord<ReferenceTermAggReader, collectValues>;

    static bool ownsUp(const Fast &, const Reference &) { return true; }
};

template <class Reader>
void feed(Reader &reader, std::string_view chunk)
{
    reader.goesOn = reader.addData(chunk.data(), chunk.size());
}

// Readers of one kind, one for each scanner, that are fed the same.
template <class Kind>
class Readers
{
public:
    Readers()
    {
        for (const zq::elasticsearch::BlockScanner &scanner : zq::elasticsearch::blockScanners())
            readers.emplace_back(scanner);
    }

    // Takes a copy of the chunk that dies at once: a look beyond it, or back into it later, is a memory
    // error.
    void take(std::string_view chunk)
    {
        const std::vector<char> bytes(chunk.begin(), chunk.end());
        for (auto &reader : readers)
            feed(reader, {bytes.data(), bytes.size()});
    }

    // Where they differ from the reference reader, or nothing.
    std::string differenceFrom(typename Kind::Reference &reference)
    {
        const std::string expected = reference.state();
        for (auto &reader : readers) {
            const std::string seen = reader.state();
            const bool sameEvents = reader.events.compare(compared, std::string::npos, reference.events,
                                                          compared, std::string::npos) == 0;
            if (seen != expected || !sameEvents || !Kind::ownsUp(reader, reference)) {
                return "saw: " + reader.events + seen + "\nexpected: " + reference.events + expected +
                       (Kind::ownsUp(reader, reference) ? "" : "\nholds more than it tells");
            }
        }
        compared = reference.events.size();
        return "";
    }

private:
    std::size_t compared = 0; // how much of the events was the same before
    std::deque<typename Kind::Fast> readers;
};

// Cuts a text into chunks of these sizes, used in turn. A size of 0 stands for an empty chunk, with one byte
// behind it so that there is an end.
inline std::vector<std::string_view> cut(std::string_view text, const std::vector<std::size_t> &sizes)
{
    std::vector<std::string_view> chunks;
    for (std::size_t turn = 0; !text.empty(); ++turn) {
        const std::size_t size = sizes[turn % sizes.size()];
        if (size == 0)
            chunks.emplace_back();
        chunks.push_back(text.substr(0, std::max<std::size_t>(size, 1)));
        text.remove_prefix(chunks.back().size());
    }
    return chunks;
}

// Where the readers differ after any of the chunks, or nothing.
template <class Kind>
std::string differenceIn(const std::vector<std::string_view> &chunks)
{
    Readers<Kind> readers;
    typename Kind::Reference reference;
    std::string difference;
    for (std::size_t i = 0; i < chunks.size() && difference.empty(); ++i) {
        readers.take(chunks[i]);
        feed(reference, chunks[i]);
        difference = readers.differenceFrom(reference);
    }
    return difference;
}

// Where the readers differ when the text is cut in two at every `stride`-th byte, or nothing.
template <class Kind>
std::string differenceWhenCut(std::string_view text, std::size_t stride)
{
    typename Kind::Reference begun, whole;
    feed(whole, text);
    std::string difference;
    for (std::size_t at = 0; at <= text.size() && difference.empty(); ++at) {
        if (at % stride == 0) {
            Readers<Kind> readers;
            readers.take(text.substr(0, at));
            difference = readers.differenceFrom(begun);
            readers.take(text.substr(at));
            difference += readers.differenceFrom(whole);
        }
        feed(begun, text.substr(at, 1));
    }
    return difference;
}
