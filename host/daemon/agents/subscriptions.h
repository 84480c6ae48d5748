// Who wants to be told when a resource of the machine runs short, or is no longer short.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

namespace tarnd {

class Subscriptions {
public:
    struct Subscription {
        uint32_t pid;
        uint32_t events; // TARN_AGENT_EVENT_...
        uint64_t processStart;
    };

    // No events: the subscription ends. What there was before is returned. Throws ESRCH without such a process.
    uint32_t Set(uint32_t pid, uint32_t events);

    // By process; without those whose process has gone.
    std::vector<Subscription> List();

private:
    std::mutex mutex_;
    std::map<uint32_t, Subscription> subscriptions_;
};

Subscriptions &TheSubscriptions();

} // namespace tarnd
