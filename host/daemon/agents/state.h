// The agents that the daemon knows, behind a mutex, and what its command line said.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

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

// What the command line says; written before the first request is served.
struct Settings {
    std::filesystem::path runDirectory;
    std::string logDirectory;
    std::string stateDirectory;                     // empty: none
    std::map<std::string, std::string> copyTargets; // directories by name
};

Settings &TheSettings();

} // namespace tarnd
