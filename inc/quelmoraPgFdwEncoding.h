// Texts between the database's encoding and UTF-8, the encoding of the search cluster.
#pragma once

#include "quelmoraPgServer.h"

namespace qm::pgFdwElaticSearch
{

// [server side] The text in UTF-8: the same pointer where nothing needs conversion, else a copy in the
// current memory context. Raises 22021 or 22P05 for text that is not valid or has no equivalent.
const char *serverToUtf8(const char *string);

// [server side] A text datum of UTF-8 bytes in the database's encoding: the same datum where nothing needs
// conversion, else one in the current memory context. Raises 22021 or 22P05 for bytes that are not valid, NUL
// among them, or have no equivalent.
Datum utf8ToServer(Datum value);

// [server side] Raises 22021 unless the value's bytes are valid text of the database's encoding.
void checkText(const varlena *value);

} // namespace qm::pgFdwElaticSearch
