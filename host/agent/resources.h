// How far the machine's resources are used, as the daemon tells, and who in the application wants to hear of it.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/agent/periodic.h"
#include "host/agent/tarn_agent.h"
#include "types/agent.h"

namespace agent {

class Resources {
public:
    using State = Tarn_sys_diag_UpdateResourceInfoInput;

    struct Subscription {
        uint32_t events;
        TarnAgentResourceFunction function;
        void *userData;
        uint32_t toldNum = 0;
    };

    // The application's side; errors are errno values.
    uint32_t Subscribe(const char *name, uint32_t events, TarnAgentResourceFunction function, void *userData);
    uint32_t Unsubscribe(const char *name);
    uint8_t LevelOf(uint8_t resource) const;

    void Update(const State &state); // throws EINVAL
    std::map<std::string, Subscription> Subscriptions() const;
    uint32_t Events() const; // that any subscription wants

    // Subscribers are told between these two, on a thread of the agent.
    void Run();
    void Halt();

private:
    static constexpr size_t kMaxWaiting = 64;

    void TellAll();

    mutable std::mutex mutex_;
    std::map<std::string, Subscription> subscriptions_;
    std::array<State, 4> states_{};
    std::deque<State> waiting_;
    Periodic work_;
};

Resources &TheResources();

} // namespace agent
