#include "host/daemon/history/minutes.h"

#include "host/daemon/sampling/rates.h"

namespace tarnd {

namespace {

MinuteFigures FiguresOf(const SystemSample &from, const SystemSample &to) {
    const uint64_t total = Growth(from.cpu.Total(), to.cpu.Total());
    const uint32_t waiting = Permille(Growth(from.cpu.ioWait, to.cpu.ioWait), total);
    return {to.time,
            BusyPermille(from.cpu, to.cpu),
            std::min(waiting, 1000U),
            to.memory.total,
            to.memory.available,
            Growth(to.memory.swapFree, to.memory.swapTotal)};
}

} // namespace

Minutes::Minutes(Sampler &sampler, std::function<void(const MinuteFigures &)> take)
    : take_(std::move(take)), since_(sampler.Latest()->system) {
    sampler.OnSample("minutes", [this](const SamplePtr &, const SamplePtr &latest) {
        if (latest->system.at - since_.at >= kLength) {
            take_(FiguresOf(since_, latest->system));
            since_ = latest->system;
        }
    });
}

} // namespace tarnd
