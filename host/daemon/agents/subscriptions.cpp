#include "host/daemon/agents/subscriptions.h"

#include <utility>

namespace tarnd {

uint32_t Subscriptions::Set(const Registrant &process, uint32_t events) {
    const host::MutexLock lock(mutex_);
    DropEnded();
    RequireRoom(subscriptions_, process);
    const Subscription before = std::exchange(subscriptions_[process.pid], {process, events});
    if (events == 0) {
        subscriptions_.erase(process.pid);
    }
    return before.process == process ? before.events : 0;
}

std::vector<Subscriptions::Subscription> Subscriptions::List() {
    const host::MutexLock lock(mutex_);
    DropEnded();
    std::vector<Subscription> list;
    for (const auto &[pid, subscription] : subscriptions_) {
        list.push_back(subscription);
    }
    return list;
}

void Subscriptions::DropEnded() {
    std::erase_if(subscriptions_,
                  [this](const auto &entry) { return !proc_.Runs(entry.first, entry.second.process.start); });
}

} // namespace tarnd
