#include "host/runtime/peer_log.h"

#include <fmt/format.h>

#include "host/osal/log.h"

namespace host {
namespace {

constexpr std::pair<uid_t, std::string_view> kOthers{static_cast<uid_t>(-1), "more of other users"};

} // namespace

// Whether another record is to be written.
bool PeerLog::Counts(uid_t user, std::string_view topic, uint64_t most, Clock::time_point now) {
    std::pair key(user, topic);
    if (topics_.size() >= kMaxTopics && topics_.count(key) == 0) {
        key = kOthers;
    }
    Topic &entry = topics_.try_emplace(key, Topic{now}).first->second;
    if (entry.written < most) {
        ++entry.written;
        return true;
    }
    ++entry.more;
    return false;
}

void PeerLog::Warn(uid_t user, std::string_view topic, const std::string &record, Clock::time_point now) {
    const MutexLock lock(mutex_);
    if (Counts(user, topic, 1, now)) {
        Log().warn("{}", record);
    }
}

bool PeerLog::MayWrite(uid_t user, Clock::time_point now) {
    const MutexLock lock(mutex_);
    return Counts(user, "records of calls", kCallRecords, now);
}

void PeerLog::Summarize(Clock::time_point now) {
    const MutexLock lock(mutex_);
    for (auto at = topics_.begin(); at != topics_.end();) {
        const auto &[user, name] = at->first;
        Topic &topic = at->second;
        if (now - topic.since < kInterval) {
            ++at;
        } else if (topic.more == 0) {
            at = topics_.erase(at); // the next is a first again
        } else {
            Log().warn("{}: {}, and {} more", at->first == kOthers ? "users" : fmt::format("user {}", user), name,
                       topic.more);
            topic = {.since = now, .written = topic.written};
            ++at;
        }
    }
}

} // namespace host
