// The files whose code a process runs: its executable and libraries.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/osal/descriptor.h"
#include "host/procfs/procfs.h"

namespace tarnd {

struct Image {
    std::string path;   // as the process sees it; that of a file that is gone now without "(deleted)"
    std::string name;   // the path in ASCII, other bytes as "\xNN"
    std::string device; // as the kernel writes it: "fe:01"
    uint64_t inode = 0;
    std::string mapping; // "7f0000000000-7f0000021000"
};

// From the text of a maps file: each file once. Memory without a file, which may be code made at run time, is left out.
std::vector<Image> ParseImages(const std::string &maps);

// None for a thread of the kernel. Throws as host/procfs does.
std::vector<Image> ImagesOf(const host::procfs::Procfs &proc, uint32_t pid);

// The very file that is mapped: a program also when another one has its name by now. Of a library only the name may be
// used by a daemon without CAP_CHECKPOINT_RESTORE: ESTALE when that leads to another file.
host::Descriptor OpenImage(const host::procfs::Procfs &proc, uint32_t pid, const Image &image);

} // namespace tarnd
