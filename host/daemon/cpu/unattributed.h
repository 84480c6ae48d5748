// The CPU time of the system that is no running process's: what makes the shares of all add up to the system's.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "host/daemon/sampling/sample.h"

namespace tarnd {

struct Unattributed {
    std::string_view name;
    uint32_t permille = 0; // of one CPU
};

// Between two samples: by processes that have ended since, as those were charged that waited for them; in interrupts;
// stolen by a hypervisor; and what the system has counted besides. `shown` is what processes have used, in permille of
// one CPU; with that these add up to what the system has used, or to what processes have where that is more.
std::array<Unattributed, 4> UnattributedUse(const Sample &from, const Sample &to, uint64_t shown);

} // namespace tarnd
