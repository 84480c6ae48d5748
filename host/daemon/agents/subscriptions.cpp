#include "host/daemon/agents/subscriptions.h"

#include <utility>

namespace tarnd {

uint32_t Subscriptions::Set(uint32_t pid, uint32_t events) {
    const uint64_t start = proc_.ReadProcess(pid).startTicks;
    const host::MutexLock lock(mutex_);
    const Subscription before = std::exchange(subscriptions_[pid], {pid, events, start});
    if (events == 0) {
        subscriptions_.erase(pid);
    }
    return before.processStart == start ? before.events : 0;
}

std::vector<Subscriptions::Subscription> Subscriptions::List() {
    const host::MutexLock lock(mutex_);
    std::erase_if(subscriptions_,
                  [this](const auto &entry) { return !proc_.Runs(entry.first, entry.second.processStart); });
    std::vector<Subscription> list;
    for (const auto &[pid, subscription] : subscriptions_) {
        list.push_back(subscription);
    }
    return list;
}

} // namespace tarnd
