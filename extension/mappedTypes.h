// The types of fields that a mapping may have, and what becomes of them.
#pragma once

#include "extension/mapping.h"

namespace qm::extension
{

// What a mapping says of one field. Words and numbers as they stand; empty where nothing is said.
struct Definition {
    std::string type;
    std::string format;
    std::string index;
    std::string enabled;
    std::string ignoreAbove;
    std::string ignoreMalformed;
    std::string scalingFactor;
    bool isAltered = false; // something is indexed that is not as it stands in the source

    // Whether its members are fields; those of nested objects are documents of their own.
    bool isObject() const;
    // Whether it is found by words, so that its sub-fields are looked at for its values.
    bool isFullText() const;
    // Whether there is nothing of it in the source.
    bool hasNoValue() const;
};

Kind kindOf(const Definition &definition);

// How the search knows the field's own values; nothing where it does not know them all, or others.
std::optional<Searchable> searchableOf(const Definition &definition, const MappingDefaults &defaults);

} // namespace qm::extension
