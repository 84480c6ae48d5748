// Message-control rules: kept here, in force in the agents.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "types/agent.h"

namespace tarnd {

class Rules {
public:
    using Clock = std::chrono::system_clock; // a rule's age goes on while the daemon does not run
    using Content = Tarn_sys_diag_UpdateMsgCtrlRuleInput;

    struct Rule {
        Content content; // as it was set
        Clock::time_point since;
        uint64_t processStart; // of the process that it is for; 0: for all
    };

    // Takes over what an earlier run kept.
    void Load();

    // Both keep the change before they return, and have it brought to the agents.
    void Set(const Content &content);
    void Clear();

    // Those that have not ended, in the order in which they are tried.
    std::vector<Rule> List();

private:
    void DropEnded();
    void Save(const std::map<uint32_t, Rule> &rules);

    std::mutex mutex_;
    std::map<uint32_t, Rule> rules_; // by id
};

Rules &TheRules();

// An errand of the courier: makes an agent's rules those that are kept for it.
void BringRules(uint32_t pid);

} // namespace tarnd
