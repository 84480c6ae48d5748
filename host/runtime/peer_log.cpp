#include "host/runtime/peer_log.h"

#include "host/osal/log.h"

namespace host {

void PeerLog::Warn(const std::string &topic, const std::string &record, Clock::time_point now) {
    const MutexLock lock(mutex_);
    const bool isFull = topics_.size() >= kMaxTopics && topics_.count(topic) == 0;
    const auto [at, isFirst] = topics_.try_emplace(isFull ? "more of other kinds" : topic, Topic{now});
    if (isFirst) {
        Log().warn("{}", record);
    } else {
        ++at->second.more;
    }
}

void PeerLog::Summarize(Clock::time_point now) {
    const MutexLock lock(mutex_);
    for (auto at = topics_.begin(); at != topics_.end();) {
        auto &[name, topic] = *at;
        if (now - topic.since < kInterval) {
            ++at;
        } else if (topic.more == 0) {
            at = topics_.erase(at); // the next is a first again
        } else {
            Log().warn("{}, and {} more", name, topic.more);
            topic = {now};
            ++at;
        }
    }
}

} // namespace host
