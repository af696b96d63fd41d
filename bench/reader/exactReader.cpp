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

constexpr std::size_t UsualChunk = 16384, SmallChunk = 1024;

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

// Of each hit all fields that were looked for, too.
void takeFields(const std::string &name, const SearchResponseReader &reader, const Page &page)
{
    std::size_t fields = 0, fieldBytes = 0;
    for (std::size_t hit = 0; hit < reader.hitCount(); ++hit) {
        fields += reader.fieldCount(hit);
        for (std::size_t i = 0; i < reader.fieldCount(hit); ++i)
            fieldBytes += reader.field(hit, i).value.size();
    }
    page.expectFields(name, fields, fieldBytes);
}

Contestant exact(const std::string &name, std::size_t chunk, const std::vector<std::string> &paths)
{
    const auto reader = std::make_shared<SearchResponseReader>();
    reader->lookFor(paths);
    return {name, chunk, [=](const Page &page) {
                reader->clear();
                for (std::size_t at = 0; at < page.text.size(); at += chunk)
                    reader->read(page.text.data() + at, std::min(chunk, page.text.size() - at));
                if (!reader->finish())
                    throw std::runtime_error(name + ": " + reader->problem());
                takeHits(name, *reader, page);
                if (!paths.empty())
                    takeFields(name, *reader, page);
            }};
}

} // namespace

std::vector<Contestant> exactReaders()
{
    return {exact("exact", UsualChunk, {}), exact("exact", SmallChunk, {})};
}

std::vector<Contestant> exactFieldReaders()
{
    return {exact("exact", UsualChunk, {}), exact("exact, ten fields", UsualChunk, tenFields())};
}

} // namespace veltrane::bench
