// The agents that the daemon knows.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "host/daemon/options.h"

namespace tarnd {

struct Agent {
    std::string name;
    uint32_t version = 0;
    uint64_t processStart = 0; // tells apart two processes that had the same id

    bool operator==(const Agent &) const = default;
};

class State {
public:
    // True when the agent is new or has changed.
    bool AddAgent(uint32_t pid, Agent agent);
    bool RemoveAgent(uint32_t pid);
    std::map<uint32_t, Agent> Agents(); // by process

private:
    std::mutex mutex_;
    std::map<uint32_t, Agent> agents_; // by process
};

State &TheState();

const Options &TheSettings();

} // namespace tarnd
