#include "host/daemon/agents/subscriptions.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/answer/answer.h"
#include "host/daemon/agents/courier.h"
#include "host/daemon/agents/relay.h"
#include "host/daemon/health/resources.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"
#include "host/values/agent.h"
#include "server/tarnd.h"
#include "server/tarnd_agent.h"

namespace tarnd {

namespace {

constexpr uint32_t kAllEvents = TARN_AGENT_EVENT_CPU | TARN_AGENT_EVENT_MEMORY | TARN_AGENT_EVENT_DESCRIPTORS;

// "CPU memory"
std::string EventsText(uint32_t events) {
    std::string text;
    for (const auto &[event, name] : {std::pair(TARN_AGENT_EVENT_CPU, "CPU"),
                                      {TARN_AGENT_EVENT_MEMORY, "memory"},
                                      {TARN_AGENT_EVENT_DESCRIPTORS, "descriptors"}}) {
        if ((events & event) != 0) {
            text += (text.empty() ? "" : " ") + std::string(name);
        }
    }
    return text;
}

} // namespace

uint32_t Subscriptions::Set(uint32_t pid, uint32_t events) {
    if ((events & ~kAllEvents) != 0) {
        throw host::BadValue("uiValue2", events, "a sum of 2, 4 and 8");
    }
    const uint64_t start = host::procfs::Procfs().ReadProcess(pid).startTicks;
    const std::lock_guard lock(mutex_);
    const Subscription before = std::exchange(subscriptions_[pid], {pid, events, start});
    if (events == 0) {
        subscriptions_.erase(pid);
    }
    return before.processStart == start ? before.events : 0;
}

std::vector<Subscriptions::Subscription> Subscriptions::List() {
    const std::lock_guard lock(mutex_);
    std::erase_if(subscriptions_, [](const auto &entry) {
        return !host::procfs::Procfs().Runs(entry.first, entry.second.processStart);
    });
    std::vector<Subscription> list;
    for (const auto &[pid, subscription] : subscriptions_) {
        list.push_back(subscription);
    }
    return list;
}

namespace {

Tarn_sys_diag_SubscribeInfo Describe(const Subscriptions::Subscription &subscription) {
    Tarn_sys_diag_SubscribeInfo info{};
    host::procfs::SkipEnded(
        [&] { host::CopyText(info.szName1, host::procfs::Procfs().ReadProcess(subscription.pid).name); });
    host::CopyText(info.szName2, EventsText(subscription.events));
    info.uiValue1 = subscription.events;
    info.uiValue2 = subscription.pid;
    return info;
}

void ListSubscriptions(const Tarn_sys_diag_GetSubscribeInfoInput &request,
                       host::Reply<Tarn_sys_diag_GetSubscribeInfoResult> &reply) {
    std::vector<Tarn_sys_diag_SubscribeInfo> infos;
    for (const Subscriptions::Subscription &subscription : TheSubscriptions().List()) {
        reply.uiValue2 |= subscription.events;
        if (request.uiValue1 != 0 && (subscription.events & request.uiValue1) == 0) {
            continue;
        }
        if (reply.uiValue3++ >= request.uiValue2) {
            infos.push_back(Describe(subscription));
        }
    }
    reply.pstSubscribe = reply.Keep(std::move(infos), reply.uiSubscribeNum);
    reply.uiValue4 = static_cast<uint32_t>(getpid());
}

} // namespace

} // namespace tarnd

uint32_t TarnAppSubscribe(const Tarn_sys_diag_AppSubscribeInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] {
        const uint32_t before = tarnd::TheSubscriptions().Set(request->uiValue1, request->uiValue2);
        tarnd::TheCourier().Send(tarnd::BringResources, request->uiValue1);
        host::Log().info("process {} subscribes to events {:#x}, before to {:#x}", request->uiValue1, request->uiValue2,
                         before);
    });
}

uint32_t TarnGetSubscribeInfoTarnd(const Tarn_sys_diag_GetSubscribeInfoInput *request, void *replyCtx) {
    if (request->uiValue3 != 0) {
        return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(TarnGetSubscribe), request->uiValue3, *request);
    }
    return host::Answer<Tarn_sys_diag_GetSubscribeInfoResult>(
        __func__, replyCtx, [&](auto &reply) { tarnd::ListSubscriptions(*request, reply); });
}
