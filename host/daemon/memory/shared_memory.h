// Memory that processes share by a key or a name: System V segments and the files of /dev/shm.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "host/daemon/processes/users.h"
#include "host/osal/check.h"
#include "host/procfs/procfs.h"

namespace tarnd {

struct SharedMemory {
    uint32_t id = 0; // a segment's, or a file's inode
    uint32_t kib = 0;
    uint32_t residentKib = 0;
    uint32_t processNum = 0; // that have it mapped
    std::string name;        // "key 0x0000002a", "/name"
    std::string kind;        // "sysv 0640 root", "posix 0640 root"
};
using TakeSharedMemory = std::function<void(const SharedMemory &)>;

// None on a kernel without System V memory.
void ForEachSegment(const host::procfs::Procfs &proc, UserNames &names, const TakeSharedMemory &take);

// The files of a directory in memory.
void ForEachSharedFile(const host::procfs::Procfs &proc, const std::string &directory, UserNames &names,
                       const host::Check &check, const TakeSharedMemory &take);

} // namespace tarnd
