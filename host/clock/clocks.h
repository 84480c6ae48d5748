// What time it is: by the clock that people set, and by the one that only goes forward. Tests own theirs.
#pragma once

#include <algorithm>
#include <chrono>

namespace host {

using SteadyTime = std::chrono::steady_clock::time_point;
using WallTime = std::chrono::system_clock::time_point;

// Of a number that others wrote: within 200 years of 1970, where zones and shifts can be added to it.
inline WallTime NearestWallTime(std::chrono::seconds since1970, std::chrono::nanoseconds part = {}) {
    constexpr std::chrono::seconds kMost = std::chrono::years(200);
    return WallTime(std::clamp(since1970, -kMost, kMost) + part);
}

class Clocks {
public:
    virtual ~Clocks() = default;
    virtual SteadyTime SteadyNow() const = 0;
    virtual WallTime WallNow() const = 0;
};

class SystemClocks final : public Clocks {
public:
    SteadyTime SteadyNow() const override { return std::chrono::steady_clock::now(); }
    WallTime WallNow() const override { return std::chrono::system_clock::now(); }
};

} // namespace host
