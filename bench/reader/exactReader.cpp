// The exact reader, which takes a page in chunks too. One reads page after page, as in the module.
#include "contestants.h"

#include "elasticsearch/jsonString.h"
#include "elasticsearch/searchResponseReader.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace veltrane::bench
{

namespace
{

using namespace zq::elasticsearch;

// Takes of each hit what the classic reader hands out.
void takeHits(const std::string &name, const SearchResponseReader &reader, const Page &page)
{
    std::size_t contentBytes = 0, scoreBytes = 0;
    std::string id;
    for (std::size_t hit = 0; hit < reader.hitCount(); ++hit) {
        if (!decodeJsonText(reader.member(hit, HitMember::Id), id))
            throw std::runtime_error(name + " found an id that is not valid");
        contentBytes += reader.member(hit, HitMember::Source).size();
        scoreBytes += reader.member(hit, HitMember::Score).size();
    }
    page.expect(name, reader.hitCount(), contentBytes);
    if (scoreBytes == 0)
        throw std::runtime_error(name + " found no scores");
}

Contestant exact(std::size_t chunk)
{
    const auto reader = std::make_shared<SearchResponseReader>();
    const std::string name = "exact";
    return {name, chunk, [=](const Page &page) {
                reader->clear();
                for (std::size_t at = 0; at < page.text.size(); at += chunk)
                    reader->read(page.text.data() + at, std::min(chunk, page.text.size() - at));
                if (!reader->finish())
                    throw std::runtime_error(name + ": " + reader->problem());
                takeHits(name, *reader, page);
            }};
}

} // namespace

std::vector<Contestant> exactReaders()
{
    constexpr std::size_t UsualChunk = 16384, SmallChunk = 1024;
    return {exact(UsualChunk), exact(SmallChunk)};
}

} // namespace veltrane::bench
