// What a module consists of, in a file that nobody changes while it is read.
#pragma once

#include "host/osal/descriptor.h"
#include "host/unwind/maps.h"
#include "host/unwind/target.h"

namespace host::unwind {

// A file of root's that nobody else may write is taken as it is; another is copied. Where there is no such file, or it
// is too large, what the process has of it in its memory is. None where that is no program or library for this
// processor.
Descriptor OpenImage(const Target &target, const Module &module);

} // namespace host::unwind
