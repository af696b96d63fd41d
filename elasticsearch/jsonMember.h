// One member of an object.
#pragma once

#include <string>
#include <string_view>

namespace zq::elasticsearch
{

// Puts the value of a member of an object into `value`: a string decoded, a number, true or false as it
// stands. Of two members of one name the last counts. False when there is no such member, and when its value
// is null, an object, an array or a string that is not valid Unicode, or the text is no object. Throws
// std::bad_alloc.
bool topLevelScalar(std::string_view object, std::string_view name, std::string &value);

} // namespace zq::elasticsearch
