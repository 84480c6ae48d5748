// The agent of a process, and its parts. What the application registers stays as long as the process; what serves it
// runs from Start to Stop.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "host/agent/app_timers.h"
#include "host/agent/commands.h"
#include "host/agent/dead_loops.h"
#include "host/agent/health.h"
#include "host/agent/memory.h"
#include "host/agent/message_rules.h"
#include "host/agent/periodic.h"
#include "host/agent/resources.h"
#include "host/clock/clocks.h"
#include "host/osal/mutex.h"
#include "host/procfs/procfs.h"

namespace agent {

class Agent {
public:
    // The one of this process, which the C functions get here: the application's and those that the runtime calls for
    // its peers.
    static Agent &OfProcess();

    Agent(const host::Clocks &clocks, host::procfs::Procfs procfs);
    ~Agent();
    Agent(const Agent &) = delete;
    Agent &operator=(const Agent &) = delete;

    // An empty directory: the system's. 0, EINVAL, EALREADY, or what starting failed with.
    uint32_t Start(const char *name, const std::filesystem::path &runDir);
    uint32_t Stop(); // EINVAL when it does not run

    std::string Name() const; // which it was started under last

    const host::Clocks &clocks;
    const host::procfs::Procfs procfs;
    CommandTable commandTable;
    CommandQueue commands;
    MessageRules messageRules;
    AppTimers timers;
    DeadLoops deadLoops;
    Resources resources;
    Memory memory;
    Health health;
    Periodic memoryScan;

private:
    class Running;

    void SetName(const char *name);

    // Threads of the parts.
    Periodic commandWork_, timerWork_, watchdog_, resourceWork_;

    host::Mutex startMutex_; // taken first
    std::unique_ptr<Running> running_ TARN_GUARDED_BY(startMutex_);
    mutable host::Mutex nameMutex_;
    std::string name_ TARN_GUARDED_BY(nameMutex_);
};

} // namespace agent
