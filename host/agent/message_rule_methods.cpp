// Message-control rules, as the daemon sets and reads them.
#include "host/agent/agent.h"
#include "host/agent/methods.h"
#include "host/osal/log.h"

namespace agent {

uint32_t UpdateMsgCtrlRule(const Tarn_sys_diag_UpdateMsgCtrlRuleInput *request, void *replyCtx) {
    return host::AnswerResult(host::methods::UpdateMsgCtrlRule, request, replyCtx, [&] {
        const host::meaning::MessageRule rule = host::meaning::FromRecord(*request);
        CheckProcess(host::methods::UpdateMsgCtrlRule, rule.process);
        Agent::OfProcess().messageRules.Update(rule);
        host::Log().info("message rule {} set", rule.number);
    });
}

uint32_t ClearMsgCtrlRule(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ClearMsgCtrlRule, request, replyCtx, [] {
        Agent::OfProcess().messageRules.Clear();
        host::Log().info("message rules cleared");
    });
}

uint32_t GetMsgCtrlRule(const Tarn_sys_diag_GetMsgRuleInfoInput *request, void *replyCtx) {
    return host::AnswerWithResult(host::methods::GetMsgCtrlRule, request, replyCtx, [&](auto &reply) {
        const auto &[number, skip, process] = *request;
        CheckProcess(host::methods::GetMsgCtrlRule, process);
        Choice choice(skip, 0);
        std::vector<Tarn_sys_diag_MsgRuleInfo> rules;
        for (const Tarn_sys_diag_MsgRuleInfo &rule : Agent::OfProcess().messageRules.Get(number)) {
            if (choice.Takes()) {
                rules.push_back(rule);
            }
        }
        reply.pstRule = reply.Keep(std::move(rules), reply.uiRuleNum);
    });
}

} // namespace agent
