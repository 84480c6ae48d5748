// The bytes in a process's memory, as text.
#pragma once

#include <cstdint>
#include <string>

#include "host/procfs/procfs.h"

namespace tarnd {

struct MemoryDump {
    uint32_t bytesRead = 0;
    std::string text; // 16 bytes a line; what can't be read is said
};

// Throws EFAULT when nothing can be read. `address` has `length` bytes behind it.
MemoryDump DumpMemory(const host::procfs::Procfs &proc, uint32_t pid, uint64_t address, uint32_t length);

} // namespace tarnd
