// Who wants to be told when a resource of the machine runs short, or is no longer short.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "host/osal/mutex.h"
#include "host/procfs/procfs.h"

namespace tarnd {

class Subscriptions {
public:
    struct Subscription {
        uint32_t pid;
        uint32_t events; // a sum of host::meaning::event
        uint64_t processStart;
    };

    explicit Subscriptions(const host::procfs::Procfs &proc) : proc_(proc) {}

    // No events: the subscription ends. What there was before is returned. Throws ESRCH without such a process.
    uint32_t Set(uint32_t pid, uint32_t events);

    // By process; without those whose process has gone.
    std::vector<Subscription> List();

private:
    const host::procfs::Procfs &proc_;
    host::Mutex mutex_;
    std::map<uint32_t, Subscription> subscriptions_ TARN_GUARDED_BY(mutex_);
};

} // namespace tarnd
