// Each target compares what the code under test makes of the input with what a simpler way makes of it.
#include "targets.h"

#include "comparison.h"
#include "elasticsearch/jsonString.h"
#include "elasticsearch/jsonWriter.h"
#include "exactComparison.h"
#include "parameterText.h"

#include <map>
#include <sstream>

using namespace qm::pgFdwElaticSearch;

namespace
{

// The text in the chunks that its input asks for.
std::vector<std::string_view> chunksOf(std::string_view input)
{
    if (input.empty())
        return {};
    const std::string_view sizeBytes = input.substr(1, static_cast<unsigned char>(input[0]) % 16);
    std::vector<std::size_t> sizes;
    for (const unsigned char size : sizeBytes)
        sizes.push_back(size);
    const std::string_view text = input.substr(1 + sizes.size());
    return cut(text, sizes.empty() ? std::vector<std::size_t>{text.size()} : sizes);
}

std::string differ(const std::string &seen, const std::string &expected)
{
    return seen == expected ? "" : "saw <" + seen + ">, expected <" + expected + ">";
}

// Escapes a valid text by its bytes. The control characters 128 to 159 are the bytes C2 80 to C2 9F.
std::string escapeSimply(const std::string &text)
{
    const std::string withLetter = "\b\t\n\f\r\"\\", letters = "btnfr\"\\", HexDigits = "0123456789ABCDEF";
    std::string escaped;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::size_t index = withLetter.find(text[at]);
        const bool isHigh = text[at] == '\xC2' && static_cast<unsigned char>(text[at + 1]) < 0xA0;
        const unsigned char byte = text[isHigh ? ++at : at];
        if (index != std::string::npos)
            escaped += {'\\', letters[index]};
        else if (byte < 32 || byte == 127 || isHigh)
            escaped += {'\\', 'u', '0', '0', HexDigits[byte / 16], HexDigits[byte % 16]};
        else
            escaped += text[at];
    }
    return escaped;
}

} // namespace

std::string searchReader(std::string_view input) { return differenceIn<Search>(chunksOf(input)); }

std::string termAggReader(std::string_view input)
{
    const auto chunks = chunksOf(input);
    return differenceIn<TermAgg<true>>(chunks) + differenceIn<TermAgg<false>>(chunks);
}

std::string searchResponse(std::string_view input)
{
    ExactReaders readers(1), finders(1, {"a", "a.b", "type", "text", "k.k", ""});
    return exactDifferenceIn(readers, chunksOf(input)) + exactDifferenceIn(finders, chunksOf(input));
}

std::string idDecoder(std::string_view input)
{
    const std::vector<char> raw(input.begin(), input.end()); // of exactly this size, unlike a std::string
    const auto expected = decodeSimply(std::string(input));
    std::string decoded = "what was there before";
    const bool accepted = zq::elasticsearch::decodeJsonString({raw.data(), raw.size()}, decoded);
    return differ((accepted ? "good " : "bad ") + decoded, expected ? "good " + *expected : "bad ") +
           differ(ExactReader::decode(input).value_or("bad"),
                  ReferenceResponseReader::decode(input).value_or("bad"));
}

std::string jsonEscaper(std::string_view input)
{
    const std::vector<char> bytes(input.begin(), input.end());
    const std::string text(input), before = "{\"";
    std::string out = before;
    const bool accepted = zq::elasticsearch::Utf8ToJson(bytes.data(), bytes.data() + bytes.size(), out);
    const bool isValid = utf8::is_valid(text.begin(), text.end());
    if (zq::elasticsearch::isValidUtf8({bytes.data(), bytes.size()}) != isValid)
        return "taken for what it is not";
    if (!isValid)
        return accepted ? "accepted, but should be refused" : differ(out.substr(0, 2), before);
    const auto decoded = decodeSimply(out.substr(before.size()));
    return differ((accepted ? "" : "refused ") + out, before + escapeSimply(text)) +
           differ(decoded.value_or("nothing"), text);
}

std::string params(std::string_view input)
{
    static const std::map<std::string, ParamName> names = {
        {"query", ParamName::Query},
        {"sourceincludefilter", ParamName::SourceIncludeFilter},
        {"sourceexcludefilter", ParamName::SourceExcludeFilter},
        {"compressionlevel", ParamName::CompressionLevel},
        {"highlight", ParamName::Highlight}};
    const std::string text(input);
    const Param param = splitParam(text);
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        return param.name == ParamName::Malformed && param.value == nullptr ? ""
                                                                            : "a value where there is none";
    }
    long number = 0;
    std::istringstream(param.value) >> number; // what is too large becomes the largest
    const int low = static_cast<int>(number);
    const auto name = names.find(text.substr(0, equals));
    const auto describe = [](ParamName taken, std::size_t begin, bool accepted, int level) {
        return std::to_string(static_cast<int>(taken)) + " " + std::to_string(begin) +
               (accepted ? " good " : " bad ") + std::to_string(level);
    };
    int level = 77;
    const bool accepted = readCompressionLevel(param.value, level), isLevel = low >= -2 && low <= 9;
    return differ(describe(param.name, static_cast<std::size_t>(param.value - text.c_str()), accepted, level),
                  describe(name == names.end() ? ParamName::Unknown : name->second, equals + 1, isLevel,
                           isLevel ? low : 77));
}
