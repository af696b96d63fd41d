// What the reader measurements have read a page of hits, and the page itself.
#pragma once

#include "documents.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace veltrane::bench
{

// One complete response.
struct Page {
    DocumentKind kind;
    std::string text;         // its capacity leaves `Padding` bytes behind the text
    std::size_t hits;         // how many the text holds
    std::size_t contentBytes; // of all their `_source` objects together

    static constexpr std::size_t Padding = 64; // that much simdjson may read behind the text

    Page(DocumentKind kind, std::size_t hits);
    // Throws std::runtime_error unless that is what the page holds.
    void expect(const std::string &reader, std::size_t foundHits, std::size_t foundBytes) const;
    // Throws it unless that is how many values the hits have of tenFields(), and as many bytes of them as the
    // first who asked has found.
    void expectFields(const std::string &reader, std::size_t foundFields, std::size_t foundBytes) const;

private:
    mutable std::optional<std::size_t> fieldBytes;
};

// One way of reading a page.
struct Contestant {
    std::string name;
    std::size_t chunk; // the bytes given at a time; 0 where the page is given in one piece
    // Throws std::runtime_error when the page cannot be read, or when it is seen that hits were not found.
    std::function<void(const Page &)> read;
};

// The module's classic reader, with each way of scanning that this processor can run, and the plain reader
// that judges it in the unit tests.
std::vector<Contestant> streamingReaders();
// The module's exact reader.
std::vector<Contestant> exactReaders();
// The same with and without looking for ten fields.
std::vector<Contestant> exactFieldReaders();
// RapidJSON's event parser as it comes. It reads from memory, and its handler does nothing.
std::vector<Contestant> rapidJsonReaders();
// The same compiled for the SSE2 instructions, which RapidJSON leaves to its user; none without SSE2.
std::vector<Contestant> rapidJsonSse2Readers();
// simdjson: the whole tree, and its On-Demand walk from hit to hit.
std::vector<Contestant> simdjsonReaders();
// The On-Demand walk, with and without the values of ten fields by their names, in whatever order they come.
std::vector<Contestant> simdjsonFieldReaders();
// The version of simdjson and the instruction set that it has chosen on this processor.
std::string describeSimdjson();

} // namespace veltrane::bench
