// Message-control rules: the daemon sets them, and the application asks whether a message passes.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "host/agent/tarn_agent.h"
#include "types/agent.h"

namespace agent {

class Rules {
public:
    using Rule = Tarn_sys_diag_UpdateMsgCtrlRuleInput;

    void Update(const Rule &rule); // throws EINVAL, or ENOSPC
    void Clear();
    std::vector<Tarn_sys_diag_MsgRuleInfo> Get(uint32_t id); // 0: all, in the order in which they are tried
    bool Passes(const TarnAgentMessage &message);

private:
    using Clock = std::chrono::steady_clock;

    struct Entry {
        Rule rule;
        std::string sender, receiver, name; // patterns
        Clock::time_point since;
        uint64_t matchNum = 0;
        uint64_t dropNum = 0;
        double tokens = 0; // messages that may pass now
        Clock::time_point refilled;

        bool Matches(const TarnAgentMessage &message) const;
        bool Decide(Clock::time_point now);
    };

    void DropEnded(Clock::time_point now);

    std::mutex mutex_;
    std::vector<Entry> entries_; // by priority
};

Rules &TheRules();

} // namespace agent
