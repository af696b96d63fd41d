// One member of an object.
#pragma once

#include <string>
#include <string_view>

namespace zq::elasticsearch
{

enum class Scalar { There, Missing, Malformed };

// Puts the value of a member of an object into `value`: a string decoded, a number, true or false as it
// stands. Of two members of one name the last counts. Missing is also what is null, an object or an array.
// Malformed is a text that is no object, whatever is wrong in it, and a string that is not valid Unicode.
// Throws std::bad_alloc.
Scalar topLevelScalar(std::string_view object, std::string_view name, std::string &value);

} // namespace zq::elasticsearch
