// Dates as documents write them.
#include "elasticsearch/dateTime.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

namespace zq::elasticsearch
{
namespace
{

constexpr int SecondsPerMinute = 60;
constexpr int SecondsPerHour = 3600;
// No zone is further away from UTC.
constexpr int MostZoneHours = 18;

bool isDigit(char byte) { return byte >= '0' && byte <= '9'; }

bool isLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int daysOfMonth(int year, int month)
{
    constexpr std::array<int, 12> Days = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeapYear(year) ? 29 : Days[static_cast<std::size_t>(month - 1)];
}

// Takes the parts of a date one by one; what is not there is left alone.
class Parts
{
public:
    explicit Parts(std::string_view text) : rest(text) {}

    bool isAtEnd() const { return rest.empty(); }

    bool takes(char byte)
    {
        if (rest.empty() || rest.front() != byte)
            return false;
        rest.remove_prefix(1);
        return true;
    }

    // A number of exactly so many digits, in the range.
    bool takesNumber(std::size_t digits, int least, int most, int &number)
    {
        if (rest.size() < digits)
            return false;
        int read = 0;
        for (const char digit : rest.substr(0, digits)) {
            if (!isDigit(digit))
                return false;
            read = read * 10 + (digit - '0');
        }
        rest.remove_prefix(digits);
        number = read;
        return read >= least && read <= most;
    }

    // Up to nine digits of a second.
    bool takesFraction(int &microseconds)
    {
        constexpr int MostDigits = 9;
        constexpr int KeptDigits = 6;
        int digits = 0;
        int read = 0;
        for (; digits < MostDigits && !rest.empty() && isDigit(rest.front()); ++digits) {
            if (digits < KeptDigits)
                read = read * 10 + (rest.front() - '0');
            rest.remove_prefix(1);
        }
        for (int missing = digits; missing < KeptDigits; ++missing)
            read *= 10;
        microseconds = read;
        return digits > 0;
    }

private:
    std::string_view rest;
};

// The seconds that the zone is ahead of UTC.
bool takesZone(Parts &parts, int &offset)
{
    offset = 0;
    if (parts.isAtEnd() || parts.takes('Z'))
        return true;
    const bool isBehind = parts.takes('-');
    int hours = 0;
    int minutes = 0;
    if ((!isBehind && !parts.takes('+')) || !parts.takesNumber(2, 0, MostZoneHours, hours))
        return false;
    const bool hasColon = parts.takes(':');
    if ((hasColon || !parts.isAtEnd()) && !parts.takesNumber(2, 0, 59, minutes))
        return false;
    offset = hours * SecondsPerHour + minutes * SecondsPerMinute;
    offset = isBehind ? -offset : offset;
    return true;
}

// The microseconds of a day, in UTC.
bool takesTime(Parts &parts, std::int64_t &microseconds)
{
    int hour = 0;
    int minute = 0;
    int second = 0;
    int fraction = 0;
    int offset = 0;
    if (!parts.takesNumber(2, 0, 23, hour))
        return false;
    if (parts.takes(':')) {
        if (!parts.takesNumber(2, 0, 59, minute))
            return false;
        if (parts.takes(':')) {
            if (!parts.takesNumber(2, 0, 59, second))
                return false;
            if ((parts.takes('.') || parts.takes(',')) && !parts.takesFraction(fraction))
                return false;
        }
    }
    if (!takesZone(parts, offset))
        return false;
    const int seconds = hour * SecondsPerHour + minute * SecondsPerMinute + second - offset;
    microseconds = seconds * MicrosecondsPerSecond + fraction;
    return true;
}

// The digits without a point, and the places before it; false when it is no number.
bool takeDecimal(std::string_view text, std::string &digits, std::int64_t &places)
{
    const auto takeDigits = [&] {
        const std::size_t before = digits.size();
        for (; !text.empty() && isDigit(text.front()); text.remove_prefix(1))
            digits += text.front();
        return digits.size() > before;
    };
    if (!takeDigits())
        return false;
    places = static_cast<std::int64_t>(digits.size());
    if (!text.empty() && text.front() == '.') {
        text.remove_prefix(1);
        if (!takeDigits())
            return false;
    }
    if (!text.empty() && (text.front() == 'e' || text.front() == 'E')) {
        const bool hasPlus = text.size() > 1 && text[1] == '+';
        text.remove_prefix(hasPlus ? 2 : 1);
        int exponent = 0;
        if (hasPlus && (text.empty() || !isDigit(text.front())))
            return false;
        const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), exponent);
        if (problem != std::errc())
            return false;
        places += exponent;
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    }
    return text.empty();
}

std::int64_t roundedDown(std::int64_t number, std::int64_t divisor)
{
    return number / divisor - (number % divisor < 0 ? 1 : 0);
}

} // namespace

// Days counted from the first of March, so that the leap day is the last of a year: H. Hinnant,
// "chrono-Compatible Low-Level Date Algorithms".
std::int64_t daysSince1970(int year, int month, int day)
{
    constexpr std::int64_t YearsOfEra = 400;
    constexpr std::int64_t DaysOfEra = 146'097;
    constexpr std::int64_t DaysTo1970 = 719'468;
    const std::int64_t shifted = month <= 2 ? year - 1 : year;
    const std::int64_t era = roundedDown(shifted, YearsOfEra);
    const std::int64_t yearOfEra = shifted - era * YearsOfEra;
    const std::int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * DaysOfEra + dayOfEra - DaysTo1970;
}

bool readIsoDate(std::string_view text, std::int64_t &microseconds)
{
    Parts parts(text);
    int year = 0;
    int month = 1;
    int day = 1;
    std::int64_t time = 0;
    if (!parts.takesNumber(4, 0, 9999, year))
        return false;
    if (parts.takes('-')) {
        if (!parts.takesNumber(2, 1, 12, month))
            return false;
        if (parts.takes('-')) {
            if (!parts.takesNumber(2, 1, daysOfMonth(year, month), day))
                return false;
            if (parts.takes('T') && !takesTime(parts, time))
                return false;
        }
    }
    microseconds = daysSince1970(year, month, day) * MicrosecondsPerDay + time;
    return parts.isAtEnd();
}

bool readEpoch(std::string_view text, std::int64_t unit, std::int64_t &microseconds)
{
    const bool isNegative = !text.empty() && text.front() == '-';
    std::string digits;
    std::int64_t places = 0;
    if (!takeDecimal(text.substr(isNegative ? 1 : 0), digits, places))
        return false;
    for (; unit > 1; unit /= 10)
        ++places;
    const std::size_t zeros = std::min(digits.find_first_not_of('0'), digits.size());
    digits.erase(0, zeros);
    places -= static_cast<std::int64_t>(zeros);
    constexpr std::int64_t MostPlaces = 19; // of 64 bits
    if (places > MostPlaces && !digits.empty())
        return false;
    const auto kept = static_cast<std::size_t>(std::clamp<std::int64_t>(places, 0, MostPlaces));
    const bool isFiner = digits.find_first_not_of('0', kept) != std::string::npos;
    digits.resize(kept, '0');
    std::int64_t found = 0;
    if (kept > 0 && std::from_chars(digits.data(), digits.data() + kept, found).ec != std::errc())
        return false;
    microseconds = isNegative ? -found - (isFiner ? 1 : 0) : found;
    return true;
}

std::string isoDate(std::int64_t microseconds)
{
    const std::int64_t day = roundedDown(microseconds, MicrosecondsPerDay);
    const auto milliseconds = static_cast<int>((microseconds - day * MicrosecondsPerDay) / 1000);
    // The year by the mean length of one, then the days that are left.
    auto year = static_cast<int>(roundedDown(day * 400, 146'097) + 1970);
    while (daysSince1970(year, 1, 1) > day)
        --year;
    while (daysSince1970(year + 1, 1, 1) <= day)
        ++year;
    auto rest = static_cast<int>(day - daysSince1970(year, 1, 1));
    int month = 1;
    for (; rest >= daysOfMonth(year, month); ++month)
        rest -= daysOfMonth(year, month);
    const int seconds = milliseconds / 1000;
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", year, month, rest + 1,
                  seconds / SecondsPerHour, seconds / SecondsPerMinute % 60, seconds % 60,
                  milliseconds % 1000);
    return text.data();
}

} // namespace zq::elasticsearch
