// The mark of archives that the daemon made: the comment at the end of a ZIP archive.
#pragma once

#include "host/osal/descriptor.h"

namespace tarnd {

// Of a complete archive without a comment, open for reading and writing at its end.
void MarkArchive(const host::Descriptor &archive);

// Whether an open file has the mark, and is a regular one of the daemon's own user.
bool IsOwnArchive(const host::Descriptor &file);

} // namespace tarnd
