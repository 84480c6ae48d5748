#include "host/daemon/cpu/crossing.h"

#include <chrono>

namespace tarnd {

Crossing::Event Crossing::Follow(uint32_t permille, const Thresholds &thresholds, const SamplePtr &previous,
                                 const SamplePtr &latest) {
    if (over_) {
        if (thresholds.over != 0 && permille >= thresholds.recover) {
            return Event::kNone;
        }
        over_ = false;
        since_.reset();
        return Event::kEnds;
    }
    if (thresholds.over == 0 || permille < thresholds.over) {
        since_.reset();
        return Event::kNone;
    }
    if (since_ == nullptr) {
        since_ = previous;
    }
    over_ = latest->system.at - since_->system.at >= std::chrono::seconds(thresholds.seconds);
    return over_ ? Event::kBegins : Event::kNone;
}

} // namespace tarnd
