// What the health function (PADS) looks at, and from which limit on it complains.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "host/daemon/agents/agent_line.h"
#include "host/daemon/agents/courier.h"
#include "host/osal/mutex.h"
#include "host/store/store.h"
#include "tarn_sysdiag/types/agent.h"

namespace tarnd {

class HealthSettings {
public:
    // Takes over what an earlier run kept.
    HealthSettings(host::Store &store, AgentLine &line, Courier &courier);

    // All of it. Both are kept beyond a restart, and brought to the agents.
    void SwitchAll(bool on);
    // One function of the daemon or of the agents, or 0: all functions of both.
    void SwitchFunction(const Tarn_sys_diag_PadsAppFunSwitch &request);

    bool AllOn() const;
    bool IsOn(uint32_t item) const; // and all
    uint32_t LimitOf(uint32_t item) const;

    // An item as it is set, whatever all are, and whether somebody has set it.
    struct Item {
        bool on = true;
        uint32_t limit = 0;
        bool isSet = false;
    };
    Item Of(uint32_t item) const;

    // What was set of the agents' functions, in the order in which it is to be told.
    std::vector<Tarn_sys_diag_PadsAppFunSwitch> OfAgents() const;

private:
    struct Function {
        bool on = true;
        uint32_t limit = 0; // 0: as it is without a setting
    };
    using Functions = std::map<uint32_t, Function>;

    void Keep(bool allOn, Functions functions) TARN_REQUIRES(mutex_);
    void BringTo(uint32_t pid); // tells an agent how the health function is set

    host::Store &store_;
    AgentLine &line_;
    Courier &courier_;
    const Courier::Errand errand_;
    mutable host::Mutex mutex_;
    bool allOn_ TARN_GUARDED_BY(mutex_) = true;
    Functions functions_ TARN_GUARDED_BY(mutex_); // those that were set
};

} // namespace tarnd
