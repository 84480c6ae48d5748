// Message-control rules: kept here, in force in the agents.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "host/clock/clocks.h"
#include "host/daemon/agents/agent_line.h"
#include "host/daemon/agents/agent_registry.h"
#include "host/daemon/agents/courier.h"
#include "host/meaning/message_rule.h"
#include "host/osal/mutex.h"
#include "host/procfs/procfs.h"
#include "host/store/store.h"
#include "tarn_sysdiag/types/agent.h"

namespace tarnd {

class MessageRules {
public:
    using Content = host::meaning::MessageRule;

    struct Rule {
        Content content;       // as it was set
        host::WallTime since;  // its age goes on while the daemon does not run
        uint64_t processStart; // of the process that it is for; 0: for all
    };

    // Takes over what an earlier run kept.
    MessageRules(const host::Clocks &clocks, const host::procfs::Procfs &proc, host::Store &store,
                 AgentRegistry &registry, AgentLine &line, Courier &courier);

    // Both keep the change before they return, and have it brought to the agents.
    void Set(const Content &content);
    void Clear();

    // Those that have not ended by now, in the order in which they are tried.
    std::vector<Rule> List(host::WallTime now);

    static uint32_t AgeOf(const Rule &rule, host::WallTime now); // in seconds

    // What the rules did, by number: the sum over the agents that answer in time. All are asked at the same time, and
    // together have a part of what is left then.
    struct Matches {
        uint64_t matched = 0;
        uint64_t dropped = 0;
    };
    static constexpr uint32_t kCountingMs = 500; // at most
    std::map<uint32_t, Matches> CountMatches(uint32_t timeLeftMs);

private:
    using AgentsRules = std::shared_ptr<AgentReply<Tarn_sys_diag_GetMsgRuleInfoResult>>;

    void Save(const std::map<uint32_t, Rule> &rules);
    void DropEnded(host::WallTime now) TARN_REQUIRES(mutex_);
    bool HasEnded(const Rule &rule, host::WallTime now) const;
    void BringTo(uint32_t pid); // makes an agent's rules those that are kept for it
    std::map<uint32_t, Content> For(uint32_t pid);
    AgentsRules AskFor(uint32_t pid, uint32_t timeoutMs);

    const host::Clocks &clocks_;
    const host::procfs::Procfs &proc_;
    host::Store &store_;
    AgentRegistry &registry_;
    AgentLine &line_;
    Courier &courier_;
    const Courier::Errand errand_;
    host::Mutex mutex_;
    std::map<uint32_t, Rule> rules_ TARN_GUARDED_BY(mutex_); // by number
};

} // namespace tarnd
