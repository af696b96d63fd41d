// Patterns of names of indices.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qm::extension
{

// Names separated by commas; "*" stands for any characters, "-" before a name takes away what it matches,
// "_all" is everything. In UTF-8.
class IndexPattern
{
public:
    explicit IndexPattern(std::string_view text);

    // Whether there may be an index of such a name: others are paths of something else.
    bool canMatch() const;
    bool matches(std::string_view name) const;

    // As it stands in a path.
    std::string pathPart() const;
    // The same for requests which fail for names that there are not: what begins with these names, too.
    std::string widePathPart() const;

private:
    struct Part {
        std::string text;
        bool excludes;
    };

    std::string all;
    std::vector<Part> parts;
};

} // namespace qm::extension
