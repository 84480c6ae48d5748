// How long a process has been there, and since when.
#pragma once

#include "host/clock/clocks.h"
#include "host/procfs/procfs.h"

namespace tarnd {

// By the system's count of the time since it started.
std::chrono::nanoseconds AgeOf(const host::procfs::Procfs &proc, uint64_t startTicks);

// The moment that was so long ago, by the clock on the wall as it is set now.
host::WallTime StartOf(std::chrono::nanoseconds age, const host::Clocks &clocks);

} // namespace tarnd
