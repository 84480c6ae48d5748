// Who is told of the machine's resources.
#include <unistd.h>

#include <utility>

#include "host/daemon/agents/relay.h"
#include "host/meaning/unit.h"
#include "host/osal/log.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

namespace tarnd {

namespace {

Tarn_sys_diag_SubscribeInfo Describe(const Subscriptions::Subscription &subscription) {
    Tarn_sys_diag_SubscribeInfo info{};
    auto &[name, eventNames, events, process] = info;
    host::procfs::SkipEnded(
        [&, &to = name] { host::CopyText(to, Daemon::Serving().proc.ReadProcess(subscription.process.pid).name); });
    host::CopyText(eventNames, host::meaning::NamesInSum(subscription.events, host::meaning::event::kAll));
    events = subscription.events;
    process = subscription.process.pid;
    return info;
}

void ListSubscriptions(const Tarn_sys_diag_GetSubscribeInfoInput &request,
                       host::Reply<Tarn_sys_diag_GetSubscribeInfoResult> &reply) {
    const auto &[wanted, skip, askedProcess] = request;
    auto &[subscriptionNum, subscriptions, reserved, events, matches, process] = reply.Members();
    std::vector<Tarn_sys_diag_SubscribeInfo> infos;
    for (const Subscriptions::Subscription &subscription : Daemon::Serving().subscriptions.List()) {
        events |= subscription.events;
        if (wanted != 0 && (subscription.events & wanted) == 0) {
            continue;
        }
        if (matches++ >= skip) {
            infos.push_back(Describe(subscription));
        }
    }
    subscriptions = reply.Keep(std::move(infos), subscriptionNum);
    process = static_cast<uint32_t>(getpid());
}

void Subscribe(const Tarn_sys_diag_AppSubscribeInput &request, void *replyCtx) {
    const auto &[named, events] = request;
    Daemon &daemon = Daemon::Serving();
    const Registrant process = RegistrantOf(daemon.proc, named, replyCtx);
    const uint32_t before = daemon.subscriptions.Set(process, events);
    if (events != before) { // agents renew what they have
        daemon.resourceLevels.Tell(process.pid);
        host::Log().info("process {} subscribes to events {:#x}, before to {:#x}", process.pid, events, before);
    }
}

} // namespace

} // namespace tarnd

uint32_t TarnAppSubscribe(const Tarn_sys_diag_AppSubscribeInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::TarnAppSubscribe, request, replyCtx,
                              [&] { tarnd::Subscribe(*request, replyCtx); });
}

uint32_t TarnGetSubscribeInfoTarnd(const Tarn_sys_diag_GetSubscribeInfoInput *request, void *replyCtx) {
    if (const auto &[events, skip, process] = *request; process != 0) {
        return tarnd::Relay(host::methods::TarnGetSubscribeInfoTarnd, request, replyCtx,
                            TARND_AGENT_METHOD(TarnGetSubscribe), process, {events, skip, tarnd::kAgentsOwn});
    }
    return host::Answer(host::methods::TarnGetSubscribeInfoTarnd, request, replyCtx,
                        [&](auto &reply) { tarnd::ListSubscriptions(*request, reply); });
}
