// The health items that every agent has.
#pragma once

#include <map>

#include "host/agent/dead_loops.h"
#include "host/agent/health.h"
#include "host/agent/memory.h"
#include "host/procfs/procfs.h"

namespace agent {

// By number. They look at what they are given, which must outlive them.
std::map<uint8_t, Health::Item> OwnHealthItems(const host::procfs::Procfs &procfs, const DeadLoops &deadLoops,
                                               const Memory &memory);

} // namespace agent
