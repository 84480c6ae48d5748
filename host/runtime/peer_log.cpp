#include "host/runtime/peer_log.h"

#include "host/osal/log.h"

namespace host {

void PeerLog::Warn(const std::string &kind, const std::string &record) {
    const std::lock_guard lock(mutex_);
    const bool isFull = kinds_.size() >= kMaxKinds && kinds_.count(kind) == 0;
    const auto [at, isFirst] = kinds_.try_emplace(isFull ? "more of other kinds" : kind, Kind{Clock::now()});
    if (isFirst) {
        Log().warn("{}", record);
    } else {
        ++at->second.more;
    }
}

void PeerLog::Summarize(Clock::time_point now) {
    const std::lock_guard lock(mutex_);
    for (auto at = kinds_.begin(); at != kinds_.end();) {
        auto &[name, kind] = *at;
        if (now - kind.since < kInterval) {
            ++at;
        } else if (kind.more == 0) {
            at = kinds_.erase(at); // the next is a first again
        } else {
            Log().warn("{}, and {} more", name, kind.more);
            kind = {now};
            ++at;
        }
    }
}

} // namespace host
