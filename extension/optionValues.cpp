// Values of options, read as what they have to be.
#include "server/errorBoundary.h"

#include "extension/optionValues.h"
#include "elasticsearch/jsonString.h"
#include "http/url.h"
#include "search/searchRequest.h"
#include "server/encoding.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace qm::extension
{

using server::FdwError;

void OptionValue::refuse(const std::string &takes) const
{
    throw FdwError(ERRCODE_INVALID_PARAMETER_VALUE, std::string("option \"") + name + "\" takes " + takes);
}

bool OptionValue::hasBlankOrControl() const
{
    return std::any_of(
        value, value + std::strlen(value),
        [](char each) {
            const auto byte = static_cast<unsigned char>(each);
            return byte <= ' ' || byte == 0x7F;
        });
}

std::string OptionValue::utf8() const
{
    return server::callServer([&] { return server::serverToUtf8(value); });
}

bool OptionValue::asBoolean() const
{
    bool result = false;
    if (!parse_bool(value, &result))
        refuse("true or false");
    return result;
}

std::int32_t OptionValue::asNumber(std::int32_t least, std::int32_t most) const
{
    char *end = nullptr;
    errno = 0;
    const long number = std::strtol(value, &end, 10);
    if (errno != 0 || end == value || *end != '\0' || number < least || number > most)
        refuse("a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    return static_cast<std::int32_t>(number);
}

double OptionValue::asCost() const
{
    char *end = nullptr;
    const double cost = std::strtod(value, &end);
    if (end == value || *end != '\0' || !std::isfinite(cost) || cost < 0)
        refuse("a number that is not negative");
    return cost;
}

double OptionValue::asPositive() const
{
    char *end = nullptr;
    const double number = std::strtod(value, &end);
    if (end == value || *end != '\0' || !std::isfinite(number) || number <= 0)
        refuse("a positive number");
    return number;
}

std::string OptionValue::asFieldName() const
{
    const std::size_t length = std::strlen(value);
    if (length == 0 || !zq::elasticsearch::isValidUtf8(utf8()) || value[0] == '.' ||
        value[length - 1] == '.' || std::strstr(value, ".."))
        refuse("the name of a field, with dots between the names of objects");
    return utf8();
}

int OptionValue::asChoice(std::initializer_list<const char *> choices) const
{
    std::string all;
    int place = 0;
    for (const char *choice : choices) {
        if (std::strcmp(value, choice) == 0)
            return place;
        const bool isLast = choice == *(choices.end() - 1);
        all += (place++ == 0 ? "" : isLast ? " or " : ", ") + std::string(choice);
    }
    refuse(all);
}

std::string OptionValue::asTimeValue() const
{
    const std::size_t digits = std::strspn(value, "0123456789");
    const char *unit = value + digits;
    const char *const Units[] = {"ms", "s", "m", "h", "d"};
    const bool isUnit = std::any_of(std::begin(Units), std::end(Units),
                                    [&](const char *known) { return std::strcmp(unit, known) == 0; });
    if (digits == 0 || digits > 9 || value[0] == '0' || !isUnit)
        refuse("a whole number and one of the units ms, s, m, h and d");
    return value;
}

std::vector<std::string> OptionValue::asClusterUrls() const
{
    std::vector<std::string> urls;
    const std::string all = utf8();
    for (std::size_t begin = 0; begin <= all.size();) {
        const std::size_t end = std::min(all.find(',', begin), all.size());
        urls.push_back(http::baseUrl(all.substr(begin, end - begin)));
        if (urls.back().empty())
            refuse("an http or https URL of host, port and path prefix, without credentials, or several, "
                   "separated by commas");
        begin = end + 1;
    }
    return urls;
}

std::string OptionValue::asProxy() const
{
    if (value[0] != '\0' && http::baseUrl(utf8()).empty())
        refuse("an http or https URL of host and port, without credentials");
    return utf8();
}

std::string OptionValue::asIndices() const
{
    if (value[0] == '\0' || hasBlankOrControl() || http::hasDotSegment(value))
        refuse("names of indices, separated by commas, without blanks");
    return search::pathPart(utf8());
}

std::string OptionValue::asUserName() const
{
    if (value[0] == '\0' || std::strchr(value, ':') || hasBlankOrControl())
        refuse("a name without colons, blanks and control characters");
    return utf8();
}

std::string OptionValue::asApiKey() const
{
    if (value[0] == '\0' || hasBlankOrControl())
        refuse("an encoded key without blanks and control characters");
    return utf8();
}

// Regular files only: reading a pipe would wait for its writer, and nothing could end that.
std::string OptionValue::asFile() const
{
    struct stat about;
    if (value[0] != '/' || stat(value, &about) != 0 || !S_ISREG(about.st_mode) || access(value, R_OK) != 0)
        refuse("the absolute path of a file that the server can read");
    return value;
}

} // namespace qm::extension
