// Drives an engine on threads: runs what it has to do when that is due.
#pragma once

#include <string>

#include "host/clock/clocks.h"
#include "host/osal/work_queue.h"

namespace tarnd {

// The engine has `OnDue(tell)`, where it says from when on `RunDue()` has something to do, once for each time that it
// is to be run.
template <class Engine>
class Driver {
public:
    Driver(std::string name, Engine &engine, size_t maxThreads = 1)
        : engine_(engine), queue_(std::move(name), maxThreads) {
        engine_.OnDue([this](host::SteadyTime due) {
            queue_.PostAt(due, [this](const std::stop_token &) { engine_.RunDue(); });
        });
    }
    Driver(const Driver &) = delete;
    Driver &operator=(const Driver &) = delete;

    // Waits for what runs.
    ~Driver() { engine_.OnDue({}); }

private:
    Engine &engine_;
    host::WorkQueue queue_;
};

} // namespace tarnd
