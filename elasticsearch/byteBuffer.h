// Bytes in one piece that grow.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace zq::elasticsearch
{

// Grows through realloc, which moves the pages of a large buffer instead of copying them, and keeps its
// memory when it is emptied.
class ByteBuffer
{
public:
    ByteBuffer() = default;
    ~ByteBuffer() { std::free(bytes); }
    ByteBuffer(const ByteBuffer &) = delete;
    ByteBuffer &operator=(const ByteBuffer &) = delete;

    // Throws std::bad_alloc, and is as before then.
    void append(const char *data, std::size_t length)
    {
        if (length == 0)
            return; // nor may memcpy be given no buffer then
        if (length > capacity - used)
            grow(used + length);
        std::memcpy(bytes + used, data, length);
        used += length;
    }
    void clear() { used = 0; }

    char *data() { return bytes; }
    std::size_t size() const { return used; }
    std::string_view view() const { return {bytes, used}; }

private:
    void grow(std::size_t least)
    {
        constexpr std::size_t Smallest = std::size_t{16} << 10;
        std::size_t larger = capacity == 0 ? Smallest : capacity;
        while (larger < least)
            larger *= 2;
        void *moved = std::realloc(bytes, larger);
        if (!moved)
            throw std::bad_alloc();
        bytes = static_cast<char *>(moved);
        capacity = larger;
    }

    char *bytes = nullptr;
    std::size_t used = 0;
    std::size_t capacity = 0;
};

} // namespace zq::elasticsearch
