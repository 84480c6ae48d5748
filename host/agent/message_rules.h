// Message-control rules: the daemon sets them, and the application asks whether a message passes.
#pragma once

#include <cstdint>
#include <vector>

#include "host/clock/clocks.h"
#include "host/meaning/message_rule.h"
#include "host/osal/mutex.h"
#include "tarn_sysdiag/agent.h"

namespace agent {

class MessageRules {
public:
    using Rule = host::meaning::MessageRule;

    explicit MessageRules(const host::Clocks &clocks) : clocks_(clocks) {}

    void Update(const Rule &rule); // throws ENOSPC
    void Clear();
    std::vector<Tarn_sys_diag_MsgRuleInfo> Get(uint32_t number); // 0: all, in the order in which they are tried
    bool Passes(const TarnAgentMessage &message);

private:
    // A rule in force. One that limits a rate is a bucket of tokens, each good for one message.
    struct Entry {
        Rule rule;
        host::SteadyTime since;
        uint64_t matchNum = 0;
        uint64_t dropNum = 0;
        double tokens = 0;
        host::SteadyTime refilled;

        bool Matches(const TarnAgentMessage &message) const;
        bool Decide(host::SteadyTime now);
    };

    void DropEnded(host::SteadyTime now) TARN_REQUIRES(mutex_);

    const host::Clocks &clocks_;
    host::Mutex mutex_;
    std::vector<Entry> entries_ TARN_GUARDED_BY(mutex_); // by priority
};

} // namespace agent
