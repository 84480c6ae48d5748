#include "host/agent/message_rules.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "host/meaning/choices.h"
#include "host/osal/error.h"

namespace agent {

namespace {

namespace rule_action = host::meaning::rule_action;

constexpr size_t kMaxRules = 256;

uint32_t BurstOf(const MessageRules::Rule &rule) {
    return rule.burst != 0 ? rule.burst : rule.rate;
}

bool Fits(const std::string &pattern, const char *name) {
    return pattern.empty() || fnmatch(pattern.c_str(), name == nullptr ? "" : name, 0) == 0;
}

} // namespace

bool MessageRules::Entry::Matches(const TarnAgentMessage &message) const {
    const bool allTypes = rule.firstType == 0 && rule.lastType == 0;
    return (allTypes || (message.uiType >= rule.firstType && message.uiType <= rule.lastType)) &&
           Fits(rule.sender, message.pcSender) && Fits(rule.receiver, message.pcReceiver) &&
           Fits(rule.message, message.pcName);
}

// Whether a message that matches passes.
bool MessageRules::Entry::Decide(host::SteadyTime now) {
    ++matchNum;
    bool passes = rule.action == rule_action::kPass;
    if (rule.action == rule_action::kLimit) {
        const double seconds = std::chrono::duration<double>(now - refilled).count();
        tokens = std::min<double>(BurstOf(rule), tokens + seconds * rule.rate);
        refilled = now;
        passes = tokens >= 1;
        tokens -= passes ? 1 : 0;
    }
    dropNum += passes ? 0 : 1;
    return passes;
}

void MessageRules::Update(const Rule &rule) {
    const host::SteadyTime now = clocks_.SteadyNow();
    Entry entry{rule, now, 0, 0, static_cast<double>(BurstOf(rule)), now};
    const host::MutexLock lock(mutex_);
    DropEnded(now);
    std::erase_if(entries_, [&](const Entry &one) { return one.rule.number == rule.number; });
    if (entries_.size() == kMaxRules) {
        host::Fail(ENOSPC, fmt::format("there are {} rules", kMaxRules));
    }
    const auto place =
        std::upper_bound(entries_.begin(), entries_.end(), rule.priority,
                         [](uint32_t priority, const Entry &one) { return priority < one.rule.priority; });
    entries_.insert(place, std::move(entry));
}

void MessageRules::Clear() {
    const host::MutexLock lock(mutex_);
    entries_.clear();
}

void MessageRules::DropEnded(host::SteadyTime now) {
    std::erase_if(entries_, [&](const Entry &one) {
        return one.rule.lasts != 0 && now - one.since >= std::chrono::seconds(one.rule.lasts);
    });
}

std::vector<Tarn_sys_diag_MsgRuleInfo> MessageRules::Get(uint32_t number) {
    const host::SteadyTime now = clocks_.SteadyNow();
    const host::MutexLock lock(mutex_);
    DropEnded(now);
    std::vector<Tarn_sys_diag_MsgRuleInfo> infos;
    for (const Entry &entry : entries_) {
        if (number == 0 || entry.rule.number == number) {
            const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - entry.since);
            infos.push_back({ToRecord(entry.rule), entry.matchNum, entry.dropNum, static_cast<uint32_t>(age.count())});
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
