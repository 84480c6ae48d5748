// The files whose code runs on the system, with their digests.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "host/daemon/files/digests.h"
#include "host/procfs/procfs.h"

namespace tarnd {

// The digests that a path has. More than one: a container has files of its own, and a process may still run a file that
// has been replaced since.
using FileDigests = std::map<std::string, std::set<std::string>>;

struct Survey {
    FileDigests files;
    uint32_t processes = 0;
    uint32_t hidden = 0; // processes that may not be looked into
    uint32_t unread = 0; // files that may not be read, or whose mapping can no longer be reached
};

// Looks at all processes. `check` may throw to give up.
Survey SurveyFiles(const host::procfs::Procfs &proc, Digests &digests, const host::Check &check);

} // namespace tarnd
