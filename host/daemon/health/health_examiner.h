// The health of the system: what runs short, and which agents are in trouble.
#pragma once

#include <sys/statvfs.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "host/clock/clocks.h"
#include "host/daemon/agents/agent_probe.h"
#include "host/daemon/health/health_settings.h"
#include "host/daemon/sampling/sampler.h"
#include "host/procfs/procfs.h"

namespace tarnd {

struct HealthItem {
    uint32_t level; // host::meaning::system_health_level
    std::string name;
    std::string source;
    std::string text;
    host::WallTime when;
};

// How far a file system is used, in permille, as df sees it.
struct DiskUse {
    uint32_t space;
    uint32_t files;
};
DiskUse DiskUseOf(const struct statvfs &status);

class HealthExaminer {
public:
    // Of disks, those of the directories count that have a name.
    HealthExaminer(const host::Clocks &clocks, const host::procfs::Procfs &proc, const Sampler &sampler,
                   const HealthSettings &settings, AgentProbe &probe, std::set<std::string> directories)
        : clocks_(clocks), proc_(proc), sampler_(sampler), settings_(settings), probe_(probe),
          directories_(std::move(directories)) {
        directories_.erase("");
    }

    // By one item, or by all, 0.
    std::vector<HealthItem> Examine(uint8_t function) const;

private:
    class Examination;

    const host::Clocks &clocks_;
    const host::procfs::Procfs &proc_;
    const Sampler &sampler_;
    const HealthSettings &settings_;
    AgentProbe &probe_;
    std::set<std::string> directories_;
};

} // namespace tarnd
