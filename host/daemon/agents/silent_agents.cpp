#include "host/daemon/agents/silent_agents.h"

#include <algorithm>

#include "host/osal/log.h"

namespace tarnd {

namespace {

constexpr size_t kMostKept = 4096;

} // namespace

bool SilentAgents::IsSetAside(uint32_t pid) const {
    const host::MutexLock lock(mutex_);
    const auto found = silent_.find(pid);
    return found != silent_.end() && found->second.calls >= kMost;
}

bool SilentAgents::IsDue(uint32_t pid) const {
    const host::MutexLock lock(mutex_);
    const auto found = silent_.find(pid);
    return found != silent_.end() && found->second.calls >= kMost && clocks_.SteadyNow() >= found->second.until;
}

void SilentAgents::Forget(uint32_t pid) {
    const host::MutexLock lock(mutex_);
    silent_.erase(pid);
}

void SilentAgents::NoteSilence(uint32_t pid, std::chrono::milliseconds time) {
    if (time < kFairTime) {
        return;
    }
    const host::SteadyTime now = clocks_.SteadyNow();
    const host::MutexLock lock(mutex_);
    if (silent_.size() >= kMostKept) { // processes come and go
        std::erase_if(silent_, [now](const auto &entry) { return now >= entry.second.until + kLongestRest; });
    }
    Silence &silence = silent_[pid];
    if (++silence.calls > kMost) {
        silence.rest = std::min<std::chrono::nanoseconds>(2 * silence.rest, kLongestRest);
    } else if (silence.calls == kMost) {
        host::Log().warn("the agent of process {} has not answered {} times: it is set aside", pid, kMost);
    }
    silence.until = now + silence.rest;
}

} // namespace tarnd
