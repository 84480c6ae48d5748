// Runs an engine's work when a test says so, in the place of tarnd::Driver.
#pragma once

#include <set>

#include "tests/host/manual_clocks.h"

namespace kit {

template <class Engine>
class ManualDriver {
public:
    ManualDriver(Engine &engine, const host::Clocks &clocks) : engine_(engine), clocks_(clocks) {
        engine_.OnDue([this](host::SteadyTime due) { due_.insert(due); });
    }
    ManualDriver(const ManualDriver &) = delete;
    ManualDriver &operator=(const ManualDriver &) = delete;
    ~ManualDriver() { engine_.OnDue({}); }

    // What is due by the clock, as often as the engine asked for it. How often that was.
    size_t RunDue() {
        size_t runs = 0;
        for (; !due_.empty() && *due_.begin() <= clocks_.SteadyNow(); ++runs) {
            due_.erase(due_.begin());
            engine_.RunDue();
        }
        return runs;
    }

    const std::multiset<host::SteadyTime> &Due() const { return due_; }

private:
    Engine &engine_;
    const host::Clocks &clocks_;
    std::multiset<host::SteadyTime> due_;
};

} // namespace kit
