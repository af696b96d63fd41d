// What a search response tells about its own completeness.
#pragma once

#include <string>
#include <string_view>

namespace zq::elasticsearch
{

// The members that tell it, as far as they stood in the response.
struct SearchResponseStatus {
    bool timedOut = false;     // "timed_out"
    long totalShards = 0;      // "_shards": "total"
    long successfulShards = 0; // "successful", shards that the search could skip included
    long failedShards = 0;     // "failed"

    // Whether hits may be missing.
    bool isPartial() const { return timedOut || failedShards > 0 || successfulShards < totalShards; }
};

// Finds the status in what a reader passes over. It takes the members "timed_out" of the outermost object
// and "total", "successful" and "failed" of its "_shards" object, where their values are a word or a number.
class SearchStatusCapture
{
public:
    // Takes a string that closed outside of arrays and outside of the hits, at an object depth of 1 or 2.
    void onString(std::string_view text, int objectDepth);
    // Whether a value is awaited: the bytes behind the string must then go through takeByte.
    bool isActive() const { return awaited != Member::None; }
    void takeByte(char byte);

    const SearchResponseStatus &status() const { return found; }

private:
    enum class Member : unsigned char { None, TimedOut, Total, Successful, Failed };

    void await(Member member);
    void store();

    SearchResponseStatus found;
    std::string value;
    Member awaited = Member::None;
    bool colonSeen = false;
    bool inShards = false;
};

} // namespace zq::elasticsearch
