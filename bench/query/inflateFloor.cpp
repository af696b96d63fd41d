// What decompressing costs: inflates the contents of a result one by one, with one state and one buffer.
//
//   inflateFloor KIND DOCUMENTS LEVEL      the level of zlib that they were compressed with
//
// Prints {"seconds":...,"bytes":...}: the bytes are those of all texts.
#include "documentCycle.h"
#include "stopwatch.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>
#include <zlib.h>

namespace veltrane::bench
{
namespace
{

std::string compressed(const std::string &content, int level)
{
    uLongf size = compressBound(content.size());
    std::string stream(size, '\0');
    if (compress2(reinterpret_cast<Bytef *>(stream.data()), &size,
                  reinterpret_cast<const Bytef *>(content.data()), content.size(), level) != Z_OK)
        throw std::invalid_argument("no level of zlib");
    stream.resize(size);
    stream.shrink_to_fit();
    return stream;
}

class Inflater
{
public:
    explicit Inflater(std::size_t largestText) : buffer(largestText, '\0')
    {
        if (inflateInit(&stream) != Z_OK)
            throw std::bad_alloc();
    }
    ~Inflater() { inflateEnd(&stream); }
    Inflater(const Inflater &) = delete;
    Inflater &operator=(const Inflater &) = delete;

    std::size_t textSize(const std::string &value)
    {
        inflateReset(&stream);
        stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(value.data()));
        stream.avail_in = static_cast<uInt>(value.size());
        stream.next_out = reinterpret_cast<Bytef *>(buffer.data());
        stream.avail_out = static_cast<uInt>(buffer.size());
        if (inflate(&stream, Z_FINISH) != Z_STREAM_END)
            throw std::runtime_error("inflate failed");
        return stream.total_out;
    }

private:
    z_stream stream{};
    std::string buffer;
};

void run(const std::string &kindName, std::uint64_t documents, int level)
{
    const DocumentKind kind = kindNamed(kindName);
    std::vector<std::string> values;
    std::size_t largest = 0;
    while (values.size() < std::min(documents, documentsInCycle(kind))) {
        const std::string content = makeSource(kind, values.size());
        largest = std::max(largest, content.size());
        values.push_back(compressed(content, level));
    }

    // Twice the room that any text needs: inflate is slower near the end of its buffer.
    Inflater inflater(2 * largest);
    std::size_t bytes = 0;
    const Stopwatch watch;
    for (std::uint64_t number = 0; number < documents; ++number)
        bytes += inflater.textSize(values[number % values.size()]);
    std::printf("{\"seconds\":%.6f,\"bytes\":%zu}\n", watch.seconds(), bytes);
}

} // namespace
} // namespace veltrane::bench

int main(int count, char **arguments)
{
    try {
        if (count != 4)
            throw std::invalid_argument("inflateFloor KIND DOCUMENTS LEVEL");
        veltrane::bench::run(arguments[1], std::stoull(arguments[2]), std::stoi(arguments[3]));
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "inflateFloor: %s\n", error.what());
        return 1;
    }
}
