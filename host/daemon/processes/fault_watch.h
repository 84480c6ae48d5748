// Follows the black boxes: what agents record there comes into the journal once, also what they recorded while no
// daemon ran.
#pragma once

#include <filesystem>

#include "host/clock/clocks.h"
#include "host/daemon/history/history.h"
#include "host/daemon/processes/erased_faults.h"
#include "host/daemon/time/timers.h"

namespace tarnd {

class FaultWatch {
public:
    static constexpr std::chrono::seconds kPeriod{1};

    FaultWatch(std::filesystem::path directory, const ErasedFaults &erased, History &history, Timers &timers);
    FaultWatch(const FaultWatch &) = delete;
    FaultWatch &operator=(const FaultWatch &) = delete;

private:
    void Look();
    void ReadNew();

    const std::filesystem::path directory_;
    const ErasedFaults &erased_;
    History &history_;
    FaultMarks marks_;
    uint64_t stamp_ = 0;
    bool again_ = false; // a file may have changed since within the same tick of its clock
};

} // namespace tarnd
