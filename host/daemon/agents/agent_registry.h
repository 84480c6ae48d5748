// The agents that the daemon knows.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/daemon/time/timers.h"
#include "host/osal/mutex.h"
#include "host/procfs/procfs.h"

namespace tarnd {

struct Agent {
    std::string name;
    uint32_t version = 0;
    uint64_t processStart = 0; // tells apart two processes that had the same id

    bool operator==(const Agent &) const = default;
};

class AgentRegistry {
public:
    // Drops those whose process has gone, from time to time.
    AgentRegistry(const host::procfs::Procfs &proc, Timers &timers);

    // True when the agent is new or has changed. Throws ESRCH without such a process.
    bool Add(uint32_t pid, const std::string &name, uint32_t version);
    bool Remove(uint32_t pid);
    std::map<uint32_t, Agent> Agents() const; // by process

private:
    void DropEnded();

    const host::procfs::Procfs &proc_;
    mutable host::Mutex mutex_;
    std::map<uint32_t, Agent> agents_ TARN_GUARDED_BY(mutex_); // by process
};

} // namespace tarnd
