// Values of options, read as what they have to be.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace qm::extension
{

// An option as it is set. All readers throw FdwError (22023) for a value that is none of theirs; the text
// names the option, and shows no secret.
class OptionValue
{
public:
    // Both texts, in the database's encoding, must outlive this.
    OptionValue(const char *name, const char *value) : name(name), value(value) {}

    const char *optionName() const { return name; }

    std::string utf8() const;
    bool asBoolean() const;
    std::int32_t asNumber(std::int32_t least, std::int32_t most) const;
    std::int32_t asMilliseconds() const { return asNumber(1, INT32_MAX); }
    double asCost() const;
    double asPositive() const;
    // A dotted path in a source, not empty.
    std::string asFieldName() const;
    // The place of the value among the choices.
    int asChoice(std::initializer_list<const char *> choices) const;
    // A number and a unit, as Elasticsearch writes times.
    std::string asTimeValue() const;
    // Separated by commas, of each node http or https, with host, port and path prefix, without a slash at
    // the end.
    std::vector<std::string> asClusterUrls() const;
    std::string asProxy() const;
    // Names of indices as they stand in a path.
    std::string asIndices() const;
    std::string asUserName() const;
    std::string asApiKey() const;
    // The path of a regular file that the server can read.
    std::string asFile() const;

private:
    [[noreturn]] void refuse(const std::string &takes) const;
    bool hasBlankOrControl() const;

    const char *name;
    const char *value;
};

} // namespace qm::extension
