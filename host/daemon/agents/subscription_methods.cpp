// Who is told of the machine's resources.
#include <unistd.h>

#include <utility>

#include "host/daemon/agents/relay.h"
#include "host/osal/log.h"
#include "host/values/agent.h"
#include "server/tarnd.h"
#include "server/tarnd_agent.h"

namespace tarnd {

namespace {

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

Tarn_sys_diag_SubscribeInfo Describe(const Subscriptions::Subscription &subscription) {
    Tarn_sys_diag_SubscribeInfo info{};
    host::procfs::SkipEnded(
        [&] { host::CopyText(info.szName1, Daemon::Serving().proc.ReadProcess(subscription.pid).name); });
    host::CopyText(info.szName2, EventsText(subscription.events));
    info.uiValue1 = subscription.events;
    info.uiValue2 = subscription.pid;
    return info;
}

void ListSubscriptions(const Tarn_sys_diag_GetSubscribeInfoInput &request,
                       host::Reply<Tarn_sys_diag_GetSubscribeInfoResult> &reply) {
    std::vector<Tarn_sys_diag_SubscribeInfo> infos;
    for (const Subscriptions::Subscription &subscription : Daemon::Serving().subscriptions.List()) {
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

void Subscribe(uint32_t pid, uint32_t events) {
    Daemon &daemon = Daemon::Serving();
    const uint32_t before = daemon.subscriptions.Set(pid, events);
    daemon.resourceLevels.Tell(pid);
    host::Log().info("process {} subscribes to events {:#x}, before to {:#x}", pid, events, before);
}

} // namespace

} // namespace tarnd

uint32_t TarnAppSubscribe(const Tarn_sys_diag_AppSubscribeInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::TarnAppSubscribe, request, replyCtx,
                              [&] { tarnd::Subscribe(request->uiValue1, request->uiValue2); });
}

uint32_t TarnGetSubscribeInfoTarnd(const Tarn_sys_diag_GetSubscribeInfoInput *request, void *replyCtx) {
    if (request->uiValue3 != 0) {
        return tarnd::Relay(host::methods::TarnGetSubscribeInfoTarnd, request, replyCtx,
                            TARND_AGENT_METHOD(TarnGetSubscribe), request->uiValue3, *request);
    }
    return host::Answer(host::methods::TarnGetSubscribeInfoTarnd, request, replyCtx,
                        [&](auto &reply) { tarnd::ListSubscriptions(*request, reply); });
}
