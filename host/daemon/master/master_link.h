// The daemon and the master: they tell each other that they are there, the daemon takes over what the master has
// configured, and the master is told what clients change.
#pragma once

#include <functional>

#include "host/clock/clocks.h"
#include "host/daemon/cpu/cpu_overload.h"
#include "host/daemon/files/measurement.h"
#include "host/daemon/master/master_line.h"
#include "host/daemon/memory/memory_overload.h"
#include "host/daemon/time/local_clock.h"
#include "host/osal/mutex.h"

namespace tarnd {

// Without a master the daemon runs all the same, and says so in the log.
class MasterLink {
public:
    MasterLink(const host::Clocks &clocks, MasterLine &line, LocalClock &localClock, CpuOverload &cpuOverload,
               MemoryOverload &memoryOverload, Measurement &measurement)
        : clocks_(clocks), line_(line), localClock_(localClock), cpuOverload_(cpuOverload),
          memoryOverload_(memoryOverload), measurement_(measurement) {}

    // Has the daemon announced, and the master's configuration fetched.
    void Greet();

    // The same, once the master has read its configuration file again.
    void Refresh();

    // What clients have set of what the master sets as well is given up for what the master has.
    void ForgetClients();

    // Has the master told the memory thresholds that hold now; as soon as it is there, if it is not.
    void TellMemoryThresholds();

    // Who drives the link is told when there is something to do. A master that hangs delays nobody but it.
    void OnDue(std::function<void(host::SteadyTime due)> tell);
    void RunDue();

private:
    void TellDue() TARN_REQUIRES(mutex_);
    void SendMemoryThresholds();
    void FetchClock();
    void FetchOverload();
    void FetchMeasurement();
    void FetchTime();

    const host::Clocks &clocks_;
    MasterLine &line_;
    LocalClock &localClock_;
    CpuOverload &cpuOverload_;
    MemoryOverload &memoryOverload_;
    Measurement &measurement_;
    host::Mutex mutex_;
    bool greets_ TARN_GUARDED_BY(mutex_) = false;
    bool refreshes_ TARN_GUARDED_BY(mutex_) = false;
    bool tells_ TARN_GUARDED_BY(mutex_) = false;
    std::function<void(host::SteadyTime)> tell_ TARN_GUARDED_BY(mutex_);
};

} // namespace tarnd
