// How far something is that takes long: a bar on a terminal, a line now and then otherwise, nothing with --quiet. All
// to standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "host/ctl/commands.h"

namespace ctl {

class Progress {
public:
    // Of so many; 0 where nobody knows how many, and the time tells that it goes on.
    Progress(const Globals &globals, std::string what, uint64_t all = 0);
    ~Progress(); // clears the bar
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void Set(uint64_t done, const std::string &note = {});
    // Makes room for other lines on the terminal, until it is shown again.
    void Hide() const;
    // What was set last, when it is time for that. To be called while something is waited for.
    void Show();

private:
    using Clock = std::chrono::steady_clock;
    std::string Text() const;

    const std::string what_;
    const uint64_t all_;
    const bool quiet_, terminal_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point next_; // when it is shown again
    uint64_t done_ = 0;
    std::string note_;
    bool shown_ = false;
};

} // namespace ctl
