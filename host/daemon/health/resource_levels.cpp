#include "host/daemon/health/resource_levels.h"

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "host/daemon/memory/memory_use.h"
#include "host/daemon/sampling/rates.h"
#include "host/meaning/choices.h"
#include "host/osal/attempt.h"
#include "host/osal/error.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

namespace resource = host::meaning::resource;
namespace resource_level = host::meaning::resource_level;
namespace system_health_item = host::meaning::system_health_item;

constexpr std::chrono::seconds kCpuInterval{3};
// A resource that is used a little less than its limit has not recovered yet: else its subscribers were told at each
// sample.
constexpr uint32_t kHysteresis = 20;

struct Resource {
    host::meaning::Choice id;
    host::meaning::Choice item; // whose limit counts
};

constexpr std::array<Resource, 3> kResources{{
    {resource::kCpu, system_health_item::kCpu},
    {resource::kMemory, system_health_item::kMemory},
    {resource::kDescriptors, system_health_item::kDescriptors},
}};

host::meaning::Choice LevelOf(uint32_t use, uint32_t limit, uint8_t before) {
    const uint32_t over = limit + (1000 - limit) / 2;
    const auto reached = [&](uint32_t threshold, uint32_t level) {
        return use >= threshold || (before >= level && use + kHysteresis >= threshold);
    };
    return reached(over, resource_level::kOverloaded)   ? resource_level::kOverloaded
           : reached(limit, resource_level::kNearLimit) ? resource_level::kNearLimit
                                                        : resource_level::kNormal;
}

} // namespace

CpuUse CpuUseOver(const Sampler &sampler, std::chrono::nanoseconds interval) {
    const auto [from, to] = sampler.LastOfSystem(interval);
    return {BusyPermille(from.cpu, to.cpu), to.at - from.at};
}

uint32_t DescriptorUsePermille(const host::procfs::Procfs &proc) {
    constexpr const char *kFile = "sys/fs/file-nr";
    std::istringstream text(proc.Read(kFile));
    double allocated = 0, unused = 0, most = 0;
    if (!(text >> allocated >> unused >> most) || most <= 0) {
        host::Fail(EPROTO, proc.Path(kFile));
    }
    return static_cast<uint32_t>(std::clamp((allocated - unused) * 1000 / most, 0.0, 1000.0));
}

ResourceLevels::ResourceLevels(Sampler &sampler, const host::procfs::Procfs &proc, const HealthSettings &settings,
                               Subscriptions &subscriptions, AgentLine &line, Courier &courier)
    : sampler_(sampler), proc_(proc), settings_(settings), subscriptions_(subscriptions), line_(line),
      courier_(courier), errand_(courier.Add([this](uint32_t pid) { BringTo(pid); })) {
    sampler.OnSample("resources", [this](const SamplePtr &, const SamplePtr &) { Look(); });
}

void ResourceLevels::Look() {
    bool changed = false;
    for (size_t i = 0; i < kResources.size(); ++i) {
        host::Attempt("resources", [&] { // one that can't be told keeps nobody from hearing of the others
            const std::optional<uint32_t> use = Use(kResources[i].id);
            changed = (use && Note(i, *use)) || changed;
        });
    }
    if (changed) {
        for (const Subscriptions::Subscription &subscription : subscriptions_.List()) {
            Tell(subscription.process.pid);
        }
    }
}

std::optional<uint32_t> ResourceLevels::Use(uint32_t resource) const {
    switch (resource) {
    case resource::kCpu: {
        const CpuUse use = CpuUseOver(sampler_, kCpuInterval);
        return use.over < kCpuInterval ? std::nullopt : std::optional(use.permille);
    }
    case resource::kMemory:
        return UsedPermille(sampler_.Latest()->system.memory);
    default:
        return DescriptorUsePermille(proc_);
    }
}

// Whether there is something to tell.
bool ResourceLevels::Note(size_t index, uint32_t use) {
    const Resource &resource = kResources[index];
    const bool on = settings_.IsOn(resource.item);
    const host::MutexLock lock(mutex_);
    Info &info = infos_[index];
    const host::meaning::Choice level =
        on ? LevelOf(use, settings_.LimitOf(resource.item), info.ucLevel) : resource_level::kNormal;
    if (level != info.ucLevel) {
        host::Log().info("{}: {}, {} permille in use", resource.id.name, level.name, use);
    }
    // At the first look, who has subscribed before has heard nothing.
    const bool tell = level != info.ucLevel || info.ucResource == 0;
    info = {static_cast<uint8_t>(resource.id), static_cast<uint8_t>(level), static_cast<uint16_t>(use)};
    return tell;
}

void ResourceLevels::BringTo(uint32_t pid) {
    for (const Subscriptions::Subscription &subscription : subscriptions_.List()) {
        if (subscription.process.pid != pid) {
            continue;
        }
        const auto infos = [this] {
            const host::MutexLock lock(mutex_);
            return infos_;
        }();
        for (const Info &info : infos) {
            if ((subscription.events & (1U << info.ucResource)) != 0) {
                line_.Ask(TARND_AGENT_METHOD(TarnUpdateResourceInfo), pid, info, Courier::kTimeoutMs);
            }
        }
    }
}

} // namespace tarnd
