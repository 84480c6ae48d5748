#include "host/daemon/files/comparison.h"

#include "host/osal/log.h"

namespace tarnd {

bool Comparison::Add(const SurveyedFile &file) {
    if (baseline_.empty()) {
        return false;
    }
    const auto known = baseline_.find(file.name);
    if (known == baseline_.end()) {
        const bool isFirst = file.digest && added_.insert(file.name).second;
        if (isFirst) {
            host::Log().info("measurement: new: {}", file.name);
        }
        return isFirst;
    }
    // One that grew too large to be read was not recorded so.
    const bool differs = file.digest ? !known->second.contains(*file.digest) : file.tooLarge;
    const bool isFirst = differs && changed_.insert(file.name).second;
    if (isFirst) {
        host::Log().warn("measurement: changed: {}", file.name);
    }
    return isFirst;
}

} // namespace tarnd
