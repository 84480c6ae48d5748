#include "host/daemon/health/resources.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <sstream>

#include "host/answer/answer.h"
#include "host/daemon/agents/courier.h"
#include "host/daemon/agents/relay.h"
#include "host/daemon/agents/subscriptions.h"
#include "host/daemon/health/health_settings.h"
#include "host/daemon/memory/memory_use.h"
#include "host/daemon/sampling/rates.h"
#include "host/daemon/sampling/sampler.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"
#include "host/values/agent.h"
#include "host/values/daemon.h"

namespace tarnd {

namespace {

using Info = Tarn_sys_diag_UpdateResourceInfoInput;

constexpr std::chrono::seconds kCpuInterval{3};
// A resource that is used a little less than its limit has not recovered yet: else its subscribers were told at each
// sample.
constexpr uint32_t kRecovery = 20;

struct Resource {
    uint8_t id;
    uint8_t function; // whose limit counts
    uint32_t (*use)();
    const char *name;
};

constexpr std::array<Resource, 3> kResources{{
    {TARN_AGENT_RESOURCE_CPU, TARND_HEALTH_CPU, [] { return CpuUsePermille(kCpuInterval); }, "CPU"},
    {TARN_AGENT_RESOURCE_MEMORY, TARND_HEALTH_MEMORY, [] { return UsedPermille(TheSampler().Latest()->system.memory); },
     "memory"},
    {TARN_AGENT_RESOURCE_DESCRIPTORS, TARND_HEALTH_DESCRIPTORS, [] { return DescriptorUsePermille(); }, "descriptors"},
}};

std::mutex resourceMutex;
std::array<Info, kResources.size()> resourceInfos{};

// 0 normal, 1 near its limit, 2 overloaded.
uint8_t LevelOf(uint32_t use, uint32_t limit, uint8_t before) {
    const uint32_t over = limit + (1000 - limit) / 2;
    const auto reached = [&](uint32_t threshold, uint8_t level) {
        return use >= threshold || (before >= level && use + kRecovery >= threshold);
    };
    return reached(over, 2) ? 2 : reached(limit, 1) ? 1 : 0;
}

void Look() {
    bool changed = false;
    for (size_t i = 0; i < kResources.size(); ++i) {
        const Resource &resource = kResources[i];
        const bool on = TheHealthSettings().IsOn(resource.function);
        const uint32_t use = resource.use();
        const std::lock_guard lock(resourceMutex);
        Info &info = resourceInfos[i];
        const uint8_t level = on ? LevelOf(use, TheHealthSettings().LimitOf(resource.function), info.ucLevel) : 0;
        if (level != info.ucLevel) {
            host::Log().info("{}: level {}, before {}, {} permille in use", resource.name, level, info.ucLevel, use);
            changed = true;
        }
        changed = changed || info.ucResource == 0; // the first look: who has subscribed before it has heard nothing
        info = {resource.id, level, static_cast<uint16_t>(use)};
    }
    if (changed) {
        for (const Subscriptions::Subscription &subscription : TheSubscriptions().List()) {
            TheCourier().Send(BringResources, subscription.pid);
        }
    }
}

} // namespace

uint32_t CpuUsePermille(std::chrono::nanoseconds interval) {
    const Sampler::Window window = TheSampler().Last(interval);
    return BusyPermille(window.from->system.cpu, window.to->system.cpu);
}

uint32_t DescriptorUsePermille() {
    std::istringstream text(host::procfs::Procfs().Read("sys/fs/file-nr"));
    double allocated = 0, unused = 0, most = 0;
    if (!(text >> allocated >> unused >> most) || most <= 0) {
        throw std::system_error(EPROTO, std::generic_category(), "/proc/sys/fs/file-nr");
    }
    return static_cast<uint32_t>(std::clamp((allocated - unused) * 1000 / most, 0.0, 1000.0));
}

void WatchResources() {
    TheSampler().OnSample("resources", [](const SamplePtr &, const SamplePtr &) { Look(); });
}

void BringResources(uint32_t pid) {
    for (const Subscriptions::Subscription &subscription : TheSubscriptions().List()) {
        if (subscription.pid != pid) {
            continue;
        }
        std::array<Info, kResources.size()> infos;
        {
            const std::lock_guard lock(resourceMutex);
            infos = resourceInfos;
        }
        for (const Info &info : infos) {
            if ((subscription.events & (1U << info.ucResource)) != 0) {
                AskAgent(TARND_AGENT_METHOD(TarnUpdateResourceInfo), pid, info, Courier::kTimeoutMs);
            }
        }
    }
}

} // namespace tarnd
