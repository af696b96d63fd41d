// What the exact reader shows, written down, and its comparison with its reference reader.
#pragma once

#include "comparison.h"
#include "elasticsearch/jsonMember.h"
#include "elasticsearch/jsonString.h"
#include "referenceResponseReader.h"

// The reader, with what makes texts of what it found.
struct ExactReader : zq::elasticsearch::SearchResponseReader {
    using SearchResponseReader::SearchResponseReader;

    static std::optional<std::string> decode(std::string_view raw)
    {
        const std::vector<char> bytes(raw.begin(), raw.end()); // of exactly this size, unlike a std::string
        std::string text = "what was there before";
        const bool isGood = zq::elasticsearch::decodeJsonText({bytes.data(), bytes.size()}, text);
        return isGood ? std::optional(text) : std::nullopt;
    }

    static std::optional<std::string> typeOf(std::string_view object)
    {
        const std::vector<char> bytes(object.begin(), object.end());
        std::string type;
        switch (zq::elasticsearch::topLevelScalar({bytes.data(), bytes.size()}, "type", type)) {
        case zq::elasticsearch::Scalar::There:
            return type;
        case zq::elasticsearch::Scalar::Missing:
            return std::nullopt;
        default:
            return "<malformed>";
        }
    }
};

// All that a reader shows of a response that it has read to its end. Of what it refuses only the place
// counts, and whether it is cut there. What is missing or 0
// is left out.
template <class Reader>
std::string shown(const Reader &reader)
{
    using zq::elasticsearch::HitMember;
    constexpr auto &names = ReferenceResponseReader::MemberNames;
    const std::string &problem = reader.problem();
    const std::size_t place = problem.rfind(" at byte ");
    if (place != std::string::npos)
        return problem.rfind("response cut", 0) == 0 ? problem : problem.substr(place + 1);
    std::string text = problem.empty() ? "good" : problem;
    const auto &summary = reader.summary();
    if (summary.hasTotal)
        text += ", total " + std::to_string(summary.total);
    const std::pair<const char *, std::int64_t> numbers[] = {{"more", summary.totalIsLowerBound},
                                                             {"shards", summary.totalShards},
                                                             {"successful", summary.successfulShards},
                                                             {"failed", summary.failedShards},
                                                             {"lacking clusters", summary.lackingClusters},
                                                             {"timed out", summary.timedOut},
                                                             {"partial", summary.isPartial()}};
    for (const auto &[name, number] : numbers)
        if (number != 0)
            text.append(", ").append(name).append(" ").append(std::to_string(number));
    const std::pair<const char *, std::string_view> texts[] = {{"scroll", summary.scrollId},
                                                               {"error", reader.error()},
                                                               {"_shards", reader.shards()},
                                                               {"aggregations", reader.aggregations()}};
    for (const auto &[name, value] : texts)
        if (!value.empty())
            text.append(", ").append(name).append(" ").append(value);
    for (std::size_t hit = 0; hit < reader.hitCount(); ++hit) {
        text += " |";
        for (std::size_t i = 0; i < names.size(); ++i) {
            const std::string_view raw = reader.member(hit, static_cast<HitMember>(i));
            const std::string decoded = i < 2 ? Reader::decode(raw).value_or("<invalid>") : std::string(raw);
            text += raw.empty() ? "" : std::string(" ").append(names[i]).append(" ").append(decoded);
        }
        const std::string_view source = reader.member(hit, HitMember::Source);
        const auto type = source.empty() ? std::nullopt : Reader::typeOf(source);
        text += type ? " type " + *type : "";
        for (std::size_t i = 0; i < reader.fieldCount(hit); ++i)
            text.append(" #")
                .append(std::to_string(reader.field(hit, i).path))
                .append(" ")
                .append(reader.field(hit, i).value);
    }
    return text;
}

inline std::string expectedOf(std::string_view response, const std::vector<std::string> &paths = {})
{
    return shown(ReferenceResponseReader(response, paths));
}

// Exact readers, one for each scanner, that are given the same responses one after the other.
class ExactReaders
{
public:
    // They look at what has arrived after each `stride` bytes, and for the fields of these paths.
    explicit ExactReaders(std::size_t stride, const std::vector<std::string> &paths = {}) : paths(paths)
    {
        for (const zq::elasticsearch::BlockScanner &scanner : zq::elasticsearch::blockScanners())
            readers.emplace_back(scanner, stride).lookFor(paths);
    }

    std::string expectedOf(std::string_view response) const { return ::expectedOf(response, paths); }

    // Where they differ from what is expected of a response in these chunks, or nothing.
    std::string differenceFrom(const std::string &expected, const std::vector<std::string_view> &chunks)
    {
        std::string difference;
        for (auto &reader : readers) {
            reader.clear();
            bool isGood = true;
            for (const std::string_view chunk : chunks) {
                const std::vector<char> bytes(chunk.begin(), chunk.end()); // they die at once
                isGood = reader.read(bytes.data(), bytes.size());
            }
            const bool isWhole = reader.finish();
            const std::string seen = shown(reader);
            if (seen != expected || isWhole != (expected.rfind("good", 0) == 0) || (isWhole && !isGood))
                difference = "saw: " + seen + "\nexpected: " + expected;
        }
        return difference;
    }

private:
    const std::vector<std::string> paths;
    std::deque<ExactReader> readers;
};

// Where the readers differ in a response that comes in chunks, and again in one piece, and where in the type
// of the text as if it were a source; or nothing.
inline std::string exactDifferenceIn(ExactReaders &readers, const std::vector<std::string_view> &chunks)
{
    std::string text;
    for (const std::string_view chunk : chunks)
        text += chunk;
    const std::string expected = readers.expectedOf(text);
    const std::string difference =
        readers.differenceFrom(expected, chunks) + readers.differenceFrom(expected, {text});
    return ExactReader::typeOf(text) == ReferenceResponseReader::typeOf(text) ? difference
                                                                              : difference + "other type";
}
