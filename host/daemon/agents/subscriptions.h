// Who wants to be told when a resource of the machine runs short, or is no longer short.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "host/daemon/agents/registrant.h"
#include "host/osal/mutex.h"
#include "host/procfs/procfs.h"

namespace tarnd {

class Subscriptions {
public:
    struct Subscription {
        Registrant process;
        uint32_t events; // a sum of host::meaning::event
    };

    explicit Subscriptions(const host::procfs::Procfs &proc) : proc_(proc) {}

    // No events: the subscription ends. What there was before is returned. Throws EBUSY where there are too many.
    uint32_t Set(const Registrant &process, uint32_t events);

    // By process; without those whose process has gone.
    std::vector<Subscription> List();

private:
    void DropEnded() TARN_REQUIRES(mutex_);

    const host::procfs::Procfs &proc_;
    host::Mutex mutex_;
    std::map<uint32_t, Subscription> subscriptions_ TARN_GUARDED_BY(mutex_);
};

} // namespace tarnd
