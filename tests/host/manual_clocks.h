// Clocks that stand still until a test moves them.
#pragma once

#include <atomic>

#include "host/clock/clocks.h"

namespace kit {

class ManualClocks final : public host::Clocks {
public:
    host::SteadyTime SteadyNow() const override { return steady_.load(); }
    host::WallTime WallNow() const override { return wall_.load(); }

    void Advance(std::chrono::nanoseconds time) {
        steady_ = steady_.load() + time;
        SetWall(wall_.load() + std::chrono::duration_cast<host::WallTime::duration>(time));
    }
    void SetWall(host::WallTime now) { wall_ = now; }

private:
    std::atomic<host::SteadyTime> steady_{host::SteadyTime(std::chrono::hours(1))};
    std::atomic<host::WallTime> wall_{host::WallTime(std::chrono::seconds(1'700'000'000))}; // 2023-11-14 22:13:20 GMT
};

} // namespace kit
