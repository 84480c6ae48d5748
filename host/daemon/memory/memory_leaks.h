// Which processes grow and grow.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

namespace tarnd {

// From when on growth counts, where somebody said that what was before is known.
class LeakMarks {
public:
    static constexpr size_t kPatterns = 64;

    // Now, for the processes whose names match a pattern; empty: for all. Throws ENOSPC beyond kPatterns.
    void Set(const std::string &pattern);

    // The start of time for a process without a mark.
    std::chrono::steady_clock::time_point Of(const std::string &processName) const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::chrono::steady_clock::time_point> marks_;
};

LeakMarks &TheLeakMarks();

} // namespace tarnd
