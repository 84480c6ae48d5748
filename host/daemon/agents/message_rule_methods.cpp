// What sets and tells the message-control rules.
#include <algorithm>

#include "host/daemon/agents/relay.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

void ListRules(const Tarn_sys_diag_GetMsgRuleInfoInput &request, void *replyCtx,
               host::Reply<Tarn_sys_diag_GetMsgRuleInfoResult> &reply) {
    MessageRules &messageRules = Daemon::Serving().messageRules;
    const host::WallTime now = Daemon::Serving().clocks.WallNow();
    std::vector<MessageRules::Rule> rules = messageRules.List(now);
    std::erase_if(rules, [&](const MessageRules::Rule &rule) {
        return request.uiValue1 != 0 && rule.content.uiValue1 != request.uiValue1;
    });
    rules.erase(rules.begin(), rules.begin() + std::min<ptrdiff_t>(std::ssize(rules), request.uiValue2));
    std::map<uint32_t, MessageRules::Matches> matches;
    if (!rules.empty()) {
        matches = messageRules.CountMatches([&] { return RelayTimeout(replyCtx); });
    }
    std::vector<Tarn_sys_diag_MsgRuleInfo> infos;
    for (const MessageRules::Rule &rule : rules) {
        const MessageRules::Matches &sum = matches[rule.content.uiValue1];
        Tarn_sys_diag_MsgRuleInfo info{};
        info.stRule = rule.content;
        info.uiAgeSec = MessageRules::AgeOf(rule, now);
        info.ullMatchNum = sum.matched;
        info.ullDropNum = sum.dropped;
        infos.push_back(info);
    }
    reply.pstRule = reply.Keep(std::move(infos), reply.uiRuleNum);
}

} // namespace

} // namespace tarnd

uint32_t UpdateMsgCtrlRuleTarnd(const Tarn_sys_diag_UpdateMsgCtrlRuleInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::UpdateMsgCtrlRuleTarnd, request, replyCtx,
                              [&] { tarnd::Daemon::Serving().messageRules.Set(*request); });
}

uint32_t ClearMsgCtrlRuleTarnd(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ClearMsgCtrlRuleTarnd, request, replyCtx,
                              [] { tarnd::Daemon::Serving().messageRules.Clear(); });
}

uint32_t TarnGetMsgRuleInfoTarnd(const Tarn_sys_diag_GetMsgRuleInfoInput *request, void *replyCtx) {
    if (request->uiValue3 != 0) {
        return tarnd::Relay(host::methods::TarnGetMsgRuleInfoTarnd, request, replyCtx,
                            TARND_AGENT_METHOD(GetMsgCtrlRule), request->uiValue3, *request);
    }
    return host::AnswerWithResult(host::methods::TarnGetMsgRuleInfoTarnd, request, replyCtx,
                                  [&](auto &reply) { tarnd::ListRules(*request, replyCtx, reply); });
}
