// simdjson, which wants the whole response in memory and a few bytes behind it that it may read. Its parsers
// are kept from page to page, as its documentation advises.
#include "contestants.h"

#include <simdjson.h>

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

// Takes of each hit what the module's reader takes. Throws simdjson::simdjson_error.
void walkHits(const std::string &name, simdjson::ondemand::parser &parser, const Page &page)
{
    namespace ondemand = simdjson::ondemand;
    ondemand::document response =
        parser.iterate(page.text.data(), page.text.size(), page.text.size() + Page::Padding);
    std::size_t hits = 0, contentBytes = 0, idBytes = 0;
    double scores = 0;
    for (ondemand::object hit : response["hits"]["hits"].get_array()) {
        idBytes += std::string_view(hit["_id"]).size();
        scores += double(hit["_score"]);
        ondemand::object source = hit["_source"];
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
    return {name, 0, [=](const Page &page) { walkHits(name, *parser, page); }};
}

} // namespace

std::vector<Contestant> simdjsonReaders() { return {wholeTree(), onDemand()}; }

std::string describeSimdjson()
{
    using namespace simdjson;
    return std::to_string(SIMDJSON_VERSION_MAJOR) + "." + std::to_string(SIMDJSON_VERSION_MINOR) + "." +
           std::to_string(SIMDJSON_VERSION_REVISION) + " (" + get_active_implementation()->name() + ")";
}

} // namespace veltrane::bench
