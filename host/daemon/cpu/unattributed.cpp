#include "host/daemon/cpu/unattributed.h"

#include <algorithm>

#include "host/daemon/sampling/rates.h"

namespace tarnd {

namespace {

// Of processes that have ended since. Who waited for one has all of its time, also that of before; nobody has the time
// of a child that was not waited for.
uint64_t EndedTicks(const Sample &from, const Sample &to) {
    uint64_t waitedFor = 0;
    for (const ProcessSample &process : to.processes) {
        const ProcessSample *const before = from.Find(process);
        waitedFor += Growth(before == nullptr ? 0 : before->childTicks, process.childTicks);
    }
    uint64_t usedBefore = 0;
    for (const ProcessSample &process : from.processes) {
        if (to.Find(process) == nullptr) {
            usedBefore += process.cpuTicks + process.childTicks;
        }
    }
    return Growth(usedBefore, waitedFor);
}

} // namespace

std::array<Unattributed, 4> UnattributedUse(const Sample &from, const Sample &to, uint64_t shown) {
    const CpuTicks &before = from.system.cpu, &now = to.system.cpu;
    const uint64_t ofOneCpu = Growth(before.Total(), now.Total()) / std::max<size_t>(to.cpus.size(), 1);
    const auto share = [&](uint64_t start, uint64_t end) { return Permille(Growth(start, end), ofOneCpu); };
    const auto elapsed = static_cast<uint64_t>((to.system.at - from.system.at).count());
    const uint64_t used = share(before.Busy(), now.Busy());
    uint64_t left = used - std::min(shown, used);
    const auto take = [&](uint32_t permille) {
        const auto taken = static_cast<uint32_t>(std::min<uint64_t>(permille, left));
        left -= taken;
        return taken;
    };
    return {{{"(ended)", take(Permille(TicksToNs(EndedTicks(from, to)), elapsed))},
             {"(interrupts)", take(share(before.interrupt, now.interrupt))},
             {"(stolen)", take(share(before.stolen, now.stolen))},
             {"(other)", take(static_cast<uint32_t>(left))}}};
}

} // namespace tarnd
