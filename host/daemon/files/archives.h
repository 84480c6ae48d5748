// Log archives and their copies. Whatever a path says, nothing is read or written outside the log directory and the
// directories that archives are copied to: paths are followed name by name from the open directory, and no link is
// followed.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "host/clock/clocks.h"
#include "host/osal/check.h"

namespace tarnd {

// What one archive takes, of directories in which others may have made anything.
struct ArchiveLimits {
    uint32_t depth = 32;               // directories within directories; each holds a descriptor
    uint64_t entries = 200'000;        // files and directories
    uint64_t bytes = 16ULL << 30;      // before compression
    uint64_t holeBytes = 256ULL << 20; // of these, bytes that no disk holds
};

class Archives {
public:
    // Targets are directories by name. Removes what this daemon left there unfinished when it was killed; below them,
    // that is removed where the next archive goes.
    Archives(std::string logDirectory, std::map<std::string, std::string> copyTargets, const host::Clocks &clocks,
             const ArchiveLimits &limits = {});

    // Paths are relative to the log directory, or absolute within it.
    struct Packing {
        std::string_view source; // a file, or a directory with all that is in it
        std::string_view directory;
        std::string_view name; // replaces an older archive, but no other file: EEXIST
        bool stored = false;   // without compression
    };
    // Says what was left out; empty when nothing was.
    std::string Pack(const Packing &packing, const host::Check &check) const;

    struct Copying {
        std::string_view source;
        std::string_view target;      // its name
        std::string_view destination; // within the target; a directory when it ends in '/' or is empty
        bool replace = false;         // an older file; else EEXIST
        bool move = false;
    };
    void Copy(const Copying &copying, const host::Check &check) const;

private:
    const std::string &TargetDirectory(std::string_view name) const;

    const std::string logDirectory_;
    const std::map<std::string, std::string> copyTargets_;
    const host::Clocks &clocks_;
    const ArchiveLimits limits_;
};

} // namespace tarnd
