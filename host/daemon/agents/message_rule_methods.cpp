// What sets and tells the message-control rules.
#include <algorithm>

#include "host/daemon/agents/relay.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

// Those that a request wants.
std::vector<MessageRules::Rule> Choose(const Tarn_sys_diag_GetMsgRuleInfoInput &request, host::WallTime now) {
    const auto &[number, skip, process] = request;
    std::vector<MessageRules::Rule> rules = Daemon::Serving().messageRules.List(now);
    if (number != 0) {
        std::erase_if(rules, [wanted = number](const auto &rule) { return rule.content.number != wanted; });
    }
    rules.erase(rules.begin(), rules.begin() + std::min<ptrdiff_t>(std::ssize(rules), skip));
    return rules;
}

void ListRules(const Tarn_sys_diag_GetMsgRuleInfoInput &request, void *replyCtx,
               host::Reply<Tarn_sys_diag_GetMsgRuleInfoResult> &reply) {
    MessageRules &messageRules = Daemon::Serving().messageRules;
    const host::WallTime now = Daemon::Serving().clocks.WallNow();
    const std::vector<MessageRules::Rule> rules = Choose(request, now);
    std::map<uint32_t, MessageRules::Matches> matches;
    if (!rules.empty()) {
        matches = messageRules.CountMatches(RelayTimeout(replyCtx));
    }
    std::vector<Tarn_sys_diag_MsgRuleInfo> infos;
    for (const MessageRules::Rule &rule : rules) {
        const MessageRules::Matches &sum = matches[rule.content.number];
        infos.push_back({ToRecord(rule.content), sum.matched, sum.dropped, MessageRules::AgeOf(rule, now)});
    }
    reply.pstRule = reply.Keep(std::move(infos), reply.uiRuleNum);
}

} // namespace

} // namespace tarnd

uint32_t UpdateMsgCtrlRuleTarnd(const Tarn_sys_diag_UpdateMsgCtrlRuleInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::UpdateMsgCtrlRuleTarnd, request, replyCtx,
                              [&] { tarnd::Daemon::Serving().messageRules.Set(host::meaning::FromRecord(*request)); });
}

uint32_t ClearMsgCtrlRuleTarnd(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ClearMsgCtrlRuleTarnd, request, replyCtx,
                              [] { tarnd::Daemon::Serving().messageRules.Clear(); });
}

uint32_t TarnGetMsgRuleInfoTarnd(const Tarn_sys_diag_GetMsgRuleInfoInput *request, void *replyCtx) {
    if (const auto &[rule, skip, process] = *request; process != 0) {
        return tarnd::Relay(host::methods::TarnGetMsgRuleInfoTarnd, request, replyCtx,
                            TARND_AGENT_METHOD(GetMsgCtrlRule), process, {rule, skip, tarnd::kAgentsOwn});
    }
    return host::AnswerWithResult(host::methods::TarnGetMsgRuleInfoTarnd, request, replyCtx,
                                  [&](auto &reply) { tarnd::ListRules(*request, replyCtx, reply); });
}
