// What compressing costs: deflates the contents of a result one by one, with one stream and one buffer.
//
//   deflateFloor KIND DOCUMENTS LEVEL      a level of zlib, or -2 for contents as they are
//
// Prints {"seconds":...,"bytes":...}: the bytes are those of all values as the module stores them.
#include "documentCycle.h"
#include "stopwatch.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <zlib.h>

namespace veltrane::bench
{
namespace
{

constexpr int RawLevel = -2;

// The uncompressed length before the stream.
constexpr std::size_t LengthBytes = 4;

class Deflater
{
public:
    explicit Deflater(int level)
    {
        if (deflateInit(&stream, level) != Z_OK)
            throw std::invalid_argument("no level of zlib");
    }
    ~Deflater() { deflateEnd(&stream); }
    Deflater(const Deflater &) = delete;
    Deflater &operator=(const Deflater &) = delete;

    std::size_t storedSize(const std::string &content)
    {
        deflateReset(&stream);
        const std::size_t room = deflateBound(&stream, content.size());
        if (output.size() < room)
            output.resize(room);
        stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(content.data()));
        stream.avail_in = static_cast<uInt>(content.size());
        stream.next_out = reinterpret_cast<Bytef *>(output.data());
        stream.avail_out = static_cast<uInt>(output.size());
        if (deflate(&stream, Z_FINISH) != Z_STREAM_END)
            throw std::runtime_error("deflate failed");
        return LengthBytes + stream.total_out;
    }

private:
    z_stream stream{};
    std::string output;
};

void run(const std::string &kindName, std::uint64_t documents, int level)
{
    const DocumentKind kind = kindNamed(kindName);
    std::vector<std::string> contents;
    while (contents.size() < std::min(documents, documentsInCycle(kind)))
        contents.push_back(makeSource(kind, contents.size()));

    std::size_t bytes = 0;
    double seconds = 0;
    if (level == RawLevel) {
        for (std::uint64_t number = 0; number < documents; ++number)
            bytes += contents[number % contents.size()].size();
    } else {
        Deflater deflater(level);
        const Stopwatch watch;
        for (std::uint64_t number = 0; number < documents; ++number)
            bytes += deflater.storedSize(contents[number % contents.size()]);
        seconds = watch.seconds();
    }
    std::printf("{\"seconds\":%.6f,\"bytes\":%zu}\n", seconds, bytes);
}

} // namespace
} // namespace veltrane::bench

int main(int count, char **arguments)
{
    try {
        if (count != 4)
            throw std::invalid_argument("deflateFloor KIND DOCUMENTS LEVEL");
        veltrane::bench::run(arguments[1], std::stoull(arguments[2]), std::stoi(arguments[3]));
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "deflateFloor: %s\n", error.what());
        return 1;
    }
}
