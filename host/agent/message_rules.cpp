#include "host/agent/message_rules.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "host/agent/methods.h"
#include "host/osal/log.h"
#include "host/values/agent.h"

namespace agent {

namespace {

constexpr size_t kMaxRules = 256;

uint32_t Burst(const Rules::Rule &rule) {
    return rule.uiValue7 != 0 ? rule.uiValue7 : rule.uiValue6;
}

void Check(const Rules::Rule &rule) {
    if (rule.uiValue1 == 0) {
        throw host::BadValue("uiValue1", 0, "the rule's id");
    }
    if (rule.uiValue3 < TARN_AGENT_RULE_PASS || rule.uiValue3 > TARN_AGENT_RULE_LIMIT) {
        throw host::BadValue("uiValue3", rule.uiValue3, "1 pass, 2 drop or 3 limit");
    }
    if (rule.uiValue4 > rule.uiValue5) {
        throw host::BadValue("uiValue5", rule.uiValue5, "at least uiValue4, the range's start");
    }
    if (rule.uiValue3 == TARN_AGENT_RULE_LIMIT && rule.uiValue6 == 0) {
        throw host::BadValue("uiValue6", 0, "messages in a second");
    }
    CheckProcess("uiValue9", rule.uiValue9);
}

bool Fits(const std::string &pattern, const char *name) {
    return pattern.empty() || fnmatch(pattern.c_str(), name == nullptr ? "" : name, 0) == 0;
}

} // namespace

bool Rules::Entry::Matches(const TarnAgentMessage &message) const {
    const bool allTypes = rule.uiValue4 == 0 && rule.uiValue5 == 0;
    return (allTypes || (message.uiType >= rule.uiValue4 && message.uiType <= rule.uiValue5)) &&
           Fits(sender, message.pcSender) && Fits(receiver, message.pcReceiver) && Fits(name, message.pcName);
}

// Whether a message that matches passes.
bool Rules::Entry::Decide(Clock::time_point now) {
    ++matchNum;
    bool passes = rule.uiValue3 == TARN_AGENT_RULE_PASS;
    if (rule.uiValue3 == TARN_AGENT_RULE_LIMIT) {
        const double seconds = std::chrono::duration<double>(now - refilled).count();
        tokens = std::min<double>(Burst(rule), tokens + seconds * rule.uiValue6);
        refilled = now;
        passes = tokens >= 1;
        tokens -= passes ? 1 : 0;
    }
    dropNum += passes ? 0 : 1;
    return passes;
}

void Rules::Update(const Rule &rule) {
    Check(rule);
    const Clock::time_point now = Clock::now();
    Entry entry{rule,
                std::string(host::TextOf(rule.acRule1)),
                std::string(host::TextOf(rule.acRule2)),
                std::string(host::TextOf(rule.acRule3)),
                now,
                0,
                0,
                static_cast<double>(Burst(rule)),
                now};
    const std::lock_guard lock(mutex_);
    DropEnded(now);
    std::erase_if(entries_, [&](const Entry &one) { return one.rule.uiValue1 == rule.uiValue1; });
    if (entries_.size() == kMaxRules) {
        throw std::system_error(ENOSPC, std::generic_category(), fmt::format("there are {} rules", kMaxRules));
    }
    const auto place =
        std::upper_bound(entries_.begin(), entries_.end(), rule.uiValue2,
                         [](uint32_t priority, const Entry &one) { return priority < one.rule.uiValue2; });
    entries_.insert(place, std::move(entry));
}

void Rules::Clear() {
    const std::lock_guard lock(mutex_);
    entries_.clear();
}

void Rules::DropEnded(Clock::time_point now) {
    std::erase_if(entries_, [&](const Entry &one) {
        return one.rule.uiValue8 != 0 && now - one.since >= std::chrono::seconds(one.rule.uiValue8);
    });
}

std::vector<Tarn_sys_diag_MsgRuleInfo> Rules::Get(uint32_t id) {
    const Clock::time_point now = Clock::now();
    const std::lock_guard lock(mutex_);
    DropEnded(now);
    std::vector<Tarn_sys_diag_MsgRuleInfo> infos;
    for (const Entry &entry : entries_) {
        if (id == 0 || entry.rule.uiValue1 == id) {
            const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - entry.since);
            infos.push_back({entry.rule, entry.matchNum, entry.dropNum, static_cast<uint32_t>(age.count())});
        }
    }
    return infos;
}

bool Rules::Passes(const TarnAgentMessage &message) {
    const std::lock_guard lock(mutex_);
    if (entries_.empty()) {
        return true;
    }
    const Clock::time_point now = Clock::now();
    DropEnded(now);
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry &one) { return one.Matches(message); });
    return found == entries_.end() || found->Decide(now);
}

Rules &TheRules() {
    static Rules &rules = *new Rules; // the application may ask after the end of main
    return rules;
}

uint32_t UpdateMsgCtrlRule(const Tarn_sys_diag_UpdateMsgCtrlRuleInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] {
        TheRules().Update(*request);
        host::Log().info("message rule {} set", request->uiValue1);
    });
}

uint32_t ClearMsgCtrlRule(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [] {
        TheRules().Clear();
        host::Log().info("message rules cleared");
    });
}

uint32_t GetMsgCtrlRule(const Tarn_sys_diag_GetMsgRuleInfoInput *request, void *replyCtx) {
    return host::AnswerWithResult<Tarn_sys_diag_GetMsgRuleInfoResult>(__func__, replyCtx, [&](auto &reply) {
        CheckProcess("uiValue3", request->uiValue3);
        Choice choice(request->uiValue2, 0);
        std::vector<Tarn_sys_diag_MsgRuleInfo> rules;
        for (const Tarn_sys_diag_MsgRuleInfo &rule : TheRules().Get(request->uiValue1)) {
            if (choice.Takes()) {
                rules.push_back(rule);
            }
        }
        reply.pstRule = reply.Keep(std::move(rules), reply.uiRuleNum);
    });
}

} // namespace agent

int TarnAgent_MessagePasses(const TarnAgentMessage *message) {
    bool passes = true; // what keeps a rule from being tried must not stop the application's messages
    if (message != nullptr) {
        host::Run(__func__, [&] { passes = agent::TheRules().Passes(*message); });
    }
    return passes ? 1 : 0;
}
