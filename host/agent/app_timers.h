// Timers of the application, which expire while the agent runs.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/clock/clocks.h"
#include "host/meaning/choices.h"
#include "host/osal/mutex.h"
#include "tarn_sysdiag/agent.h"
#include "tarn_sysdiag/types/agent.h"

namespace agent {

class AppTimers {
public:
    // `wake` is called when a timer may be due earlier than ExpireNext said.
    AppTimers(const host::Clocks &clocks, std::function<void()> wake) : clocks_(clocks), wake_(std::move(wake)) {}

    // Errors are errno values.
    uint32_t Create(const char *name, uint32_t periodMs, bool periodic, TarnAgentTimerFunction function, void *userData,
                    uint32_t &id);
    uint32_t Start(uint32_t id);
    uint32_t Stop(uint32_t id);
    uint32_t Delete(uint32_t id); // waits for its function, unless that asks for it

    // Calls the function of the timer that has been due for longest. How long until the next one is due; 0 or less when
    // it is.
    std::chrono::milliseconds ExpireNext();

    // Whether each expiry is logged.
    void SetDebug(bool on);

    std::vector<Tarn_sys_diag_TimerInfo> Get(uint32_t id) const; // 0: all

private:
    enum class State : uint8_t {
        kStopped = host::meaning::timer_state::kStopped,
        kRunning = host::meaning::timer_state::kRunning,
        kExpired = host::meaning::timer_state::kExpired,
    };

    struct Timer {
        std::string name;
        uint32_t tid = 0; // of the thread that created it
        bool periodic = false;
        std::chrono::milliseconds period{};
        TarnAgentTimerFunction function = nullptr;
        void *userData = nullptr;
        State state = State::kStopped;
        host::SteadyTime due{};
        std::chrono::microseconds maxRun{}, maxDelay{};
        uint64_t expireNum = 0;
    };
    struct Expiry {
        uint32_t id;
        std::string name;
        TarnAgentTimerFunction function;
        void *userData;
        host::SteadyTime due, began;
    };

    uint32_t Set(uint32_t id, State state);
    std::map<uint32_t, Timer>::iterator Next() TARN_REQUIRES(mutex_);
    std::optional<Expiry> TakeDue();
    void Call(const Expiry &expiry);
    void Finish(const Expiry &expiry, std::chrono::microseconds run);
    std::chrono::milliseconds UntilNext();
    Tarn_sys_diag_TimerInfo InfoOf(uint32_t id, const Timer &timer) const;

    const host::Clocks &clocks_;
    const std::function<void()> wake_;
    mutable host::Mutex mutex_;
    host::Condition expired_; // the function of a timer has returned
    std::map<uint32_t, Timer> timers_ TARN_GUARDED_BY(mutex_);
    uint32_t lastId_ TARN_GUARDED_BY(mutex_) = 0;
    bool debug_ TARN_GUARDED_BY(mutex_) = false;
    uint32_t expiring_ TARN_GUARDED_BY(mutex_) = 0;  // whose function runs
    std::thread::id thread_ TARN_GUARDED_BY(mutex_); // that calls the functions
};

} // namespace agent
