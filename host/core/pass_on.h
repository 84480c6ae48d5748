// Hands a core on to what was configured before this program.
#pragma once

#include "host/core/core_head.h"
#include "host/core/crash.h"
#include "host/core/pattern.h"

namespace core {

// What of the core was read, and the rest of it on a descriptor. To a program, whose end is awaited; or to a new file,
// by the rights of the process's user, with as many bytes as the process's limit allows: none at 0, and none for a
// program with rights that its user lacks. Throws std::system_error, with the rest unread.
void PassOn(const Destination &to, const Crash &crash, const CoreHead &head, int rest);

} // namespace core
