#include "host/daemon/sampling/sample.h"

#include <algorithm>

namespace tarnd {

const ProcessSample *Sample::Find(uint32_t pid) const {
    const auto at = std::lower_bound(processes.begin(), processes.end(), pid,
                                     [](const ProcessSample &process, uint32_t id) { return process.pid < id; });
    return at != processes.end() && at->pid == pid ? &*at : nullptr;
}

const ProcessSample *Sample::Find(const ProcessSample &process) const {
    const ProcessSample *const found = Find(process.pid);
    return found != nullptr && found->startTicks == process.startTicks ? found : nullptr;
}

} // namespace tarnd
