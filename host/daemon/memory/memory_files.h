// Files that have no place but memory.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/osal/check.h"
#include "host/procfs/procfs.h"

namespace tarnd {

// Hands each regular file below a directory, on its file system, to a function: its path and its status. One that has
// several names comes once. What goes away meanwhile or may not be seen is left out. Anyone may have filled the
// directory, with no matter what: it is checked after every few entries.
using TakeFile = std::function<void(const std::string &path, const struct stat &status)>;
void ForEachFile(const std::string &directory, const host::Check &check, const TakeFile &take);

// A file system without a place but memory.
struct MemoryFileSystem {
    std::string directory;
    uint64_t takenBytes = 0;
};

// Those that can be reached, each once: one may be mounted in several places, and be covered by another.
std::vector<MemoryFileSystem> MemoryFileSystems(const host::procfs::Procfs &proc);

// "-rw-r--r--"
std::string ModeText(mode_t mode);

// What a file takes, in KiB: a sparse one less than its size.
uint32_t TakenKib(const struct stat &status);

} // namespace tarnd
