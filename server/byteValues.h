// Values of the type bytea, plain and compressed.
#pragma once

#include "server/serverApi.h"

#include <cstring>

struct z_stream_s; // of zlib.h

namespace qm::server
{

// How a compressed value begins: the length of the text as an unsigned 32-bit number in the byte order of the
// machine. A zlib stream (RFC 1950) follows.
struct CompressedHeader {
    static constexpr Size size = sizeof(uint32);

    static void write(char *bytes, uint32 textLength) { std::memcpy(bytes, &textLength, size); }
    static uint32 read(const char *bytes)
    {
        uint32 textLength = 0;
        std::memcpy(&textLength, bytes, size);
        return textLength;
    }
};

// The compression level that leaves values as they are.
constexpr int RawLevel = -2;

// zlib's state for one value after the other: made at the first value, about 260 KiB, and then used again.
// Plain data; all zero but `context` is a new one. Freed with the context.
struct DeflateStream {
    MemoryContext context; // where the state is allocated; must outlive this
    z_stream_s *state;
    int level; // of the state
};

// [server side] Allocates a bytea of `payloadSize` bytes in the current memory context, sets its length word
// and stores it in `destination`; the payload is not initialised. Raises 53200 when there is no memory.
void allocateBytes(Size payloadSize, varlena *&destination);

// [server side] Builds a bytea in the current memory context. Levels -1 to 9: a header and a zlib stream; any
// other level: the bytes as they are; no bytes: an empty bytea. `out` is null when zlib fails.
void compressBytes(const char *data, unsigned int length, varlena *&out, int level, DeflateStream &stream);

// [server side] Frees what the stream holds; it is as new then.
void closeStream(DeflateStream &stream);

} // namespace qm::server
