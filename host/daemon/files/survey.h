// The files whose code runs on the system, with their digests.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "host/daemon/files/digests.h"
#include "host/daemon/files/reading_budget.h"
#include "host/procfs/procfs.h"

namespace tarnd {

// The digests that a path has. More than one: a container has files of its own, and a process may still run a file that
// has been replaced since.
using FileDigests = std::map<std::string, std::set<std::string>>;

struct SurveyedFile {
    std::string name;
    std::optional<std::string> digest; // none when it was left out
    bool tooLarge = false;             // as any file of its size is
};
using TakeSurveyed = std::function<void(const SurveyedFile &)>;

struct Survey {
    FileDigests files;
    uint32_t processes = 0;
    uint32_t hidden = 0;      // processes that may not be looked into
    uint32_t unread = 0;      // files that may not be read, or whose mapping can no longer be reached
    uint32_t leftOut = 0;     // files that are beyond the budget
    std::string firstLeftOut; // the name of one of them
};

// Looks at all processes, and tells of each file as it comes across it. `check` may throw to give up.
Survey SurveyFiles(const host::procfs::Procfs &proc, Digests &digests, ReadingBudget budget, const host::Check &check,
                   const TakeSurveyed &take);

} // namespace tarnd
