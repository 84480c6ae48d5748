#include "host/agent/resources.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "host/meaning/choices.h"
#include "host/osal/attempt.h"

namespace agent {

namespace {

namespace event = host::meaning::event;

constexpr uint32_t kAllEvents = event::kCpu + event::kMemory + event::kDescriptors;

} // namespace

uint32_t Resources::Subscribe(const char *name, uint32_t events, TarnAgentResourceFunction function, void *userData) {
    if (name == nullptr || *name == 0 || strlen(name) >= sizeof(Tarn_sys_diag_SubscribeInfo::szName1) || events == 0 ||
        (events & ~kAllEvents) != 0 || function == nullptr) {
        return EINVAL;
    }
    const host::MutexLock lock(mutex_);
    return subscriptions_.try_emplace(name, Subscription{events, function, userData}).second ? 0 : EEXIST;
}

uint32_t Resources::Unsubscribe(const char *name) {
    if (name == nullptr) {
        return EINVAL;
    }
    const host::MutexLock lock(mutex_);
    return subscriptions_.erase(name) != 0 ? 0 : ENOENT;
}

uint8_t Resources::LevelOf(uint8_t resource) const {
    const host::MutexLock lock(mutex_);
    return resource < states_.size() ? states_[resource].ucLevel : uint8_t{0};
}

void Resources::Update(const State &state) {
    {
        const host::MutexLock lock(mutex_);
        states_[state.ucResource] = state;
        waiting_.push_back(state);
        if (waiting_.size() > kMaxWaiting) {
            waiting_.pop_front(); // a subscriber hangs: it hears of what is now when it is back
        }
    }
    wake_();
}

std::optional<Resources::State> Resources::TakeWaiting() {
    const host::MutexLock lock(mutex_);
    if (waiting_.empty()) {
        return {};
    }
    const State state = waiting_.front();
    waiting_.pop_front();
    return state;
}

// Without the lock: a subscriber may subscribe and ask for what it likes.
void Resources::TellAll() {
    while (const std::optional<State> state = TakeWaiting()) {
        for (const auto &[name, subscription] : Subscriptions()) {
            if ((subscription.events >> state->ucResource & 1) != 0) {
                Tell(name, subscription, *state);
            }
        }
    }
}

void Resources::Tell(const std::string &name, const Subscription &subscription, const State &state) {
    host::Attempt(name.c_str(), [&] {
        subscription.function(state.ucResource, state.ucLevel, state.usUsage, subscription.userData);
    });
    const host::MutexLock lock(mutex_);
    if (const auto found = subscriptions_.find(name); found != subscriptions_.end()) {
        ++found->second.toldNum;
    }
}

std::map<std::string, Resources::Subscription> Resources::Subscriptions() const {
    const host::MutexLock lock(mutex_);
    return subscriptions_;
}

uint32_t Resources::Events() const {
    const host::MutexLock lock(mutex_);
    uint32_t events = 0;
    for (const auto &[name, subscription] : subscriptions_) {
        events |= subscription.events;
    }
    return events;
}

} // namespace agent
