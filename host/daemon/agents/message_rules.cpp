#include "host/daemon/agents/message_rules.h"

#include <algorithm>
#include <tuple>

#include "host/answer/answer.h"
#include "host/daemon/agents/courier.h"
#include "host/daemon/agents/relay.h"
#include "host/daemon/agents/state.h"
#include "host/daemon/store.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"
#include "host/values/agent.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

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

void Check(const Rules::Content &rule) {
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

bool HasEnded(const Rules::Rule &rule, Rules::Clock::time_point now) {
    return (rule.content.uiValue8 != 0 && now >= rule.since + std::chrono::seconds(rule.content.uiValue8)) ||
           (rule.content.uiValue9 != 0 && !host::procfs::Procfs().Runs(rule.content.uiValue9, rule.processStart));
}

// A clock that was set back makes no rule younger than now.
uint32_t AgeOf(const Rules::Rule &rule) {
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(Rules::Clock::now() - rule.since);
    return static_cast<uint32_t>(std::clamp<int64_t>(age.count(), 0, UINT32_MAX));
}

Document ToDocument(const Rules::Rule &rule) {
    const Rules::Content &c = rule.content;
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
        {"since", Rules::Clock::to_time_t(rule.since)}};
}

Rules::Rule FromDocument(const Document &content) {
    Rules::Rule rule{};
    Rules::Content &c = rule.content;
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
    rule.since = Rules::Clock::from_time_t(content.Get<time_t>("since"));
    Check(c);
    return rule;
}

} // namespace

void Rules::Load() {
    TheStore().Load(kDocument, kVersion, [this](const Document &content) {
        std::map<uint32_t, Rule> rules;
        for (const Document &entry : content.AsArray()) {
            const Rule rule = FromDocument(entry);
            rules[rule.content.uiValue1] = rule;
        }
        rules_ = std::move(rules);
    });
}

void Rules::Save(const std::map<uint32_t, Rule> &rules) {
    Document::Array content;
    for (const auto &[id, rule] : rules) {
        content.push_back(ToDocument(rule));
    }
    TheStore().Save(kDocument, kVersion, content);
}

void Rules::Set(const Content &content) {
    Check(content);
    const uint64_t start = content.uiValue9 == 0 ? 0 : host::procfs::Procfs().ReadProcess(content.uiValue9).startTicks;
    {
        const std::lock_guard lock(mutex_);
        DropEnded();
        std::map<uint32_t, Rule> rules = rules_;
        rules[content.uiValue1] = {content, Clock::now(), start};
        if (rules.size() > TARND_RULES_MAX) {
            throw std::system_error(ENOSPC, std::generic_category(), fmt::format("{} rules", rules_.size()));
        }
        Save(rules);
        rules_ = std::move(rules);
    }
    host::Log().info("message rule {} is set", content.uiValue1);
    TheCourier().SendToAll(BringRules);
}

void Rules::Clear() {
    {
        const std::lock_guard lock(mutex_);
        Save({});
        rules_.clear();
    }
    host::Log().info("the message rules are cleared");
    TheCourier().SendToAll(BringRules);
}

std::vector<Rules::Rule> Rules::List() {
    const std::lock_guard lock(mutex_);
    DropEnded();
    std::vector<Rule> list;
    for (const auto &[id, rule] : rules_) {
        list.push_back(rule);
    }
    std::stable_sort(list.begin(), list.end(),
                     [](const Rule &a, const Rule &b) { return a.content.uiValue2 < b.content.uiValue2; });
    return list;
}

// The file may keep them longer: they have ended there too.
void Rules::DropEnded() {
    std::erase_if(rules_, [now = Clock::now()](const auto &entry) { return HasEnded(entry.second, now); });
}

// ---- In the agents ----

namespace {

using Content = Rules::Content;
using RuleReply = std::shared_ptr<AgentReply<Tarn_sys_diag_GetMsgRuleInfoResult>>;

void CheckResult(const char *method, uint32_t pid, uint32_t result) {
    if (result != 0) {
        throw std::system_error(static_cast<int>(result), std::generic_category(),
                                fmt::format("{} of the agent of process {}", method, pid));
    }
}

RuleReply AskForRules(uint32_t pid, uint32_t timeoutMs) {
    RuleReply reply =
        AskAgent(TARND_AGENT_METHOD(GetMsgCtrlRule), pid, Tarn_sys_diag_GetMsgRuleInfoInput{0, 0, pid}, timeoutMs);
    CheckResult("GetMsgCtrlRule", pid, reply->record.uiResult);
    return reply;
}

// Alike but for when they end: an agent counts from when it was told.
bool Alike(const Content &a, const Content &b) {
    const auto key = [](const Content &c) {
        return std::tuple(c.uiValue1, c.uiValue2, c.uiValue3, c.uiValue4, c.uiValue5, c.uiValue6, c.uiValue7,
                          c.uiValue8 == 0, c.uiValue9, host::TextOf(c.acRule1), host::TextOf(c.acRule2),
                          host::TextOf(c.acRule3));
    };
    return key(a) == key(b);
}

// What an agent is to have.
std::map<uint32_t, Content> RulesFor(uint32_t pid) {
    std::map<uint32_t, Content> rules;
    for (const Rules::Rule &rule : TheRules().List()) {
        if (rule.content.uiValue9 == 0 || rule.content.uiValue9 == pid) {
            Content content = rule.content;
            content.uiValue8 -= content.uiValue8 == 0 ? 0 : std::min(AgeOf(rule), content.uiValue8 - 1);
            rules[content.uiValue1] = content;
        }
    }
    return rules;
}

} // namespace

void BringRules(uint32_t pid) {
    std::map<uint32_t, Content> wanted = RulesFor(pid);
    const RuleReply present = AskForRules(pid, Courier::kTimeoutMs);
    const Tarn_sys_diag_MsgRuleInfo *const first = present->record.pstRule;
    const auto *const end = first + present->record.uiRuleNum;
    const bool hasOthers =
        std::any_of(first, end, [&](const auto &info) { return wanted.count(info.stRule.uiValue1) == 0; });
    if (hasOthers) { // one can't be removed alone
        const auto cleared =
            AskAgent(TARND_AGENT_METHOD(ClearMsgCtrlRule), pid, Tarn_sys_diag_None{}, Courier::kTimeoutMs);
        CheckResult("ClearMsgCtrlRule", pid, cleared->record.uiResult);
    } else {
        std::for_each(first, end, [&](const auto &info) {
            if (Alike(info.stRule, wanted.at(info.stRule.uiValue1))) {
                wanted.erase(info.stRule.uiValue1);
            }
        });
    }
    for (const auto &[id, content] : wanted) {
        const auto set = AskAgent(TARND_AGENT_METHOD(UpdateMsgCtrlRule), pid, content, Courier::kTimeoutMs);
        CheckResult("UpdateMsgCtrlRule", pid, set->record.uiResult);
    }
    if (hasOthers || !wanted.empty()) {
        host::Log().info("the agent of process {} has the message rules: {} new", pid, wanted.size());
    }
}

namespace {

// What the rules did, by id: the sum over the agents that answer in time.
std::map<uint32_t, Tarn_sys_diag_MsgRuleInfo> CountMatches(void *replyCtx) {
    std::map<uint32_t, Tarn_sys_diag_MsgRuleInfo> sums;
    ForAllAgents("GetMsgCtrlRule", [&](uint32_t pid) {
        const RuleReply reply = AskForRules(pid, std::min(RelayTimeout(replyCtx), Courier::kTimeoutMs / 2));
        for (uint32_t i = 0; i < reply->record.uiRuleNum; ++i) {
            const Tarn_sys_diag_MsgRuleInfo &info = reply->record.pstRule[i];
            sums[info.stRule.uiValue1].ullMatchNum += info.ullMatchNum;
            sums[info.stRule.uiValue1].ullDropNum += info.ullDropNum;
        }
    });
    return sums;
}

void ListRules(const Tarn_sys_diag_GetMsgRuleInfoInput &request, void *replyCtx,
               host::Reply<Tarn_sys_diag_GetMsgRuleInfoResult> &reply) {
    std::vector<Rules::Rule> rules = TheRules().List();
    std::erase_if(rules, [&](const Rules::Rule &rule) {
        return request.uiValue1 != 0 && rule.content.uiValue1 != request.uiValue1;
    });
    rules.erase(rules.begin(), rules.begin() + std::min<ptrdiff_t>(std::ssize(rules), request.uiValue2));
    const auto sums = rules.empty() ? std::map<uint32_t, Tarn_sys_diag_MsgRuleInfo>() : CountMatches(replyCtx);
    std::vector<Tarn_sys_diag_MsgRuleInfo> infos;
    for (const Rules::Rule &rule : rules) {
        const auto sum = sums.find(rule.content.uiValue1);
        Tarn_sys_diag_MsgRuleInfo info = sum == sums.end() ? Tarn_sys_diag_MsgRuleInfo{} : sum->second;
        info.stRule = rule.content;
        info.uiAgeSec = AgeOf(rule);
        infos.push_back(info);
    }
    reply.pstRule = reply.Keep(std::move(infos), reply.uiRuleNum);
}

} // namespace

} // namespace tarnd

uint32_t UpdateMsgCtrlRuleTarnd(const Tarn_sys_diag_UpdateMsgCtrlRuleInput *request, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [&] { tarnd::TheRules().Set(*request); });
}

uint32_t ClearMsgCtrlRuleTarnd(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::AnswerResult(__func__, replyCtx, [] { tarnd::TheRules().Clear(); });
}

uint32_t TarnGetMsgRuleInfoTarnd(const Tarn_sys_diag_GetMsgRuleInfoInput *request, void *replyCtx) {
    if (request->uiValue3 != 0) {
        return tarnd::Relay(__func__, replyCtx, TARND_AGENT_METHOD(GetMsgCtrlRule), request->uiValue3, *request);
    }
    return host::Answer<Tarn_sys_diag_GetMsgRuleInfoResult>(__func__, replyCtx, [&](auto &reply) {
        reply.uiResult = host::Run("TarnGetMsgRuleInfoTarnd", [&] { tarnd::ListRules(*request, replyCtx, reply); });
    });
}
