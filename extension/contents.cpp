// SQL functions that make contents readable: what the columns doccontent and highlights return, compressed at
// any level or not at all, as text and as jsonb. Why the forms cannot be mistaken stands in docs/contents.md.
//
// All of this is on the server's side of the error boundary: nothing here has a destructor or throws.
#include "server/byteValues.h"
#include "server/encoding.h"
#include "server/zlibMemory.h"

#include <algorithm>
#include <cstring>

using qm::server::CompressedHeader;

namespace
{

struct Bytes {
    const char *data;
    Size size;
};

Bytes bytesOf(const varlena *value) { return {VARDATA_ANY(value), VARSIZE_ANY_EXHDR(value)}; }

// A control character that no JSON text holds, inside strings or outside.
bool isForeignToJson(char byte)
{
    const auto character = static_cast<unsigned char>(byte);
    return character < ' ' && character != '\t' && character != '\n' && character != '\r';
}

bool holdsForeignToJson(Bytes bytes)
{
    // Blocks of a fixed size without a way out of their middle, and a number that is no bool: of these GCC
    // makes vector instructions, which scan ten times as fast.
    constexpr Size BlockSize = 64;
    const char *at = bytes.data;
    const char *const end = at + bytes.size;
    for (; static_cast<Size>(end - at) >= BlockSize; at += BlockSize) {
        unsigned char found = 0;
        for (Size index = 0; index < BlockSize; ++index)
            found |= isForeignToJson(at[index]) ? 1 : 0;
        if (found != 0)
            return true;
    }
    return std::any_of(at, end, isForeignToJson);
}

// Most compressed values differ in the first byte, the others nearly always in one of the next three.
bool beginsAsJson(Bytes bytes)
{
    return bytes.size > 0 && bytes.data[0] == '{' &&
           !holdsForeignToJson({bytes.data, std::min(bytes.size, CompressedHeader::size)});
}

// Whether the value is the text itself.
bool isJsonObject(Bytes bytes)
{
    return beginsAsJson(bytes) && bytes.data[bytes.size - 1] == '}' && !holdsForeignToJson(bytes);
}

// Raises the error for a value that is neither form as a whole.
[[noreturn]] void refuse(const char *reason)
{
    ereport(ERROR, (errcode(ERRCODE_INVALID_BINARY_REPRESENTATION),
                    errmsg_internal("document contents are damaged: %s", reason)));
    pg_unreachable();
}

[[noreturn]] void raiseOutOfMemory()
{
    qm::server::raiseError(ERRCODE_OUT_OF_MEMORY, {"out of memory", nullptr, nullptr}, __FILE__, __LINE__,
                           __func__);
}

// The inflate state of a call site, ready for a new stream: making one takes as long as a small value.
z_stream &inflateStreamOf(FmgrInfo *callSite)
{
    auto *stream = static_cast<z_stream *>(callSite->fn_extra);
    if (stream) {
        inflateReset(stream);
        return *stream;
    }
    stream = static_cast<z_stream *>(MemoryContextAllocZero(callSite->fn_mcxt, sizeof(z_stream)));
    qm::server::allocateIn(callSite->fn_mcxt, *stream);
    if (inflateInit(stream) != Z_OK)
        raiseOutOfMemory();
    callSite->fn_extra = stream;
    return *stream;
}

// What deflate can make of one byte at best: four times 258 bytes, each of two bits.
constexpr uint64 BestRatio = 1032;

// Room behind the stated length. It shows when a stream goes on, and inflate is fastest as long as the
// longest match fits.
constexpr Size Slack = 258;

constexpr Size MostText = MaxAllocSize - VARHDRSZ - Slack;

// The stated length, once it is one that the stream behind it can have.
uint32 checkedLength(Bytes value)
{
    if (value.size < CompressedHeader::size)
        refuse(psprintf("%zu bytes are too short for a length and a zlib stream", value.size));
    const uint32 length = CompressedHeader::read(value.data);
    const Size streamSize = value.size - CompressedHeader::size;
    const bool isTooLong = length > streamSize * BestRatio;
    if (isTooLong && beginsAsJson(value))
        refuse("they begin as JSON text, but are cut off or hold control characters");
    if (length > MostText)
        refuse(psprintf("a text cannot have the stated length of %u bytes", length));
    if (isTooLong)
        refuse(psprintf("a zlib stream of %zu bytes cannot hold the stated %u bytes", streamSize, length));
    return length;
}

// Raises the error unless inflate came to the end of the stream and of the length at once.
void checkOutcome(int outcome, const z_stream &stream, uint32 length)
{
    if (stream.total_out > length)
        refuse(psprintf("the zlib stream goes on beyond the stated %u bytes", length));
    switch (outcome) {
    case Z_STREAM_END:
        if (stream.total_out < length)
            refuse(
                psprintf("the zlib stream ends after %lu of the stated %u bytes", stream.total_out, length));
        if (stream.avail_in > 0)
            refuse(psprintf("%u bytes follow the zlib stream", stream.avail_in));
        return;
    case Z_OK:
    case Z_BUF_ERROR: // there is room left, so it is the input that was too short
        refuse(psprintf("the zlib stream is cut off after %lu of the stated %u bytes", stream.total_out,
                        length));
    case Z_MEM_ERROR:
        raiseOutOfMemory();
    default:
        refuse(psprintf("the zlib stream cannot be read: %s", stream.msg ? stream.msg : zError(outcome)));
    }
}

// The text of a compressed value, in UTF-8.
varlena *inflated(Bytes value, FmgrInfo *callSite)
{
    const uint32 length = checkedLength(value);
    auto *result = static_cast<varlena *>(palloc(VARHDRSZ + length + Slack));
    SET_VARSIZE(result, VARHDRSZ + length);

    z_stream &stream = inflateStreamOf(callSite);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(value.data + CompressedHeader::size));
    stream.avail_in = static_cast<uInt>(value.size - CompressedHeader::size);
    stream.next_out = reinterpret_cast<Bytef *>(VARDATA(result));
    stream.avail_out = static_cast<uInt>(length + Slack);
    checkOutcome(inflate(&stream, Z_FINISH), stream, length);
    return result;
}

// The text of the function's argument, in the database's encoding.
Datum textOfArgument(FunctionCallInfo fcinfo)
{
    varlena *value = PG_GETARG_BYTEA_PP(0);
    const Bytes bytes = bytesOf(value);
    // The text itself needs no copy: a text and a bytea look the same.
    if (bytes.size > 0 && !isJsonObject(bytes))
        value = inflated(bytes, fcinfo->flinfo);
    return qm::server::utf8ToServer(PointerGetDatum(value));
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranepgfdw_text);
PG_FUNCTION_INFO_V1(veltranepgfdw_jsonb);

// veltranepgfdw_text(bytea) returns text. Raises 22P03 for a value that is damaged, 22021 or 22P05 for a text
// that the database's encoding cannot hold.
Datum veltranepgfdw_text(PG_FUNCTION_ARGS) { return textOfArgument(fcinfo); }

// veltranepgfdw_jsonb(bytea) returns jsonb. Raises what veltranepgfdw_text raises, and what the server raises
// for a text that is no JSON.
Datum veltranepgfdw_jsonb(PG_FUNCTION_ARGS)
{
    const Datum contents = textOfArgument(fcinfo);
    if (bytesOf(DatumGetTextPP(contents)).size == 0)
        ereport(ERROR, (errcode(ERRCODE_INVALID_TEXT_REPRESENTATION),
                        errmsg("empty document contents are no JSON")));
    return DirectFunctionCall1(jsonb_in, CStringGetDatum(TextDatumGetCString(contents)));
}

} // extern "C"
#pragma GCC visibility pop
