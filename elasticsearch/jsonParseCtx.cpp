// The parts of the lexer that are too rare to be inline.
#include "elasticsearch/jsonParseCtx.h"

#include <algorithm>

namespace zq::elasticsearch
{

void JsonParseCtx::TextBuffer::reset()
{
    segmentBegin = segmentEnd = nullptr;
    text.clear();
    active = false;
}

JsonParseCtx::JsonParseCtx(bool trackMemberValues_)
    : trackMemberValues(trackMemberValues_),
      scanBlocks(trackMemberValues_ ? blockScanner().separators : blockScanner().brackets)
{
}

} // namespace zq::elasticsearch
