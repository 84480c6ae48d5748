// The idle connections of a client, by target.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/runtime/channel.h"

namespace host {

class Pool {
public:
    // The connection that was given back last, so that a thread's calls go out in order; or null.
    std::unique_ptr<Channel> Take(const std::string &target);
    void Give(const std::string &target, std::unique_ptr<Channel> channel);
    void Clear();

private:
    using Clock = std::chrono::steady_clock;
    struct Idle {
        std::unique_ptr<Channel> channel;
        Clock::time_point since;
    };

    std::mutex mutex_;
    std::unordered_map<std::string, std::vector<Idle>> idle_;
    Clock::time_point lastSweep_ = Clock::now();
};

} // namespace host
