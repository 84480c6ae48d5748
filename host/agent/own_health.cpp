#include "host/agent/own_health.h"

#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

#include <fmt/format.h>

#include "host/agent/faults.h"
#include "host/agent/process.h"
#include "host/meaning/choices.h"

namespace agent {

namespace {

namespace health_item = host::meaning::health_item;
namespace health_level = host::meaning::health_level;

host::meaning::Choice LevelOf(uint64_t value, uint32_t limit) {
    if (value < limit) {
        return health_level::kGood;
    }
    return value < uint64_t{2} * limit ? health_level::kDegraded : health_level::kBad;
}

Health::Finding Found(uint64_t value, uint32_t limit, const char *unit) {
    return {static_cast<uint8_t>(LevelOf(value, limit)), fmt::format("{} {}, limit {}", value, unit, limit)};
}

Health::Finding OpenDescriptors(const host::procfs::Procfs &procfs, uint32_t limit) {
    const auto entries = std::filesystem::directory_iterator(procfs.Path("self/fd"));
    const auto open = static_cast<uint64_t>(std::distance(begin(entries), end(entries)));
    rlimit most{};
    getrlimit(RLIMIT_NOFILE, &most);
    const uint64_t share = open * 1000 / std::max<uint64_t>(most.rlim_cur, 1);
    return {static_cast<uint8_t>(LevelOf(share, limit)),
            fmt::format("{} of {} descriptors are open, {}.{} %, limit {}.{} %", open, most.rlim_cur, share / 10,
                        share % 10, limit / 10, limit % 10)};
}

Health::Finding ResidentMemory(const host::procfs::Procfs &procfs, uint32_t limit) {
    return Found(host::procfs::FieldOf(procfs.Read("self/status"), "VmRSS") / 1024, limit, "MiB resident");
}

} // namespace

std::map<uint8_t, Health::Item> OwnHealthItems(const host::procfs::Procfs &procfs, const DeadLoops &deadLoops,
                                               const Memory &memory) {
    std::map<uint8_t, Health::Item> items;
    const auto add = [&](const host::meaning::Choice &item, uint32_t limit, Health::Check check) {
        items[static_cast<uint8_t>(item)] = {std::string(item.name), limit, std::move(check)};
    };
    add(health_item::kThreads, 512,
        [&](uint32_t limit) { return Found(procfs.ReadProcess(OwnPid()).threadNum, limit, "threads"); });
    add(health_item::kDescriptors, 800, [&](uint32_t limit) { return OpenDescriptors(procfs, limit); });
    add(health_item::kMemory, 1024, [&](uint32_t limit) { return ResidentMemory(procfs, limit); });
    add(health_item::kDeadLoops, 1,
        [&](uint32_t limit) { return Found(deadLoops.LoopNum(), limit, "threads in a dead loop"); });
    add(health_item::kMemoryDamage, 1,
        [&](uint32_t limit) { return Found(memory.DamageNum(), limit, "damages found"); });
    add(health_item::kFaults, 1, [](uint32_t limit) { return Found(FaultNum(), limit, "faults recorded"); });
    return items;
}

} // namespace agent
