#include "host/daemon/agents/message_rules.h"

#include <algorithm>
#include <tuple>

#include <fmt/format.h>

#include "host/osal/attempt.h"
#include "host/osal/error.h"
#include "host/osal/log.h"
#include "host/osal/text.h"
#include "host/values/agent.h"
#include "host/values/daemon.h"

namespace tarnd {

namespace {

using host::Document;

constexpr char kDocument[] = "message-rules";
constexpr uint32_t kVersion = 1;

template <size_t kSize>
void CheckPattern(const char *member, const char (&pattern)[kSize]) {
    const std::string_view text = host::TextOf(pattern);
    if (!std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; })) {
        throw host::BadValue(member, "not text", "a pattern of printable ASCII characters");
    }
}

void Check(const MessageRules::Content &rule) {
    if (rule.uiValue1 == 0) {
        throw host::BadValue("uiValue1", 0, "the rule's id");
    }
    if (rule.uiValue3 < TARN_AGENT_RULE_PASS || rule.uiValue3 > TARN_AGENT_RULE_LIMIT) {
        throw host::BadValue("uiValue3", rule.uiValue3, "1, 2 or 3");
    }
    if (rule.uiValue4 > rule.uiValue5) {
        throw host::BadValue("uiValue5", rule.uiValue5, fmt::format("a type of at least {}", rule.uiValue4));
    }
    if (rule.uiValue3 == TARN_AGENT_RULE_LIMIT && rule.uiValue6 == 0) {
        throw host::BadValue("uiValue6", 0, "the messages that may pass in a second");
    }
    CheckPattern("acRule1", rule.acRule1);
    CheckPattern("acRule2", rule.acRule2);
    CheckPattern("acRule3", rule.acRule3);
}

Document ToDocument(const MessageRules::Rule &rule) {
    const MessageRules::Content &c = rule.content;
    using Array = Document::Array;
    return Document::Object{
        {"id", c.uiValue1},
        {"priority", c.uiValue2},
        {"action", c.uiValue3},
        {"types", Array{c.uiValue4, c.uiValue5}},
        {"limit", Array{c.uiValue6, c.uiValue7}},
        {"seconds", c.uiValue8},
        {"process", c.uiValue9},
        {"process start", rule.processStart},
        {"patterns", Array{host::TextOf(c.acRule1), host::TextOf(c.acRule2), host::TextOf(c.acRule3)}},
        {"since", host::WallTime::clock::to_time_t(rule.since)}};
}

MessageRules::Rule FromDocument(const Document &content) {
    MessageRules::Rule rule{};
    MessageRules::Content &c = rule.content;
    c.uiValue1 = content.Get<uint32_t>("id");
    c.uiValue2 = content.Get<uint32_t>("priority");
    c.uiValue3 = content.Get<uint32_t>("action");
    c.uiValue4 = content.At("types").Get<uint32_t>(0);
    c.uiValue5 = content.At("types").Get<uint32_t>(1);
    c.uiValue6 = content.At("limit").Get<uint32_t>(0);
    c.uiValue7 = content.At("limit").Get<uint32_t>(1);
    c.uiValue8 = content.Get<uint32_t>("seconds");
    c.uiValue9 = content.Get<uint32_t>("process");
    rule.processStart = content.Get<uint64_t>("process start");
    const auto pattern = [&](size_t index) { return content.At("patterns").Get<std::string>(index); };
    pattern(0).copy(c.acRule1, sizeof c.acRule1);
    pattern(1).copy(c.acRule2, sizeof c.acRule2);
    pattern(2).copy(c.acRule3, sizeof c.acRule3);
    rule.since = host::WallTime::clock::from_time_t(content.Get<time_t>("since"));
    Check(c);
    return rule;
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
            rules[rule.content.uiValue1] = rule;
        }
        rules_ = std::move(rules);
    });
}

void MessageRules::Save(const std::map<uint32_t, Rule> &rules) {
    Document::Array content;
    for (const auto &[id, rule] : rules) {
        content.push_back(ToDocument(rule));
    }
    store_.Save(kDocument, kVersion, content);
}

void MessageRules::Set(const Content &content) {
    Check(content);
    const uint64_t start = content.uiValue9 == 0 ? 0 : proc_.ReadProcess(content.uiValue9).startTicks;
    {
        const host::MutexLock lock(mutex_);
        const host::WallTime now = clocks_.WallNow();
        DropEnded(now);
        std::map<uint32_t, Rule> rules = rules_;
        rules[content.uiValue1] = {content, now, start};
        if (rules.size() > TARND_RULES_MAX) {
            host::Fail(ENOSPC, fmt::format("{} rules", rules_.size()));
        }
        Save(rules);
        rules_ = std::move(rules);
    }
    host::Log().info("message rule {} is set", content.uiValue1);
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
    for (const auto &[id, rule] : rules_) {
        list.push_back(rule);
    }
    std::stable_sort(list.begin(), list.end(),
                     [](const Rule &a, const Rule &b) { return a.content.uiValue2 < b.content.uiValue2; });
    return list;
}

// The file may keep them longer: they have ended there too.
void MessageRules::DropEnded(host::WallTime now) {
    std::erase_if(rules_, [this, now](const auto &entry) { return HasEnded(entry.second, now); });
}

bool MessageRules::HasEnded(const Rule &rule, host::WallTime now) const {
    return (rule.content.uiValue8 != 0 && now >= rule.since + std::chrono::seconds(rule.content.uiValue8)) ||
           (rule.content.uiValue9 != 0 && !proc_.Runs(rule.content.uiValue9, rule.processStart));
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
    const auto key = [](const MessageRules::Content &c) {
        return std::tuple(c.uiValue1, c.uiValue2, c.uiValue3, c.uiValue4, c.uiValue5, c.uiValue6, c.uiValue7,
                          c.uiValue8 == 0, c.uiValue9, host::TextOf(c.acRule1), host::TextOf(c.acRule2),
                          host::TextOf(c.acRule3));
    };
    return key(a) == key(b);
}

} // namespace

MessageRules::AgentsRules MessageRules::AskFor(uint32_t pid, uint32_t timeoutMs) {
    const Tarn_sys_diag_GetMsgRuleInfoInput request{0, 0, pid};
    AgentsRules reply = line_.Ask(TARND_AGENT_METHOD(GetMsgCtrlRule), pid, request, timeoutMs);
    RequireResult("GetMsgCtrlRule", pid, *reply);
    return reply;
}

// What an agent is to have, by id.
std::map<uint32_t, MessageRules::Content> MessageRules::For(uint32_t pid) {
    const host::WallTime now = clocks_.WallNow();
    std::map<uint32_t, Content> rules;
    for (const Rule &rule : List(now)) {
        if (rule.content.uiValue9 == 0 || rule.content.uiValue9 == pid) {
            Content content = rule.content;
            content.uiValue8 -= content.uiValue8 == 0 ? 0 : AgeOf(rule, now); // which is less: it has not ended
            rules[content.uiValue1] = content;
        }
    }
    return rules;
}

void MessageRules::BringTo(uint32_t pid) {
    std::map<uint32_t, Content> wanted = For(pid);
    const AgentsRules present = AskFor(pid, Courier::kTimeoutMs);
    const Tarn_sys_diag_MsgRuleInfo *const first = present->record.pstRule;
    const auto *const end = first + present->record.uiRuleNum;
    const bool hasOthers =
        std::any_of(first, end, [&](const auto &info) { return wanted.count(info.stRule.uiValue1) == 0; });
    if (hasOthers) { // one can't be removed alone
        const auto cleared =
            line_.Ask(TARND_AGENT_METHOD(ClearMsgCtrlRule), pid, Tarn_sys_diag_None{}, Courier::kTimeoutMs);
        RequireResult("ClearMsgCtrlRule", pid, *cleared);
    } else {
        std::for_each(first, end, [&](const auto &info) {
            if (Alike(info.stRule, wanted.at(info.stRule.uiValue1))) {
                wanted.erase(info.stRule.uiValue1);
            }
        });
    }
    for (const auto &[id, content] : wanted) {
        const auto set = line_.Ask(TARND_AGENT_METHOD(UpdateMsgCtrlRule), pid, content, Courier::kTimeoutMs);
        RequireResult("UpdateMsgCtrlRule", pid, *set);
    }
    if (hasOthers || !wanted.empty()) {
        host::Log().info("the agent of process {} has the message rules: {} new", pid, wanted.size());
    }
}

std::map<uint32_t, MessageRules::Matches> MessageRules::CountMatches(const std::function<uint32_t()> &timeLeftMs) {
    std::map<uint32_t, Matches> sums;
    for (const auto &[pid, agent] : registry_.Agents()) {
        host::Attempt("GetMsgCtrlRule", [&, pid = pid] {
            const AgentsRules reply = AskFor(pid, std::min(timeLeftMs(), Courier::kTimeoutMs / 2));
            for (uint32_t i = 0; i < reply->record.uiRuleNum; ++i) {
                const Tarn_sys_diag_MsgRuleInfo &info = reply->record.pstRule[i];
                Matches &sum = sums[info.stRule.uiValue1];
                sum.matched += info.ullMatchNum;
                sum.dropped += info.ullDropNum;
            }
        });
    }
    return sums;
}

} // namespace tarnd
