// What an engine puts into the journal and into the history of overloads.
#pragma once

#include <map>
#include <vector>

#include "host/daemon/cpu/overload.h"
#include "host/daemon/history/event.h"

namespace kit {

struct KeptEvents final : tarnd::Journal {
    void Add(tarnd::Event event) override { events.push_back(std::move(event)); }
    std::vector<tarnd::Event> events;
};

struct KeptOverloads final : tarnd::OverloadHistory {
    void Keep(tarnd::Overload &overload) override {
        overload.number = overload.number == 0 ? overloads.size() + 1 : overload.number;
        overloads[overload.number] = overload;
    }
    std::optional<tarnd::Overload> Last(tarnd::Overload::Of of) const override {
        std::optional<tarnd::Overload> last;
        for (const auto &[number, overload] : overloads) {
            last = overload.of == of ? std::optional(overload) : last;
        }
        return last;
    }
    std::map<uint64_t, tarnd::Overload> overloads;
};

} // namespace kit
