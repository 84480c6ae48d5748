#include "host/agent/resources.h"

#include <unistd.h>

#include <cstring>
#include <utility>

#include "host/agent/methods.h"
#include "host/osal/log.h"
#include "host/values/agent.h"

namespace agent {

namespace {

constexpr std::chrono::milliseconds kIdle{3600000}; // until there is something to tell
constexpr uint8_t kMaxLevel = 2;
constexpr uint32_t kAllEvents = TARN_AGENT_EVENT_CPU | TARN_AGENT_EVENT_MEMORY | TARN_AGENT_EVENT_DESCRIPTORS;

// "cpu,memory"
std::string EventsText(uint32_t events) {
    static constexpr std::pair<uint32_t, const char *> kNames[] = {{TARN_AGENT_EVENT_CPU, "cpu"},
                                                                   {TARN_AGENT_EVENT_MEMORY, "memory"},
                                                                   {TARN_AGENT_EVENT_DESCRIPTORS, "descriptors"}};
    std::string text;
    for (const auto &[event, name] : kNames) {
        if ((events & event) != 0) {
            text += (text.empty() ? "" : ",") + std::string(name);
        }
    }
    return text;
}

} // namespace

uint32_t Resources::Subscribe(const char *name, uint32_t events, TarnAgentResourceFunction function, void *userData) {
    if (name == nullptr || *name == 0 || strlen(name) >= sizeof(Tarn_sys_diag_SubscribeInfo::szName1) || events == 0 ||
        (events & ~kAllEvents) != 0 || function == nullptr) {
        return EINVAL;
    }
    const std::lock_guard lock(mutex_);
    return subscriptions_.try_emplace(name, Subscription{events, function, userData}).second ? 0 : EEXIST;
}

uint32_t Resources::Unsubscribe(const char *name) {
    if (name == nullptr) {
        return EINVAL;
    }
    const std::lock_guard lock(mutex_);
    return subscriptions_.erase(name) != 0 ? 0 : ENOENT;
}

uint8_t Resources::LevelOf(uint8_t resource) const {
    const std::lock_guard lock(mutex_);
    return resource < states_.size() ? states_[resource].ucLevel : uint8_t{0};
}

void Resources::Update(const State &state) {
    if (state.ucResource < TARN_AGENT_RESOURCE_CPU || state.ucResource > TARN_AGENT_RESOURCE_DESCRIPTORS) {
        throw host::BadValue("ucResource", state.ucResource, "1 CPU, 2 memory or 3 descriptors");
    }
    if (state.ucLevel > kMaxLevel) {
        throw host::BadValue("ucLevel", state.ucLevel, "0 normal, 1 near its limit or 2 overloaded");
    }
    {
        const std::lock_guard lock(mutex_);
        states_[state.ucResource] = state;
        waiting_.push_back(state);
        if (waiting_.size() > kMaxWaiting) {
            waiting_.pop_front(); // a subscriber hangs: it hears of what is now when it is back
        }
    }
    work_.Wake();
}

void Resources::TellAll() {
    std::unique_lock lock(mutex_);
    while (!waiting_.empty()) {
        const State state = waiting_.front();
        waiting_.pop_front();
        const std::map<std::string, Subscription> subscriptions = subscriptions_;
        for (const auto &[name, subscription] : subscriptions) {
            if ((subscription.events >> state.ucResource & 1) == 0) {
                continue;
            }
            lock.unlock();
            host::Run(name.c_str(), [&, &to = subscription] {
                to.function(state.ucResource, state.ucLevel, state.usUsage, to.userData);
            });
            lock.lock();
            if (const auto found = subscriptions_.find(name); found != subscriptions_.end()) {
                ++found->second.toldNum;
            }
        }
    }
}

std::map<std::string, Resources::Subscription> Resources::Subscriptions() const {
    const std::lock_guard lock(mutex_);
    return subscriptions_;
}

uint32_t Resources::Events() const {
    const std::lock_guard lock(mutex_);
    uint32_t events = 0;
    for (const auto &[name, subscription] : subscriptions_) {
        events |= subscription.events;
    }
    return events;
}

void Resources::Run() {
    work_.Start("tarn-resources", [this] {
        TellAll();
        return kIdle;
    });
}

void Resources::Halt() {
    work_.Stop();
}

Resources &TheResources() {
    static Resources &resources = *new Resources; // the application may call after the end of main
    return resources;
}

uint32_t TarnUpdateResourceInfo(const Tarn_sys_diag_UpdateResourceInfoInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] { TheResources().Update(*request); });
}

uint32_t TarnGetSubscribe(const Tarn_sys_diag_GetSubscribeInfoInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_GetSubscribeInfoResult>(__func__, replyCtx, [&](auto &reply) {
        CheckProcess("uiValue3", request->uiValue3);
        Choice choice(request->uiValue2, 0);
        std::vector<Tarn_sys_diag_SubscribeInfo> infos;
        for (const auto &[name, subscription] : TheResources().Subscriptions()) {
            if ((request->uiValue1 == 0 || (subscription.events & request->uiValue1) != 0) && choice.Takes()) {
                Tarn_sys_diag_SubscribeInfo &info = infos.emplace_back();
                host::CopyText(info.szName1, name);
                host::CopyText(info.szName2, EventsText(subscription.events));
                info.uiValue1 = subscription.events;
                info.uiValue2 = subscription.toldNum;
            }
        }
        reply.pstSubscribe = reply.Keep(std::move(infos), reply.uiSubscribeNum);
        reply.uiValue2 = TheResources().Events();
        reply.uiValue3 = choice.Matches();
        reply.uiValue4 = static_cast<uint32_t>(getpid());
    });
}

} // namespace agent

uint32_t TarnAgent_Subscribe(const char *name, uint32_t events, TarnAgentResourceFunction function, void *userData) {
    uint32_t result = 0;
    const uint32_t thrown =
        host::Run(__func__, [&] { result = agent::TheResources().Subscribe(name, events, function, userData); });
    return thrown != 0 ? thrown : result;
}

uint32_t TarnAgent_Unsubscribe(const char *name) {
    uint32_t result = 0;
    const uint32_t thrown = host::Run(__func__, [&] { result = agent::TheResources().Unsubscribe(name); });
    return thrown != 0 ? thrown : result;
}

uint8_t TarnAgent_ResourceLevel(uint8_t resource) {
    return agent::TheResources().LevelOf(resource);
}
