#include "host/runtime/pool.h"

namespace host {
namespace {

constexpr size_t kMostIdle = 16; // of a target
constexpr std::chrono::seconds kIdleFor(30);

} // namespace

std::unique_ptr<Channel> Pool::Take(const Target &target, Clock::time_point now) {
    const MutexLock lock(mutex_);
    const auto found = idle_.find(target);
    if (found == idle_.end() || found->second.empty()) {
        return nullptr;
    }
    if (now - found->second.back().since >= kIdleFor) { // the server may be about to close it
        found->second.clear();
        return nullptr;
    }
    auto channel = std::move(found->second.back().channel);
    found->second.pop_back();
    return channel;
}

// Sweeps now and then: processes come and go, and their connections must not stay.
void Pool::Give(const Target &target, std::unique_ptr<Channel> channel, Clock::time_point used) {
    const MutexLock lock(mutex_);
    auto found = idle_.find(target);
    if (found == idle_.end()) {
        found = idle_.emplace(target, std::vector<Idle>()).first;
    }
    std::vector<Idle> &idle = found->second;
    if (idle.size() < kMostIdle) {
        idle.push_back({std::move(channel), used});
    }
    if (used - lastSweep_ < kIdleFor) {
        return;
    }
    lastSweep_ = used;
    for (auto entry = idle_.begin(); entry != idle_.end();) {
        std::erase_if(entry->second, [used](const Idle &one) { return used - one.since >= kIdleFor; });
        entry = entry->second.empty() ? idle_.erase(entry) : std::next(entry);
    }
}

void Pool::Forget(const Target &target) {
    const MutexLock lock(mutex_);
    const auto found = idle_.find(target);
    if (found != idle_.end()) {
        idle_.erase(found);
    }
}

void Pool::Clear() {
    const MutexLock lock(mutex_);
    idle_.clear();
}

} // namespace host
