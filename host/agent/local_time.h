// Moments as people on the machine read them.
#pragma once

#include <ctime>
#include <string>

#include "host/clock/clocks.h"

namespace agent {

// Local time, in a format of strftime.
inline std::string LocalTimeText(host::WallTime when, const char *format) {
    const time_t seconds = std::chrono::system_clock::to_time_t(when);
    tm local{};
    char text[64];
    localtime_r(&seconds, &local);
    return {text, strftime(text, sizeof text, format, &local)};
}

} // namespace agent
