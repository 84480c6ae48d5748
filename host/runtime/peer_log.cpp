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
    bool written = false;
    {
        const MutexLock lock(mutex_);
        written = Counts(user, topic, 1, now);
    }
    if (written) {
        Log().warn("{}", record); // without the lock: the log asks here whether a call's thread may write
    }
}

bool PeerLog::MayWrite(uid_t user, Clock::time_point now) {
    const MutexLock lock(mutex_);
    return Counts(user, "records of calls", kCallRecords, now);
}

void PeerLog::Summarize(Clock::time_point now) {
    std::vector<std::string> records;
    {
        const MutexLock lock(mutex_);
        records = SummariesAt(now);
    }
    for (const std::string &record : records) {
        Log().warn("{}", record);
    }
}

std::vector<std::string> PeerLog::SummariesAt(Clock::time_point now) {
    std::vector<std::string> records;
    for (auto at = topics_.begin(); at != topics_.end();) {
        const auto &[user, name] = at->first;
        Topic &topic = at->second;
        if (now - topic.since < kInterval) {
            ++at;
        } else if (topic.more == 0) {
            at = topics_.erase(at); // the next is a first again
        } else {
            records.push_back(fmt::format("{}: {}, and {} more",
                                          at->first == kOthers ? "users" : fmt::format("user {}", user), name,
                                          topic.more));
            topic = {.since = now, .written = topic.written};
            ++at;
        }
    }
    return records;
}

} // namespace host
