// simdjson, which wants the whole response in memory and a few bytes behind it that it may read. Its parsers
// are kept from page to page, as its documentation advises.
#include "contestants.h"

#include <simdjson.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace veltrane::bench
{

namespace
{

static_assert(Page::Padding >= simdjson::SIMDJSON_PADDING);

Contestant wholeTree()
{
    const auto parser = std::make_shared<simdjson::dom::parser>();
    return {"simdjson DOM", 0, [parser](const Page &page) {
                const auto tree = parser->parse(page.text.data(), page.text.size(), false);
                if (tree.error() != simdjson::SUCCESS)
                    throw std::runtime_error(std::string("simdjson DOM: ") +
                                             simdjson::error_message(tree.error()));
            }};
}

namespace ondemand = simdjson::ondemand;

// Takes of each hit what the module's reader takes; look(source) may look into its source. Throws
// simdjson::simdjson_error.
template <class Look>
void walkHits(const std::string &name, ondemand::parser &parser, const Page &page, Look look)
{
    ondemand::document response =
        parser.iterate(page.text.data(), page.text.size(), page.text.size() + Page::Padding);
    std::size_t hits = 0, contentBytes = 0, idBytes = 0;
    double scores = 0;
    for (ondemand::object hit : response["hits"]["hits"].get_array()) {
        idBytes += std::string_view(hit["_id"]).size();
        scores += double(hit["_score"]);
        ondemand::object source = hit["_source"];
        look(source);
        contentBytes += std::string_view(source.raw_json()).size();
        ++hits;
    }
    page.expect(name, hits, contentBytes);
    if (idBytes == 0 || scores == 0)
        throw std::runtime_error(name + " found no ids or no scores");
}

Contestant onDemand()
{
    const auto parser = std::make_shared<simdjson::ondemand::parser>();
    const std::string name = "simdjson On-Demand";
    return {name, 0, [=](const Page &page) { walkHits(name, *parser, page, [](ondemand::object &) {}); }};
}

// A value as it stands, as the module's reader has it.
std::string_view asItStands(ondemand::value value)
{
    switch (value.type()) {
    case ondemand::json_type::array:
        return ondemand::array(value.get_array()).raw_json();
    case ondemand::json_type::object:
        return ondemand::object(value.get_object()).raw_json();
    default:
        return value.raw_json_token();
    }
}

// Paths of one name or two. Each member is compared with the path that is likely to be next, then with all.
class PathWalk
{
public:
    explicit PathWalk(const std::vector<std::string> &paths)
    {
        for (const std::string &path : paths) {
            const std::size_t dot = std::min(path.find('.'), path.size());
            wanted.push_back({path.substr(0, dot), dot == path.size() ? "" : path.substr(dot + 1)});
        }
    }

    void read(ondemand::object &source)
    {
        std::size_t next = 0;
        for (ondemand::field member : source) {
            const Wanted *found = nullptr;
            for (std::size_t i = 0; i < wanted.size() && !found; ++i) {
                const std::size_t place = (next + i) % wanted.size();
                if (member.key() == wanted[place].outer) {
                    found = &wanted[place];
                    next = place + 1;
                }
            }
            if (!found)
                continue;
            ++fields;
            ondemand::value value = member.value();
            bytes += found->inner.empty()
                         ? asItStands(value).size()
                         : asItStands(value.get_object().find_field_unordered(found->inner)).size();
        }
    }

    std::size_t fields = 0;
    std::size_t bytes = 0;

private:
    struct Wanted {
        std::string outer, inner;
    };
    std::vector<Wanted> wanted;
};

// Two ways: asking for one field after the other, and going through the members.
Contestant onDemandFinding()
{
    const auto parser = std::make_shared<ondemand::parser>();
    const std::string name = "simdjson On-Demand, ten fields asked for";
    return {name, 0, [=](const Page &page) {
                std::size_t fields = 0, bytes = 0;
                walkHits(name, *parser, page, [&](ondemand::object &source) {
                    for (const std::string &path : tenFields()) {
                        const std::size_t dot = path.find('.');
                        ondemand::value value = source.find_field_unordered(path.substr(0, dot));
                        if (dot != std::string::npos)
                            value = value.find_field_unordered(path.substr(dot + 1));
                        bytes += asItStands(value).size();
                        ++fields;
                    }
                });
                page.expectFields(name, fields, bytes);
            }};
}

Contestant onDemandWalking()
{
    const auto parser = std::make_shared<ondemand::parser>();
    const std::string name = "simdjson On-Demand, ten fields walked to";
    return {name, 0, [=](const Page &page) {
                PathWalk walk(tenFields());
                walkHits(name, *parser, page, [&](ondemand::object &source) { walk.read(source); });
                page.expectFields(name, walk.fields, walk.bytes);
            }};
}

} // namespace

std::vector<Contestant> simdjsonReaders() { return {wholeTree(), onDemand()}; }

std::vector<Contestant> simdjsonFieldReaders() { return {onDemand(), onDemandFinding(), onDemandWalking()}; }

std::string describeSimdjson()
{
    using namespace simdjson;
    return std::to_string(SIMDJSON_VERSION_MAJOR) + "." + std::to_string(SIMDJSON_VERSION_MINOR) + "." +
           std::to_string(SIMDJSON_VERSION_REVISION) + " (" + get_active_implementation()->name() + ")";
}

} // namespace veltrane::bench
