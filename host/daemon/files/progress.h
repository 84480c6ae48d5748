// How far work is that may take long.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "host/clock/clocks.h"
#include "host/osal/check.h"

namespace tarnd {

// Tells the log, and ends the work when its result is no longer wanted.
class Progress {
public:
    Progress(std::string what, const host::Clocks &clocks, const host::Check &check);

    void Add(uint64_t bytes); // throws what the check throws
    void AddFile() { ++files_; }
    void Done() const;

private:
    static constexpr std::chrono::seconds kPeriod{2};

    const std::string what_;
    const host::Clocks &clocks_;
    const host::Check &check_;
    const host::SteadyTime start_;
    host::SteadyTime told_;
    uint64_t bytes_ = 0;
    uint64_t files_ = 0;
};

} // namespace tarnd
