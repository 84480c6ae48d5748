// Log archives and their copies.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tarnd {

// Work that may take long: tells the log how far it is, and ends when its result is no longer wanted.
class Progress {
public:
    Progress(std::string what, void *replyCtx);

    void Add(uint64_t bytes); // throws when the call was cancelled or its deadline has passed
    void AddFile();
    void Done() const;

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kPeriod{2};

    const std::string what_;
    void *const replyCtx_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point told_ = start_;
    uint64_t bytes_ = 0;
    uint64_t files_ = 0;
};

// Removes what archives and copies left unfinished when the daemon was killed. At start, with the settings in place.
void RemoveUnfinishedArchives();

} // namespace tarnd
