// Measures how fast search responses are read. Every contestant reads the same pages; prints one JSON object
// a line, with the median speed in millions of bytes a second and the speed of each round.
//
//   readerBench [ROUNDS]     21 by default
//
// In every round each contestant reads the page for a while, and each round begins with another one: whatever
// else the machine does meets all of them alike, and their ratios within a round can be trusted.
#include "contestants.h"

#include <rapidjson/rapidjson.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <stdexcept>

namespace veltrane::bench
{

Page::Page(DocumentKind pageKind, std::size_t count)
    : kind(pageKind), text(makeResponse(pageKind, 0, count, count, "c2Nyb2xs")), hits(count), contentBytes(0)
{
    text.reserve(text.size() + Padding);
    for (std::size_t number = 0; number < hits; ++number)
        contentBytes += makeSource(kind, number).size();
}

void Page::expect(const std::string &reader, std::size_t foundHits, std::size_t foundBytes) const
{
    if (foundHits != hits || foundBytes != contentBytes) {
        throw std::runtime_error(reader + " found " + std::to_string(foundHits) + " hits with " +
                                 std::to_string(foundBytes) + " bytes of content; there are " +
                                 std::to_string(hits) + " with " + std::to_string(contentBytes));
    }
}

void Page::expectFields(const std::string &reader, std::size_t foundFields, std::size_t foundBytes) const
{
    fieldBytes = fieldBytes.value_or(foundBytes);
    if (foundFields != hits * tenFields().size() || foundBytes != fieldBytes)
        throw std::runtime_error(reader + " found " + std::to_string(foundFields) + " fields with " +
                                 std::to_string(foundBytes) + " bytes; the first reader " +
                                 std::to_string(*fieldBytes));
}

namespace
{

// The microseconds that this process has been computing. Waiting for a processor that others use is no part
// of it, and no contestant does anything but compute.
double processorTime()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// Millions of bytes a second, measured over at least 30 ms.
double measureSpeed(const Contestant &contestant, const Page &page)
{
    constexpr double AtLeast = 30'000;
    const double begin = processorTime();
    double elapsed = 0, bytes = 0;
    do {
        contestant.read(page);
        bytes += static_cast<double>(page.text.size());
        elapsed = processorTime() - begin;
    } while (elapsed < AtLeast);
    return bytes / elapsed;
}

void print(const char *measure, const Contestant &contestant, const Page &page,
           const std::vector<double> &speeds)
{
    std::vector<double> sorted = speeds;
    std::sort(sorted.begin(), sorted.end());
    std::printf(R"({"measure":"%s","kind":"%s","contestant":"%s","chunk":%zu,"MBps":%.1f,"rounds":[)",
                measure, nameOf(page.kind), contestant.name.c_str(), contestant.chunk,
                sorted[sorted.size() / 2]);
    for (std::size_t round = 0; round < speeds.size(); ++round)
        std::printf("%s%.1f", round == 0 ? "" : ",", speeds[round]);
    std::puts("]}");
}

void measure(const char *name, const std::vector<Contestant> &contestants, const Page &page,
             std::size_t rounds)
{
    for (const Contestant &contestant : contestants)
        contestant.read(page); // checks it, and warms it up
    std::vector<std::vector<double>> speeds(contestants.size());
    for (std::size_t round = 0; round < rounds; ++round) {
        for (std::size_t turn = 0; turn < contestants.size(); ++turn) {
            const std::size_t which = (round + turn) % contestants.size();
            speeds[which].push_back(measureSpeed(contestants[which], page));
        }
    }
    for (std::size_t which = 0; which < contestants.size(); ++which)
        print(name, contestants[which], page, speeds[which]);
    std::fflush(stdout);
}

void measureAll(std::size_t rounds)
{
    std::vector<Contestant> contestants = streamingReaders();
    for (const auto &others : {exactReaders(), simdjsonReaders(), rapidJsonReaders(), rapidJsonSse2Readers()})
        contestants.insert(contestants.end(), others.begin(), others.end());
    std::printf(R"({"measure":"versions","compiler":"%s","simdjson":"%s","RapidJSON":"%s"})"
                "\n",
                __VERSION__, describeSimdjson().c_str(), RAPIDJSON_VERSION_STRING);
    for (const DocumentKind kind :
         {DocumentKind::Small, DocumentKind::Medium, DocumentKind::Large, DocumentKind::Dense})
        measure("reader", contestants, Page(kind, kind == DocumentKind::Large ? 100 : 1000), rounds);
    std::vector<Contestant> finders = exactFieldReaders();
    for (const Contestant &other : simdjsonFieldReaders())
        finders.push_back(other);
    measure("fields", finders, Page(DocumentKind::Fields, 1000), rounds);
}

} // namespace

} // namespace veltrane::bench

int main(int count, char **arguments)
{
    try {
        const int rounds = count > 1 ? std::atoi(arguments[1]) : 21;
        if (rounds < 1)
            throw std::invalid_argument(std::string("not a number of rounds: ") + arguments[1]);
        veltrane::bench::measureAll(static_cast<std::size_t>(rounds));
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
