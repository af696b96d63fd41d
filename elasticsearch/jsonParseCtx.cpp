// The parts of the lexer that are too rare to be inline.
#include "jsonParseCtx.h"

#include <algorithm>

namespace zq::elasticsearch
{

void JsonParseCtx::TextBuffer::reset()
{
    segmentBegin = segmentEnd = nullptr;
    text.clear();
    active = false;
}

void JsonParseCtx::TextBuffer::resume(const char *chunk)
{
    if (active) {
        segmentBegin = segmentEnd = chunk;
    }
}

void JsonParseCtx::TextBuffer::carryOver(const char *chunkEnd, std::size_t limit)
{
    if (active) {
        const auto length = static_cast<std::size_t>(chunkEnd - segmentBegin);
        text.append(segmentBegin, std::min(length, limit - std::min(limit, text.size())));
        segmentBegin = segmentEnd = nullptr;
    }
}

JsonParseCtx::JsonParseCtx(bool trackMemberValues_) : trackMemberValues(trackMemberValues_) {}

void JsonParseCtx::beginChunk(const char *chunk)
{
    stringText.resume(chunk);
    valueText.resume(chunk);
}

void JsonParseCtx::endChunk(const char *end, std::size_t stringLimit)
{
    stringText.carryOver(end, stringLimit);
    valueText.carryOver(end, std::string::npos);
}

} // namespace zq::elasticsearch
