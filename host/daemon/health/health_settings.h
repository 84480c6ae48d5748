// What the health function (PADS) looks at, and from which limit on it complains.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "types/agent.h"

namespace tarnd {

class HealthSettings {
public:
    // Takes over what an earlier run kept.
    void Load();

    // All of it. Both are kept beyond a restart, and brought to the agents.
    void SwitchAll(uint8_t on);
    // One function of the daemon or of the agents, or 0: all functions of both.
    void SwitchFunction(const Tarn_sys_diag_PadsAppFunSwitch &request);

    bool AllOn() const;
    bool IsOn(uint8_t function) const; // and all
    uint32_t LimitOf(uint8_t function) const;

    // What was set of the agents' functions, in the order in which it is to be told.
    std::vector<Tarn_sys_diag_PadsAppFunSwitch> OfAgents() const;

private:
    struct Function {
        bool on = true;
        uint32_t limit = 0; // 0: as it is without a setting
    };
    using Functions = std::map<uint8_t, Function>;

    void Keep(bool allOn, Functions functions);

    mutable std::mutex mutex_;
    bool allOn_ = true;
    Functions functions_; // those that were set
};

HealthSettings &TheHealthSettings();

// An errand of the courier: tells an agent how the health function is set.
void BringHealthSwitches(uint32_t pid);

} // namespace tarnd
