#include "host/agent/message_rules.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "host/agent/process.h"
#include "host/osal/error.h"
#include "host/osal/text.h"
#include "host/values/agent.h"

namespace agent {

namespace {

constexpr size_t kMaxRules = 256;

uint32_t Burst(const MessageRules::Rule &rule) {
    return rule.uiValue7 != 0 ? rule.uiValue7 : rule.uiValue6;
}

void Check(const MessageRules::Rule &rule) {
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

bool MessageRules::Entry::Matches(const TarnAgentMessage &message) const {
    const bool allTypes = rule.uiValue4 == 0 && rule.uiValue5 == 0;
    return (allTypes || (message.uiType >= rule.uiValue4 && message.uiType <= rule.uiValue5)) &&
           Fits(sender, message.pcSender) && Fits(receiver, message.pcReceiver) && Fits(name, message.pcName);
}

// Whether a message that matches passes.
bool MessageRules::Entry::Decide(host::SteadyTime now) {
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

void MessageRules::Update(const Rule &rule) {
    Check(rule);
    const host::SteadyTime now = clocks_.SteadyNow();
    Entry entry{rule,
                std::string(host::TextOf(rule.acRule1)),
                std::string(host::TextOf(rule.acRule2)),
                std::string(host::TextOf(rule.acRule3)),
                now,
                0,
                0,
                static_cast<double>(Burst(rule)),
                now};
    const host::MutexLock lock(mutex_);
    DropEnded(now);
    std::erase_if(entries_, [&](const Entry &one) { return one.rule.uiValue1 == rule.uiValue1; });
    if (entries_.size() == kMaxRules) {
        host::Fail(ENOSPC, fmt::format("there are {} rules", kMaxRules));
    }
    const auto place =
        std::upper_bound(entries_.begin(), entries_.end(), rule.uiValue2,
                         [](uint32_t priority, const Entry &one) { return priority < one.rule.uiValue2; });
    entries_.insert(place, std::move(entry));
}

void MessageRules::Clear() {
    const host::MutexLock lock(mutex_);
    entries_.clear();
}

void MessageRules::DropEnded(host::SteadyTime now) {
    std::erase_if(entries_, [&](const Entry &one) {
        return one.rule.uiValue8 != 0 && now - one.since >= std::chrono::seconds(one.rule.uiValue8);
    });
}

std::vector<Tarn_sys_diag_MsgRuleInfo> MessageRules::Get(uint32_t id) {
    const host::SteadyTime now = clocks_.SteadyNow();
    const host::MutexLock lock(mutex_);
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

bool MessageRules::Passes(const TarnAgentMessage &message) {
    const host::MutexLock lock(mutex_);
    if (entries_.empty()) {
        return true;
    }
    const host::SteadyTime now = clocks_.SteadyNow();
    DropEnded(now);
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry &one) { return one.Matches(message); });
    return found == entries_.end() || found->Decide(now);
}

} // namespace agent
