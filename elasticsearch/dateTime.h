// Dates as documents write them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zq::elasticsearch
{

constexpr std::int64_t MicrosecondsPerSecond = 1'000'000;
constexpr std::int64_t MicrosecondsPerDay = 86'400 * MicrosecondsPerSecond;

// The days from 1970-01-01 to a day of the proleptic Gregorian calendar (month and day counted from 1).
std::int64_t daysSince1970(int year, int month, int day);

// Reads a date of ISO 8601: YYYY, YYYY-MM, YYYY-MM-DD, or that and Thh, Thh:mm, Thh:mm:ss with 1 to 9 digits
// of a fraction, and behind a time Z, +hh, +hhmm or +hh:mm. Without a zone it is UTC. Gives the microseconds
// since 1970; a finer fraction is cut off. False for anything else, blanks included.
bool readIsoDate(std::string_view text, std::int64_t &microseconds);

// Reads a number, with or without a fraction, of units of so many microseconds (a power of ten) since 1970; a
// finer fraction is cut off, downwards. Exponents are those of clusters: they filter 1582934400.25 into
// 1.58293440025E9. False for anything else, and beyond what 64 bits hold.
bool readEpoch(std::string_view text, std::int64_t unit, std::int64_t &microseconds);

// The date in ISO 8601, with milliseconds and Z, rounded down to them. The year must be one of 0 to 9999.
std::string isoDate(std::int64_t microseconds);

} // namespace zq::elasticsearch
