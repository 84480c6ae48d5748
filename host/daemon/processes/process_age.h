// How long a process has been there.
#pragma once

#include "host/clock/clocks.h"
#include "host/procfs/procfs.h"

namespace tarnd {

// By the system's count of the time since it started.
std::chrono::nanoseconds AgeOf(const host::procfs::Procfs &proc, uint64_t startTicks);

} // namespace tarnd
