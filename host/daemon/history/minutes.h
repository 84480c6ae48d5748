// The system's figures by the minute, from its samples.
#pragma once

#include <functional>

#include "host/daemon/history/history_tables.h"
#include "host/daemon/sampling/sampler.h"

namespace tarnd {

// Takes what passed between the first sample and the first that is a minute later, and so on.
class Minutes {
public:
    static constexpr std::chrono::minutes kLength{1};

    // Follows the samples. Is called by the sampler's thread.
    Minutes(Sampler &sampler, std::function<void(const MinuteFigures &)> take);

private:
    const std::function<void(const MinuteFigures &)> take_;
    SystemSample since_;
};

} // namespace tarnd
