// How far the machine's resources are used, as the daemon tells, and who in the application wants to hear of it.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "host/osal/mutex.h"
#include "tarn_sysdiag/agent.h"
#include "tarn_sysdiag/types/agent.h"

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

    // `wake` is called when there is something to tell.
    explicit Resources(std::function<void()> wake) : wake_(std::move(wake)) {}

    // The application's side; errors are errno values.
    uint32_t Subscribe(const char *name, uint32_t events, TarnAgentResourceFunction function, void *userData);
    uint32_t Unsubscribe(const char *name);
    uint8_t LevelOf(uint8_t resource) const;

    void Update(const State &state);
    std::map<std::string, Subscription> Subscriptions() const;
    uint32_t Events() const; // that any subscription wants

    // Tells the subscribers of the updates that wait.
    void TellAll();

private:
    static constexpr size_t kMaxWaiting = 64;

    std::optional<State> TakeWaiting();
    void Tell(const std::string &name, const Subscription &subscription, const State &state);

    const std::function<void()> wake_;
    mutable host::Mutex mutex_;
    std::map<std::string, Subscription> subscriptions_ TARN_GUARDED_BY(mutex_);
    std::array<State, 4> states_ TARN_GUARDED_BY(mutex_){};
    std::deque<State> waiting_ TARN_GUARDED_BY(mutex_);
};

} // namespace agent
