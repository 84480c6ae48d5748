// What the daemon tells of the machine's resources, and who subscribes to it.
#include "host/agent/agent.h"
#include "host/agent/methods.h"
#include "host/values/agent.h"

namespace agent {

namespace {

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

uint32_t TarnUpdateResourceInfo(const Tarn_sys_diag_UpdateResourceInfoInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::TarnUpdateResourceInfo, request, replyCtx,
                              [&] { Agent::OfProcess().resources.Update(*request); });
}

uint32_t TarnGetSubscribe(const Tarn_sys_diag_GetSubscribeInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::TarnGetSubscribe, request, replyCtx, [&](auto &reply) {
        CheckProcess("uiValue3", request->uiValue3);
        Choice choice(request->uiValue2, 0);
        std::vector<Tarn_sys_diag_SubscribeInfo> infos;
        for (const auto &[name, subscription] : Agent::OfProcess().resources.Subscriptions()) {
            if ((request->uiValue1 == 0 || (subscription.events & request->uiValue1) != 0) && choice.Takes()) {
                Tarn_sys_diag_SubscribeInfo &info = infos.emplace_back();
                host::CopyText(info.szName1, name);
                host::CopyText(info.szName2, EventsText(subscription.events));
                info.uiValue1 = subscription.events;
                info.uiValue2 = subscription.toldNum;
            }
        }
        reply.pstSubscribe = reply.Keep(std::move(infos), reply.uiSubscribeNum);
        reply.uiValue2 = Agent::OfProcess().resources.Events();
        reply.uiValue3 = choice.Matches();
        reply.uiValue4 = OwnPid();
    });
}

} // namespace agent
