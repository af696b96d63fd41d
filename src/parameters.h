// The parameters of a search, as the values of a clause on param give them.
#pragma once

#include "server/serverApi.h"

#include <list>
#include <string>

namespace qm::pgFdwElaticSearch
{

// Reads `name=value` parameters into the connector's settings; strings and lists are allocated in the
// current memory context. Throws FdwError.
void ParseParam(const std::list<std::string> &paramValues, int &paramCompressionLevel, char *&query,
                char *&highlight, List *&sourceIncludeFilter, List *&sourceExcludeFilter);

// A compression level as options and parameters give it; text that is no number counts as 0.
// Throws FdwError when it is out of range.
int parseCompressionLevel(const char *text);

} // namespace qm::pgFdwElaticSearch
