#include "host/daemon/memory/leak_watch.h"

#include <fmt/format.h>

namespace tarnd {

LeakWatch::LeakWatch(const MemoryLeaks &leaks, Journal &journal, Timers &timers) : leaks_(leaks), journal_(journal) {
    const auto look = [](void *self) { static_cast<LeakWatch *>(self)->Look(); };
    timers.Every(timers.Add("leak suspects", look, this), kPeriod);
}

// One that is no suspect any more may become one again.
void LeakWatch::Look() {
    std::set<std::pair<uint32_t, std::string>> suspects;
    for (const LeakSuspect &suspect : leaks_.Suspects({}, kLeastKb, [] {})) {
        suspects.emplace(suspect.pid, suspect.name);
        if (known_.count({suspect.pid, suspect.name}) == 0) {
            journal_.Add({{},
                          EventKind::kLeakSuspect,
                          suspect.pid,
                          suspect.name,
                          fmt::format("has {} KiB, {} KiB more than {:.0f} s before", suspect.rssKb, suspect.grownKb,
                                      suspect.over.count())});
        }
    }
    known_ = std::move(suspects);
}

} // namespace tarnd
