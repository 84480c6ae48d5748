// What a process has mapped, from its maps file. Paths are in the words of whoever owns the process.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace host::unwind {

struct Mapping {
    uint64_t low;
    uint64_t high;
    uint64_t fileOffset;
    bool readable;

    bool operator==(const Mapping &) const = default;
};

// A program or library: neighbouring mappings of one file.
struct Module {
    std::string path; // "[vdso]" for the one that the kernel brings
    dev_t device;
    uint64_t inode;
    std::vector<Mapping> mappings;

    uint64_t Low() const { return mappings.front().low; }
    uint64_t High() const { return mappings.back().high; }
    bool operator==(const Module &) const = default;
};

constexpr size_t kMostModules = 4096;
constexpr std::string_view kVdso = "[vdso]";

// In rising order. A line that is none of a mapping is left out.
std::vector<Module> ParseMaps(std::string_view text);

} // namespace host::unwind
