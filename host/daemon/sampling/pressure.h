// How long tasks had to wait for a resource, as the kernel tells it (pressure stall information).
#pragma once

#include <cstdint>
#include <string>

#include "host/procfs/procfs.h"

namespace tarnd {

// The share of the last 10 seconds in which some task waited for the resource ("cpu", "memory" or "io"), in permille.
// From the whole system's file, or else the root control group's; throws what reading the former failed with: a kernel
// may be built without it, or started with it off.
uint32_t ReadPressure(const host::procfs::Procfs &proc, const std::string &resource);

// From the text of such a file; throws EPROTO when it has no "some avg10=".
uint32_t ParsePressure(const std::string &text);

} // namespace tarnd
