// A reader of whole search responses for tests: it goes byte by byte through the grammar. It judges the exact
// reader and what that is made of, and shares nothing with them but the structs that they fill.
#pragma once

#include "elasticsearch/searchResponseReader.h"
#include "referenceJsonString.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// As decodeSimply, but an escaped pair of surrogates is one character.
inline std::optional<std::string> decodeTextSimply(std::string_view text)
{
    const std::string raw(text);
    const auto isHalf = [&](std::size_t at, const char *second) {
        return (raw.compare(at, 3, "\\ud") == 0 || raw.compare(at, 3, "\\uD") == 0) &&
               raw.find_first_of(second, at + 3) == at + 3 &&
               raw.find_first_not_of("0123456789abcdefABCDEF", at + 4) >= at + 6;
    };
    const auto bitsAt = [&](std::size_t at) {
        return std::stoul(raw.substr(at + 3, 3), nullptr, 16) & 0x3FF;
    };
    std::string joined;
    for (std::size_t at = 0; at < raw.size(); ++at) {
        if (at + 12 <= raw.size() && isHalf(at, "89abAB") && isHalf(at + 6, "cdefCDEF")) {
            utf8::append(static_cast<char32_t>(0x10000 + (bitsAt(at) << 10) + bitsAt(at + 6)),
                         std::back_inserter(joined));
            at += 11;
        } else {
            joined += raw[at];
            if (raw[at] == '\\' && at + 1 < raw.size())
                joined += raw[++at];
        }
    }
    return decodeSimply(joined);
}

// A place in a text, and the grammar from there.
struct PlainJson {
    struct Fault {
        std::size_t at; // npos where the text is cut off
    };

    std::string_view text;
    std::size_t at = 0;

    char here() const { return at < text.size() ? text[at] : throw Fault{text.npos}; }
    bool isAt(std::string_view bytes) const { return bytes.find(here()) != std::string_view::npos; }

    bool isAtEnd()
    {
        while (at < text.size() && isAt(" \t\r\n"))
            ++at;
        return at == text.size();
    }

    char next()
    {
        isAtEnd();
        return here();
    }

    void expect(char byte)
    {
        if (next() != byte)
            throw Fault{at};
        ++at;
    }

    // What is wrong in a string shows when its end is there.
    std::string_view string()
    {
        expect('"');
        const std::size_t begin = at;
        std::optional<std::size_t> wrong;
        const auto require = [&](bool isRight, std::size_t where) {
            if (!isRight && !wrong)
                wrong = where;
        };
        for (; here() != '"'; ++at) {
            require(static_cast<unsigned char>(here()) >= 0x20, at);
            if (here() != '\\')
                continue;
            ++at;
            require(isAt("\"\\/bfnrtu"), at);
            for (std::size_t digit = at + 1; here() == 'u' && digit < std::min(at + 5, text.size()); ++digit)
                require(std::string_view("0123456789abcdefABCDEF").find(text[digit]) != text.npos, digit);
        }
        if (wrong)
            throw Fault{*wrong};
        return text.substr(begin, at++ - begin);
    }

    void digits()
    {
        if (!isAt("0123456789"))
            throw Fault{at};
        while (isAt("0123456789"))
            ++at;
    }

    std::string_view scalar()
    {
        const char first = next();
        const std::size_t begin = at;
        const std::string_view word = first == 't' ? "true" : first == 'f' ? "false" : "null";
        if (first == word[0]) {
            for (const char byte : word) {
                if (here() != byte)
                    throw Fault{begin};
                ++at;
            }
            return word;
        }
        if (!isAt("-0123456789"))
            throw Fault{at};
        at += first == '-';
        const std::size_t whole = at;
        digits();
        if (text[whole] == '0' && at - whole > 1)
            throw Fault{whole};
        if (isAt(".")) {
            ++at;
            digits();
        }
        if (isAt("eE")) {
            ++at;
            at += isAt("+-");
            digits();
        }
        return text.substr(begin, at - begin);
    }

    template <class Take>
    void members(Take take)
    {
        expect('{');
        for (bool isFirst = true; next() != '}'; isFirst = false) {
            if (!isFirst)
                expect(',');
            const std::string_view raw = string();
            expect(':');
            take(decodeTextSimply(raw).value_or(std::string(raw)));
        }
        ++at;
    }

    template <class Take>
    void elements(Take take)
    {
        expect('[');
        for (bool isFirst = true; next() != ']'; isFirst = false) {
            if (!isFirst)
                expect(',');
            next();
            take();
        }
        ++at;
    }

    std::string_view value()
    {
        const char first = next();
        const std::size_t begin = at;
        if (first == '{')
            members([&](const std::string &) { value(); });
        else if (first == '[')
            elements([&] { value(); });
        else if (first == '"')
            string();
        else
            scalar();
        return text.substr(begin, at - begin);
    }

    // A value, of whose strings only the end counts.
    std::string_view anyValue()
    {
        if (next() == '{' || here() == '[')
            return container();
        if (here() != '"')
            return scalar();
        const std::size_t begin = at++;
        for (; here() != '"'; ++at)
            at += here() == '\\';
        ++at;
        return text.substr(begin, at - begin);
    }

    // An object or array up to where as many brackets are closed as opened; a quote behind a backslash is
    // none.
    std::string_view container()
    {
        if (next() != '{' && here() != '[')
            throw Fault{at};
        const std::size_t begin = at;
        int braces = 0, depth = 0;
        bool inString = false;
        do {
            if (here() == '\\') {
                ++at;
                if (isAt("\"\\"))
                    continue;
            }
            const char byte = here();
            inString = inString != (byte == '"');
            const int step = inString ? 0 : isAt("{[") - isAt("}]");
            depth += step;
            braces += isAt("{}") ? step : 0;
        } while (++at, depth > 0);
        if (braces != 0)
            throw Fault{at - 1};
        return text.substr(begin, at - begin);
    }
};

// Looks for the paths in an object: a value's own path is the names that led to it, joined by dots.
struct ReferenceFinder {
    PlainJson &json;
    const std::vector<std::string> &paths;
    std::vector<zq::elasticsearch::FieldValue> &found;

    // Of an object or array; `before` are the names that led to it, each with a dot.
    void inside(const std::string &before)
    {
        if (json.next() == '{')
            json.members([&](const std::string &name) { value(before + name); });
        else
            json.elements([&] { json.isAt("{[") ? inside(before) : void(json.anyValue()); });
    }

    void value(const std::string &path)
    {
        json.next();
        const std::size_t begin = json.at, place = found.size();
        bool leadsOn = false;
        for (std::size_t i = 0; i < paths.size(); ++i) {
            if (paths[i] == path)
                found.push_back({static_cast<std::uint32_t>(i), ""});
            leadsOn = leadsOn || paths[i].rfind(path + ".", 0) == 0;
        }
        const std::size_t end = found.size();
        if (leadsOn && json.isAt("{["))
            inside(path + ".");
        else
            json.anyValue();
        for (std::size_t i = place; i < end; ++i)
            found[i].value = json.text.substr(begin, json.at - begin);
    }
};

// Shows what SearchResponseReader shows.
class ReferenceResponseReader
{
public:
    using HitMember = zq::elasticsearch::HitMember;
    // In the order of HitMember.
    static constexpr std::array<std::string_view, 9> MemberNames = {
        "_index", "_id", "_score", "_source", "highlight", "sort", "fields", "inner_hits", "_explanation"};

    explicit ReferenceResponseReader(std::string_view text, const std::vector<std::string> &paths = {})
        : json{text}, paths(paths)
    {
        try {
            json.members([&](const std::string &name) { readMember(name); });
            if (!json.isAtEnd())
                throw PlainJson::Fault{json.at};
            problemText = !errorText.empty() ? "error in place of hits" : hasHits ? "" : "no hits";
        } catch (const PlainJson::Fault &fault) {
            const bool isCut = fault.at == text.npos;
            problemText = (isCut ? "response cut off at byte " : " at byte ") +
                          std::to_string(isCut ? text.size() : fault.at + 1);
            problemText = text.empty() ? "empty response" : problemText;
        }
    }

    const std::string &problem() const { return problemText; }
    std::string_view error() const { return errorText; }
    std::string_view shards() const { return shardsText; }
    std::string_view aggregations() const { return aggregationsText; }
    const zq::elasticsearch::ResponseSummary &summary() const { return found; }
    std::size_t hitCount() const { return hits.size(); }
    std::string_view member(std::size_t hit, HitMember member) const
    {
        return hits[hit][static_cast<std::size_t>(member)];
    }

    std::size_t fieldCount(std::size_t hit) const { return fields[hit].size(); }
    zq::elasticsearch::FieldValue field(std::size_t hit, std::size_t i) const { return fields[hit][i]; }

    static std::optional<std::string> decode(std::string_view raw) { return decodeTextSimply(raw); }

    // The member `type` of an object as text; nothing for null and for what is no scalar.
    static std::optional<std::string> typeOf(std::string_view object)
    {
        std::optional<std::string> type;
        PlainJson json{object};
        try {
            json.members([&](const std::string &name) {
                std::optional<std::string> value;
                if (json.next() == '"')
                    value = decodeTextSimply(json.string()).value_or("<malformed>");
                else if (json.isAt("{["))
                    json.container();
                else if (const std::string_view scalar = json.scalar(); scalar != "null")
                    value = scalar;
                type = name == "type" ? value : type;
            });
        } catch (const PlainJson::Fault &) {
            return "<malformed>";
        }
        return type;
    }

private:
    using Hit = std::array<std::string_view, MemberNames.size()>;

    std::int64_t count(std::uint64_t most)
    {
        json.next();
        const std::size_t begin = json.at;
        const std::string digits(json.scalar());
        if (digits == "-0")
            return 0;
        if (digits.size() > 19 || digits.find_first_not_of("0123456789") != std::string::npos ||
            std::stoull(digits) > most)
            throw PlainJson::Fault{begin};
        return static_cast<std::int64_t>(std::stoull(digits));
    }

    std::string decoded()
    {
        json.next();
        const std::size_t begin = json.at;
        const auto text = decodeTextSimply(json.string());
        return text ? *text : throw PlainJson::Fault{begin};
    }

    void readMember(const std::string &name)
    {
        if (name == "hits")
            readHits();
        else if (name == "_scroll_id")
            found.scrollId = decoded();
        else if (name == "timed_out")
            found.timedOut = json.value() == "true";
        else if (name == "_shards")
            readShards();
        else if (name == "_clusters")
            readClusters();
        else
            (name == "error"          ? errorText
             : name == "aggregations" ? aggregationsText
                                      : ignored) = json.value();
    }

    void readHits()
    {
        hits.clear();
        fields.clear();
        hasHits = found.hasTotal = found.totalIsLowerBound = false;
        found.total = 0;
        json.members([&](const std::string &name) {
            if (name == "total") {
                readTotal();
            } else if (name == "hits") {
                hits.clear();
                fields.clear();
                json.elements([&] { readHit(); });
                hasHits = true;
            } else {
                json.value();
            }
        });
    }

    void readTotal()
    {
        found.hasTotal = json.next() != '{';
        found.totalIsLowerBound = false;
        found.total = 0;
        if (found.hasTotal) {
            const std::size_t begin = json.at;
            found.hasTotal = json.scalar() != "-1";
            if (found.hasTotal) {
                json.at = begin;
                found.total = count(INT64_MAX);
            }
            return;
        }
        json.members([&](const std::string &name) {
            if (name == "value") {
                found.total = count(INT64_MAX);
                found.hasTotal = true;
            } else if (name == "relation") {
                found.totalIsLowerBound = decoded() != "eq";
            } else {
                json.value();
            }
        });
    }

    // The object's members of these names, which are counts.
    std::map<std::string, std::int64_t> counted(std::map<std::string, std::int64_t> counts)
    {
        json.members([&](const std::string &name) {
            if (counts.count(name) != 0)
                counts[name] = count(INT32_MAX);
            else
                json.value();
        });
        return counts;
    }

    void readShards()
    {
        json.next();
        const std::size_t begin = json.at;
        const auto counts = counted({{"total", 0}, {"successful", 0}, {"failed", 0}});
        found.totalShards = counts.at("total");
        found.successfulShards = counts.at("successful");
        found.failedShards = counts.at("failed");
        shardsText = json.text.substr(begin, json.at - begin);
    }

    void readClusters()
    {
        found.lackingClusters = 0;
        for (const auto &each : counted({{"skipped", 0}, {"partial", 0}, {"failed", 0}, {"running", 0}}))
            found.lackingClusters += each.second;
    }

    void readHit()
    {
        const std::size_t begin = json.at;
        Hit hit;
        std::vector<zq::elasticsearch::FieldValue> found;
        json.members([&](const std::string &name) {
            const auto known = std::find(MemberNames.begin(), MemberNames.end(), name);
            if (known == MemberNames.end()) {
                json.value();
                return;
            }
            if (name == "_source")
                found.clear();
            const bool isScalar = name == "_score" || json.next() == 'n';
            hit[known - MemberNames.begin()] = name == "_index" || name == "_id" ? json.string()
                                               : isScalar                        ? orNothing(json.scalar())
                                               : name == "_source"               ? source(found)
                                                                                 : json.container();
        });
        if (hit[static_cast<std::size_t>(HitMember::Id)].empty())
            throw PlainJson::Fault{begin};
        hits.push_back(hit);
        fields.push_back(found);
    }

    std::string_view source(std::vector<zq::elasticsearch::FieldValue> &found)
    {
        if (paths.empty() || json.next() != '{')
            return json.container();
        const std::size_t begin = json.at;
        ReferenceFinder{json, paths, found}.inside("");
        return json.text.substr(begin, json.at - begin);
    }

    static std::string_view orNothing(std::string_view scalar) { return scalar == "null" ? "" : scalar; }

    PlainJson json;
    const std::vector<std::string> paths;
    std::vector<Hit> hits;
    std::vector<std::vector<zq::elasticsearch::FieldValue>> fields;
    zq::elasticsearch::ResponseSummary found;
    std::string_view errorText, shardsText, aggregationsText, ignored;
    std::string problemText;
    bool hasHits = false;
};
