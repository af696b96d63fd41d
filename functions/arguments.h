// The arguments of the SQL functions.
#pragma once

#include "server/serverApi.h"

#include <string>
#include <vector>

namespace qm::functions
{

enum class JsonKind { Object, Array };

// All in UTF-8. They throw FdwError (22023) for a value that is none of theirs, and ServerError.

// A jsonb as JSON text.
std::string jsonArgument(FunctionCallInfo fcinfo, int number, const char *name, JsonKind kind);

// A text[] without NULLs.
std::vector<std::string> textsArgument(FunctionCallInfo fcinfo, int number, const char *name);

std::string textArgument(FunctionCallInfo fcinfo, int number, const char *name);

} // namespace qm::functions
