#include "host/clock/daily.h"

#include "host/clock/rules.h"

namespace host {

using namespace std::chrono;

bool Daily::Take(LocalMillis now) {
    constexpr Millis kMost = minutes(kMaxDstOffset) + minutes(1); // that daylight saving and a late look make of it
    const Millis late = now - due_;
    const bool wereSet = late > kMost || -late > days(1) + kMost;
    const bool isDue = late >= Millis(0) && !wereSet;
    if (isDue || wereSet) {
        due_ = NextAfter(now);
    }
    return isDue;
}

LocalMillis Daily::NextAfter(LocalMillis time) const {
    const LocalMillis thatDay = floor<days>(time) + timeOfDay_;
    return thatDay > time ? thatDay : thatDay + days(1);
}

} // namespace host
