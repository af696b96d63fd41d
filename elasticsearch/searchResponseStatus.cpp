// What a search response tells about its own completeness.
#include "elasticsearch/searchResponseStatus.h"

#include <cstdlib>

namespace zq::elasticsearch
{

namespace
{

// No number of shards and no word is longer; a longer value is none of ours.
constexpr std::size_t LongestValue = 18;

bool isBlank(char byte) { return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n'; }

} // namespace

void SearchStatusCapture::onString(std::string_view text, int objectDepth)
{
    if (objectDepth == 1) {
        inShards = text == "_shards";
        if (text == "timed_out")
            await(Member::TimedOut);
    } else if (inShards && objectDepth == 2) {
        if (text == "total")
            await(Member::Total);
        else if (text == "successful")
            await(Member::Successful);
        else if (text == "failed")
            await(Member::Failed);
    }
}

void SearchStatusCapture::await(Member member)
{
    awaited = member;
    colonSeen = false;
    value.clear();
}

void SearchStatusCapture::takeByte(char byte)
{
    if (isBlank(byte))
        return;
    if (!colonSeen) {
        colonSeen = byte == ':';
        if (!colonSeen)
            awaited = Member::None; // it was no member name
    } else if (byte == ',' || byte == '}') {
        store();
        awaited = Member::None;
    } else if (byte == '"' || byte == '{' || byte == '[' || value.size() == LongestValue) {
        awaited = Member::None;
    } else {
        value.push_back(byte);
    }
}

void SearchStatusCapture::store()
{
    const long number = std::strtol(value.c_str(), nullptr, 10);
    switch (awaited) {
    case Member::TimedOut:
        found.timedOut = value == "true";
        break;
    case Member::Total:
        found.totalShards = number;
        break;
    case Member::Successful:
        found.successfulShards = number;
        break;
    default:
        found.failedShards = number;
        break;
    }
}

} // namespace zq::elasticsearch
