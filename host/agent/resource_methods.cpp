// What the daemon tells of the machine's resources, and who subscribes to it.
#include "host/agent/agent.h"
#include "host/agent/methods.h"
#include "host/meaning/unit.h"

namespace agent {

namespace {

Tarn_sys_diag_SubscribeInfo ToRecord(const std::string &subscriber, const Resources::Subscription &subscription) {
    Tarn_sys_diag_SubscribeInfo info{};
    auto &[name, eventNames, events, notified] = info;
    host::CopyText(name, subscriber);
    host::CopyText(eventNames, host::meaning::NamesInSum(subscription.events, host::meaning::event::kAll));
    events = subscription.events;
    notified = subscription.toldNum;
    return info;
}

} // namespace

uint32_t TarnUpdateResourceInfo(const Tarn_sys_diag_UpdateResourceInfoInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::TarnUpdateResourceInfo, request, replyCtx,
                              [&] { Agent::OfProcess().resources.Update(*request); });
}

uint32_t TarnGetSubscribe(const Tarn_sys_diag_GetSubscribeInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::TarnGetSubscribe, request, replyCtx, [&](auto &reply) {
        const auto &[wanted, skip, askedProcess] = *request;
        CheckProcess(host::methods::TarnGetSubscribe, askedProcess);
        Choice choice(skip, 0);
        std::vector<Tarn_sys_diag_SubscribeInfo> infos;
        for (const auto &[name, subscription] : Agent::OfProcess().resources.Subscriptions()) {
            if ((wanted == 0 || (subscription.events & wanted) != 0) && choice.Takes()) {
                infos.push_back(ToRecord(name, subscription));
            }
        }
        auto &[subscriptionNum, subscriptions, reserved, events, matches, process] = reply.Members();
        subscriptions = reply.Keep(std::move(infos), subscriptionNum);
        events = Agent::OfProcess().resources.Events();
        matches = choice.Matches();
        process = OwnPid();
    });
}

} // namespace agent
