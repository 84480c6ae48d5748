#include "host/daemon/agents/message_rules.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "host/daemon/agents/at_once.h"
#include "host/meaning/methods.h"
#include "host/osal/attempt.h"
#include "host/osal/error.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

using host::Document;

constexpr char kDocument[] = "message-rules";
constexpr uint32_t kVersion = 1;

void CheckPatterns(const MessageRules::Content &rule) {
    const std::pair<const char *, const std::string &> patterns[] = {
        {"sender", rule.sender}, {"receiver", rule.receiver}, {"message", rule.message}};
    for (const auto &[member, text] : patterns) {
        if (!std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; })) {
            throw host::meaning::BadMember(host::methods::UpdateMsgCtrlRuleTarnd, member, text,
                                           "a pattern of printable ASCII characters");
        }
    }
}

Document ToDocument(const MessageRules::Rule &rule) {
    const auto &[number, priority, action, firstType, lastType, rate, burst, lasts, process, sender, receiver,
                 message] = rule.content;
    using Array = Document::Array;
    return Document::Object{{"id", number},
                            {"priority", priority},
                            {"action", action},
                            {"types", Array{firstType, lastType}},
                            {"limit", Array{rate, burst}},
                            {"seconds", lasts},
                            {"process", process},
                            {"process start", rule.processStart},
                            {"patterns", Array{sender, receiver, message}},
                            {"since", host::WallTime::clock::to_time_t(rule.since)}};
}

MessageRules::Rule FromDocument(const Document &content) {
    const MessageRules::Content rule{content.Get<uint32_t>("id"),
                                     content.Get<uint32_t>("priority"),
                                     content.Get<uint32_t>("action"),
                                     content.At("types").Get<uint32_t>(0),
                                     content.At("types").Get<uint32_t>(1),
                                     content.At("limit").Get<uint32_t>(0),
                                     content.At("limit").Get<uint32_t>(1),
                                     content.Get<uint32_t>("seconds"),
                                     content.Get<uint32_t>("process"),
                                     content.At("patterns").Get<std::string>(0),
                                     content.At("patterns").Get<std::string>(1),
                                     content.At("patterns").Get<std::string>(2)};
    host::meaning::Check(host::methods::UpdateMsgCtrlRuleTarnd, ToRecord(rule));
    CheckPatterns(rule);
    return {rule, host::WallTime::clock::from_time_t(content.Get<time_t>("since")),
            content.Get<uint64_t>("process start")};
}

} // namespace

MessageRules::MessageRules(const host::Clocks &clocks, const host::procfs::Procfs &proc, host::Store &store,
                           AgentRegistry &registry, AgentLine &line, Courier &courier)
    : clocks_(clocks), proc_(proc), store_(store), registry_(registry), line_(line), courier_(courier),
      errand_(courier.Add([this](uint32_t pid) { BringTo(pid); })) {
    const host::MutexLock lock(mutex_);
    store_.Load(kDocument, kVersion, [this](const Document &content) TARN_REQUIRES(mutex_) {
        std::map<uint32_t, Rule> rules;
        for (const Document &entry : content.AsArray()) {
            const Rule rule = FromDocument(entry);
            rules[rule.content.number] = rule;
        }
        rules_ = std::move(rules);
    });
}

void MessageRules::Save(const std::map<uint32_t, Rule> &rules) {
    Document::Array content;
    for (const auto &[number, rule] : rules) {
        content.push_back(ToDocument(rule));
    }
    store_.Save(kDocument, kVersion, content);
}

void MessageRules::Set(const Content &content) {
    CheckPatterns(content);
    const uint64_t start = content.process == 0 ? 0 : proc_.ReadProcess(content.process).startTicks;
    {
        const host::MutexLock lock(mutex_);
        const host::WallTime now = clocks_.WallNow();
        DropEnded(now);
        std::map<uint32_t, Rule> rules = rules_;
        rules[content.number] = {content, now, start};
        if (rules.size() > host::meaning::message_rules::kMostInDaemon) {
            host::Fail(ENOSPC, fmt::format("{} rules", rules_.size()));
        }
        Save(rules);
        rules_ = std::move(rules);
    }
    host::Log().info("message rule {} is set", content.number);
    courier_.SendToAll(errand_);
}

void MessageRules::Clear() {
    {
        const host::MutexLock lock(mutex_);
        Save({});
        rules_.clear();
    }
    host::Log().info("the message rules are cleared");
    courier_.SendToAll(errand_);
}

std::vector<MessageRules::Rule> MessageRules::List(host::WallTime now) {
    const host::MutexLock lock(mutex_);
    DropEnded(now);
    std::vector<Rule> list;
    for (const auto &[number, rule] : rules_) {
        list.push_back(rule);
    }
    std::ranges::stable_sort(list, {}, [](const Rule &rule) { return rule.content.priority; });
    return list;
}

// The file may keep them longer: they have ended there too.
void MessageRules::DropEnded(host::WallTime now) {
    std::erase_if(rules_, [this, now](const auto &entry) { return HasEnded(entry.second, now); });
}

bool MessageRules::HasEnded(const Rule &rule, host::WallTime now) const {
    const uint32_t lasts = rule.content.lasts, process = rule.content.process;
    return (lasts != 0 && now >= rule.since + std::chrono::seconds(lasts)) ||
           (process != 0 && !proc_.Runs(process, rule.processStart));
}

// A clock that was set back makes no rule younger than now.
uint32_t MessageRules::AgeOf(const Rule &rule, host::WallTime now) {
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - rule.since);
    return static_cast<uint32_t>(std::clamp<int64_t>(age.count(), 0, UINT32_MAX));
}

// ---- In the agents ----

namespace {

template <class Response>
void RequireResult(const char *method, uint32_t pid, const AgentReply<Response> &reply) {
    reply.RequireResult(fmt::format("{} of the agent of process {}", method, pid));
}

// Alike but for when they end: an agent counts from when it was told.
bool Alike(const MessageRules::Content &a, const MessageRules::Content &b) {
    const auto withoutEnd = [](MessageRules::Content rule) {
        rule.lasts = std::min(rule.lasts, 1U);
        return rule;
    };
    return withoutEnd(a) == withoutEnd(b);
}

std::vector<MessageRules::Content> RulesIn(const Tarn_sys_diag_GetMsgRuleInfoResult &reply) {
    std::vector<MessageRules::Content> rules;
    for (uint32_t i = 0; i < reply.uiRuleNum; ++i) {
        rules.push_back(host::meaning::FromRecord(reply.pstRule[i].stRule));
    }
    return rules;
}

} // namespace

MessageRules::AgentsRules MessageRules::AskFor(uint32_t pid, uint32_t timeoutMs) {
    const Tarn_sys_diag_GetMsgRuleInfoInput all{0, 0, kAgentsOwn};
    AgentsRules reply = line_.Ask(TARND_AGENT_METHOD(GetMsgCtrlRule), pid, all, timeoutMs);
    RequireResult("GetMsgCtrlRule", pid, *reply);
    return reply;
}

// What an agent is to have, by number.
std::map<uint32_t, MessageRules::Content> MessageRules::For(uint32_t pid) {
    const host::WallTime now = clocks_.WallNow();
    std::map<uint32_t, Content> rules;
    for (const Rule &rule : List(now)) {
        if (rule.content.process == 0 || rule.content.process == pid) {
            Content content = rule.content;
            content.process = kAgentsOwn;
            content.lasts -= content.lasts == 0 ? 0 : AgeOf(rule, now); // which is less: it has not ended
            rules[content.number] = content;
        }
    }
    return rules;
}

void MessageRules::BringTo(uint32_t pid) {
    std::map<uint32_t, Content> wanted = For(pid);
    const std::vector<Content> present = RulesIn(AskFor(pid, Courier::kTimeoutMs)->record);
    const bool hasOthers =
        std::ranges::any_of(present, [&](const Content &rule) { return wanted.count(rule.number) == 0; });
    if (hasOthers) { // one can't be removed alone
        const auto cleared =
            line_.Ask(TARND_AGENT_METHOD(ClearMsgCtrlRule), pid, Tarn_sys_diag_None{}, Courier::kTimeoutMs);
        RequireResult("ClearMsgCtrlRule", pid, *cleared);
    } else {
        std::erase_if(wanted, [&](const auto &entry) {
            return std::ranges::any_of(present, [&](const Content &rule) { return Alike(rule, entry.second); });
        });
    }
    for (const auto &[number, content] : wanted) {
        const auto set = line_.Ask(TARND_AGENT_METHOD(UpdateMsgCtrlRule), pid, ToRecord(content), Courier::kTimeoutMs);
        RequireResult("UpdateMsgCtrlRule", pid, *set);
    }
    if (hasOthers || !wanted.empty()) {
        host::Log().info("the agent of process {} has the message rules: {} new", pid, wanted.size());
    }
}

std::map<uint32_t, MessageRules::Matches> MessageRules::CountMatches(uint32_t timeLeftMs) {
    const host::SteadyTime until = clocks_.SteadyNow() + std::chrono::milliseconds(std::min(timeLeftMs, kCountingMs));
    host::Mutex mutex;
    std::map<uint32_t, Matches> sums;
    AskAtOnce("GetMsgCtrlRule", registry_.ThatAnswer(), [&](uint32_t pid) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - clocks_.SteadyNow());
        if (left.count() <= 0) {
            return;
        }
        const AgentsRules reply = AskFor(pid, static_cast<uint32_t>(left.count()));
        const host::MutexLock lock(mutex);
        for (uint32_t i = 0; i < reply->record.uiRuleNum; ++i) {
            const Tarn_sys_diag_MsgRuleInfo &info = reply->record.pstRule[i];
            Matches &sum = sums[host::meaning::FromRecord(info.stRule).number];
            sum.matched += info.ullMatchNum;
            sum.dropped += info.ullDropNum;
        }
    });
    return sums;
}

} // namespace tarnd
