// The members of an object that lies in one piece.
#pragma once

#include "elasticsearch/jsonCursor.h"

#include <string>
#include <string_view>

namespace zq::elasticsearch
{

// Calls take(name, cursor), which must read the value, for each member of the object; returns whether it was
// one to its end.
template <typename Take>
bool forEachMember(std::string_view object, Take &&take)
{
    try {
        JsonStructure structure;
        structure.extend(object.data(), object.size());
        JsonCursor cursor(object, structure, 0);
        forEachMember(cursor, [&](std::string_view name) { take(name, cursor); });
        return true;
    } catch (const JsonError &) {
        return false;
    } catch (const JsonNeedsMore &) {
        return false;
    }
}

enum class Scalar { There, Missing, Malformed };

// Puts the value of a member of an object into `value`: a string decoded, a number, true or false as it
// stands. Of two members of one name the last counts. Missing is also what is null, an object or an array.
// Malformed is a text that is no object, whatever is wrong in it, and a string that is not valid Unicode.
// Throws std::bad_alloc.
Scalar topLevelScalar(std::string_view object, std::string_view name, std::string &value);

} // namespace zq::elasticsearch
