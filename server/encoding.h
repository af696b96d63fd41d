// Texts between the database's encoding and UTF-8, the encoding of the search cluster.
#pragma once

#include "server/serverApi.h"

namespace qm::server
{

// [server side] The text in UTF-8: the same pointer where nothing needs conversion, else a copy in the
// current memory context. Raises 22021 or 22P05 for text that is not valid or has no equivalent; a database
// in SQL_ASCII or UTF8 hands over the bytes that it has.
const char *serverToUtf8(const char *string);

// [server side] What comes from the search cluster as the text of a message: in the database's encoding, with
// "?" for whatever is not valid or has no equivalent. The same pointer where it is plain ASCII, else a copy
// in the current memory context.
const char *utf8ToMessage(const char *text);

// Puts "?" in the place of each byte that is no valid text of the database's encoding: texts of a search
// cluster may be cut inside a character or be no text at all, and clients must still be able to read a
// message. Raises nothing.
void replaceInvalidBytes(char *text);

// [server side] A text datum of UTF-8 bytes in the database's encoding: the same datum where nothing needs
// conversion, else one in the current memory context. Raises 22021 or 22P05 for bytes that are not valid, NUL
// among them, or have no equivalent.
Datum utf8ToServer(Datum value);

// [server side] Raises 22021 unless the value's bytes are valid text of the database's encoding.
void checkText(const varlena *value);

} // namespace qm::server
