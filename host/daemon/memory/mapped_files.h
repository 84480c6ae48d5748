// What the files that processes map take of memory: programs, libraries, data, and shared memory too.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/osal/check.h"
#include "host/procfs/procfs.h"

namespace tarnd {

struct MappedFile {
    std::string name;
    std::string device;
    uint64_t inode = 0;

    auto operator<=>(const MappedFile &) const = default;
};

struct MappedFileUse {
    uint64_t kib = 0;
    uint32_t processNum = 0;
    uint64_t largestKib = 0;
    std::string largestProcess; // "name (id)"
};

// By all processes that may be seen.
std::map<MappedFile, MappedFileUse> MappedFiles(const host::procfs::Procfs &proc, const host::Check &check);

} // namespace tarnd
