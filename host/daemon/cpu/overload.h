// A CPU overload as it is recorded, and where such records are kept.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/clock/clocks.h"

namespace tarnd {

struct OverloadThread {
    uint32_t pid = 0;
    uint32_t tid = 0;
    std::string name;
    uint64_t runNs = 0; // since the thread started
    uint32_t permille = 0;
    std::optional<std::string> stack; // none when it could not be read
};

struct Overload {
    enum class Of { kSystem, kProcess };

    uint64_t number = 0; // in the history, once it is there
    Of of = Of::kSystem; // what was overloaded: the system, or a process that is watched
    host::WallTime begin;
    std::optional<host::WallTime> end; // none while it lasts
    uint32_t pid = 0;                  // the process that used most, or that is watched
    std::string name;
    uint32_t systemPermille = 0;
    uint32_t processPermille = 0;
    std::vector<OverloadThread> threads; // the busiest first: of a watched process, or of the system
    bool recorded = false;               // with their stacks
};

// Where overloads are kept, beyond a restart.
class OverloadHistory {
public:
    virtual ~OverloadHistory() = default;

    // One that is recorded, which gets its number; or has ended since.
    virtual void Keep(Overload &overload) = 0;

    // The newest; none where there was none.
    virtual std::optional<Overload> Last(Overload::Of of) const = 0;
};

} // namespace tarnd
