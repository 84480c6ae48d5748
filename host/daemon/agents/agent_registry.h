// The agents that the daemon knows.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/daemon/agents/agent_line.h"
#include "host/daemon/agents/registrant.h"
#include "host/daemon/history/event.h"
#include "host/daemon/time/timers.h"
#include "host/osal/mutex.h"
#include "host/procfs/procfs.h"

namespace tarnd {

struct Agent {
    std::string name;
    uint32_t version = 0;
    Registrant process{};

    bool operator==(const Agent &) const = default;
};

class AgentRegistry {
public:
    // Drops those whose process has gone, from time to time, and removes what such agents left, also before this
    // daemon. The line forgets those that go, or come anew.
    AgentRegistry(const host::procfs::Procfs &proc, Journal &journal, AgentLine &line, Timers &timers);

    // True when the agent is new or has changed. Throws EBUSY where there are too many.
    bool Add(const Registrant &process, const std::string &name, uint32_t version);
    bool Remove(uint32_t pid);
    std::map<uint32_t, Agent> Agents() const; // by process
    std::vector<uint32_t> ThatAnswer() const; // those that are not set aside
    bool Answers(uint32_t pid) const { return !line_.Silent().IsSetAside(pid); }

private:
    void DropEnded();

    const host::procfs::Procfs &proc_;
    Journal &journal_;
    AgentLine &line_;
    mutable host::Mutex mutex_;
    std::map<uint32_t, Agent> agents_ TARN_GUARDED_BY(mutex_); // by process
};

} // namespace tarnd
