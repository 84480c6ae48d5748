// Something that is due once a day, by clocks on the wall: they go forward and back for daylight saving, and are set.
#pragma once

#include "host/clock/calendar.h"

namespace host {

class Daily {
public:
    // First due the next time that clocks show the time of day.
    Daily(Millis timeOfDay, LocalMillis now) : timeOfDay_(timeOfDay), due_(NextAfter(now)) {}

    LocalMillis Due() const { return due_; }

    // Whether it is due; that day is done with then. A time that clocks skip when they go forward comes as soon as they
    // have, one that they show twice comes once. Clocks that are further off were set: what was due meanwhile is not.
    bool Take(LocalMillis now);

private:
    LocalMillis NextAfter(LocalMillis time) const;

    Millis timeOfDay_;
    LocalMillis due_;
};

} // namespace host
