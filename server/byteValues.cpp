// Values of the type bytea, plain and compressed.
#include "server/byteValues.h"
#include "server/zlibMemory.h"

namespace qm::server
{
namespace
{

// [server side] Makes the stream ready for a value of its own; false when zlib cannot.
bool prepareStream(DeflateStream &stream, int level)
{
    if (stream.state && stream.level == level)
        return deflateReset(stream.state) == Z_OK;
    closeStream(stream);
    stream.state = static_cast<z_stream *>(MemoryContextAllocZero(stream.context, sizeof(z_stream)));
    allocateIn(stream.context, *stream.state);
    stream.level = level;
    if (deflateInit(stream.state, level) == Z_OK)
        return true;
    pfree(stream.state);
    stream.state = nullptr;
    return false;
}

} // namespace

void allocateBytes(Size payloadSize, varlena *&destination)
{
    const Size total = payloadSize + VARHDRSZ;
    destination = static_cast<varlena *>(palloc(total));
    if (!destination)
        raiseError(ERRCODE_OUT_OF_MEMORY, {}, __FILE__, __LINE__, __func__);
    SET_VARSIZE(destination, total);
}

void closeStream(DeflateStream &stream)
{
    if (!stream.state)
        return;
    deflateEnd(stream.state);
    pfree(stream.state);
    stream.state = nullptr;
}

void compressBytes(const char *data, unsigned int length, varlena *&out, int level, DeflateStream &stream)
{
    if (length == 0) {
        allocateBytes(0, out);
        return;
    }
    out = nullptr;
    if (level < -1 || level > 9) {
        allocateBytes(length, out);
        std::memcpy(VARDATA(out), data, length);
        return;
    }

    // The slack keeps deflate, even of incompressible data, far from the end of the buffer.
    const unsigned int workSize = length + 5 * (length / 16384) + 15;
    auto *work = static_cast<char *>(palloc(workSize));
    if (!work)
        return;
    CompressedHeader::write(work, length);

    if (prepareStream(stream, level)) {
        z_stream &zlib = *stream.state;
        zlib.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data));
        zlib.avail_in = length;
        zlib.next_out = reinterpret_cast<Bytef *>(work + CompressedHeader::size);
        zlib.avail_out = workSize;
        if (deflate(&zlib, Z_FINISH) == Z_STREAM_END) {
            const Size compressed = CompressedHeader::size + (workSize - zlib.avail_out);
            allocateBytes(compressed, out);
            std::memcpy(VARDATA(out), work, compressed);
        }
    }
    pfree(work);
}

} // namespace qm::server
