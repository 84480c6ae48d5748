#include "host/daemon/memory/memory_use.h"

#include <algorithm>

namespace tarnd {

uint32_t UsedPermille(const MemorySample &memory) {
    if (memory.total == 0) {
        return 0;
    }
    return static_cast<uint32_t>((memory.total - std::min(memory.total, memory.available)) * 1000 / memory.total);
}

const ProcessSample *LargestProcess(const Sample &sample) {
    const auto largest = std::max_element(sample.processes.begin(), sample.processes.end(),
                                          [](const auto &a, const auto &b) { return a.rssKb < b.rssKb; });
    return largest != sample.processes.end() ? &*largest : nullptr;
}

MemoryIndicators IndicatorsOf(const std::vector<SystemSample> &samples) {
    const SystemSample &now = samples.back();
    MemoryIndicators indicators;
    indicators.now = UsedPermille(now.memory);
    indicators.availableKib = now.memory.available;
    uint64_t sum = 0, number = 0;
    for (const SystemSample &sample : samples) {
        const uint32_t used = UsedPermille(sample.memory);
        indicators.highest = std::max(indicators.highest, used);
        if (sample.at > now.at - std::chrono::minutes(1)) {
            sum += used;
            ++number;
        }
    }
    indicators.lastMinute = static_cast<uint32_t>(sum / number);
    return indicators;
}

} // namespace tarnd
