// How far the resources of the machine are used, and who is told when that becomes too far.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "host/daemon/agents/agent_line.h"
#include "host/daemon/agents/courier.h"
#include "host/daemon/agents/subscriptions.h"
#include "host/daemon/health/health_settings.h"
#include "host/daemon/sampling/sampler.h"
#include "host/osal/mutex.h"
#include "host/procfs/procfs.h"

namespace tarnd {

// Shares in permille.
struct CpuUse { // of all CPUs together
    uint32_t permille = 0;
    std::chrono::nanoseconds over{}; // what it was measured over; may be less than was asked for
};
CpuUse CpuUseOver(const Sampler &sampler, std::chrono::nanoseconds interval);
uint32_t DescriptorUsePermille(const host::procfs::Procfs &proc);

class ResourceLevels {
public:
    // Follows the samples and tells subscribers.
    ResourceLevels(Sampler &sampler, const host::procfs::Procfs &proc, const HealthSettings &settings,
                   Subscriptions &subscriptions, AgentLine &line, Courier &courier);

    // Has the agent of a process told, if that has subscribed, how the resources are.
    void Tell(uint32_t pid) { courier_.Send(errand_, pid); }

private:
    using Info = Tarn_sys_diag_UpdateResourceInfoInput;

    void Look();
    bool Note(size_t index, uint32_t use);
    std::optional<uint32_t> Use(uint32_t resource) const; // none while it is not known
    void BringTo(uint32_t pid);

    Sampler &sampler_;
    const host::procfs::Procfs &proc_;
    const HealthSettings &settings_;
    Subscriptions &subscriptions_;
    AgentLine &line_;
    Courier &courier_;
    const Courier::Errand errand_;
    host::Mutex mutex_;
    std::array<Info, 3> infos_ TARN_GUARDED_BY(mutex_){};
};

} // namespace tarnd
