// Agents that do not answer are set aside, so that nobody waits for them again and again: they are asked in the
// background from time to time, and are back with the first answer.
#pragma once

#include <cstdint>
#include <map>

#include "host/clock/clocks.h"
#include "host/osal/mutex.h"

namespace tarnd {

class SilentAgents {
public:
    // So many calls in a row that were not answered; a call counts that had a fair time, since its length is a
    // caller's.
    static constexpr uint32_t kMost = 3;
    static constexpr std::chrono::milliseconds kFairTime{400};

    // How long one is left alone; twice as long each time that it is asked in vain.
    static constexpr std::chrono::seconds kFirstRest{2}, kLongestRest{60};

    explicit SilentAgents(const host::Clocks &clocks) : clocks_(clocks) {}

    bool IsSetAside(uint32_t pid) const;
    bool IsDue(uint32_t pid) const; // of one that is set aside: to be asked again
    void Forget(uint32_t pid);      // it answered, or has ended
    void NoteSilence(uint32_t pid, std::chrono::milliseconds time);

private:
    struct Silence {
        uint32_t calls = 0;
        std::chrono::nanoseconds rest{kFirstRest};
        host::SteadyTime until;
    };

    const host::Clocks &clocks_;
    mutable host::Mutex mutex_;
    std::map<uint32_t, Silence> silent_ TARN_GUARDED_BY(mutex_); // by process
};

} // namespace tarnd
