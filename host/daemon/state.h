// All that the daemon remembers between calls, behind one mutex. Nothing else in the daemon is written after start.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace tarnd {

struct Agent {
    std::string name;
    uint32_t version = 0;

    bool operator==(const Agent &) const = default;
};

struct Timezone {
    std::string name = "UTC";
    int32_t offsetMinutes = 0; // east of UTC
};

class State {
public:
    // True when the agent is new or has changed.
    bool AddAgent(uint32_t pid, Agent agent);
    bool RemoveAgent(uint32_t pid);

    // No events: the subscription ends. What was there before is returned.
    uint32_t Subscribe(uint32_t pid, uint32_t events);
    Timezone SetTimezone(Timezone timezone);

private:
    std::mutex mutex_;
    std::map<uint32_t, Agent> agents_;           // by process
    std::map<uint32_t, uint32_t> subscriptions_; // events by process
    Timezone timezone_;
};

State &TheState();

// What the command line says; written before the first request is served.
struct Settings {
    std::string logDirectory;
};

Settings &TheSettings();

} // namespace tarnd
