#include "host/agent/own_health.h"

#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

#include <fmt/format.h>

#include "host/agent/faults.h"
#include "host/agent/process.h"
#include "host/values/agent.h"

namespace agent {

namespace {

uint8_t LevelOf(uint64_t value, uint32_t limit) {
    if (value < limit) {
        return TARN_AGENT_HEALTH_GOOD;
    }
    return value < uint64_t{2} * limit ? TARN_AGENT_HEALTH_DEGRADED : TARN_AGENT_HEALTH_BAD;
}

Health::Finding Found(uint64_t value, uint32_t limit, const char *unit) {
    return {LevelOf(value, limit), fmt::format("{} {}, limit {}", value, unit, limit)};
}

Health::Finding OpenDescriptors(const host::procfs::Procfs &procfs, uint32_t limit) {
    const auto entries = std::filesystem::directory_iterator(procfs.Path("self/fd"));
    const auto open = static_cast<uint64_t>(std::distance(begin(entries), end(entries)));
    rlimit most{};
    getrlimit(RLIMIT_NOFILE, &most);
    const uint64_t share = open * 1000 / std::max<uint64_t>(most.rlim_cur, 1);
    return {LevelOf(share, limit),
            fmt::format("{} of {} descriptors are open, {} permille, limit {}", open, most.rlim_cur, share, limit)};
}

Health::Finding ResidentMemory(const host::procfs::Procfs &procfs, uint32_t limit) {
    return Found(host::procfs::FieldOf(procfs.Read("self/status"), "VmRSS") / 1024, limit, "MiB resident");
}

} // namespace

std::map<uint8_t, Health::Item> OwnHealthItems(const host::procfs::Procfs &procfs, const DeadLoops &deadLoops,
                                               const Memory &memory) {
    return {
        {1,
         {"threads", 512,
          [&](uint32_t limit) { return Found(procfs.ReadProcess(OwnPid()).threadNum, limit, "threads"); }}},
        {2, {"descriptors", 800, [&](uint32_t limit) { return OpenDescriptors(procfs, limit); }}},
        {3, {"memory", 1024, [&](uint32_t limit) { return ResidentMemory(procfs, limit); }}},
        {4,
         {"dead loops", 1,
          [&](uint32_t limit) { return Found(deadLoops.LoopNum(), limit, "threads in a dead loop"); }}},
        {5, {"memory damage", 1, [&](uint32_t limit) { return Found(memory.DamageNum(), limit, "damages found"); }}},
        {6, {"faults", 1, [](uint32_t limit) { return Found(FaultNum(), limit, "faults recorded"); }}},
    };
}

} // namespace agent
