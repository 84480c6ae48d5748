// The memory of processes as /proc shows it. Sizes are in KiB. A failure is an exception as in procfs.h.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "host/procfs/procfs.h"

namespace host::procfs {

// A line of /proc/PID/maps, and what /proc/PID/smaps says below it.
struct Mapping {
    std::string range;  // "b6f00000-b6f21000"
    std::string perms;  // "r-xp"
    std::string device; // "b3:02"
    uint64_t inode = 0; // 0 when there is no file
    std::string name;   // a file's path, " (deleted)" at its end when it is gone; "[heap]"; empty
    uint64_t start = 0; // in bytes, as the next two
    uint64_t end = 0;
    uint64_t fileOffset = 0;
    uint64_t size = 0;
    uint64_t resident = 0;
    uint64_t proportional = 0; // resident, each page divided by the number of processes that share it
    uint64_t privateDirty = 0;
    uint64_t swap = 0;
};

// A line of maps; throws EPROTO when it is none.
Mapping ParseMapping(std::string_view line);

// Hands each mapping to a function, in address order; a kernel thread and a zombie have none. A process that ends
// meanwhile is an error: what was handed over is not all it had.
using TakeMapping = std::function<void(const Mapping &)>;
void ReadMappings(const Procfs &proc, uint32_t pid, const TakeMapping &take); // from smaps

// From maps: no sizes but that of the range, but cheap.
void ReadMappedRanges(const Procfs &proc, uint32_t pid, const TakeMapping &take);

// A kernel thread and a zombie have no memory of their own, which shows in /proc/PID/status.
bool HasMemory(std::string_view status);

// The name of the program file, without directories. Empty for a kernel thread or a zombie.
std::string ProgramName(const Procfs &proc, uint32_t pid);

} // namespace host::procfs
