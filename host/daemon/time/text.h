// Values as lines of text for people.
#pragma once

#include <chrono>
#include <ctime>
#include <string>
#include <string_view>

#include "host/daemon/time/local_clock.h"

namespace tarnd {

// "2024-02-29 23:59:58", local time, by the daemon's settings
inline std::string TimeText(std::chrono::system_clock::time_point when) {
    return TheClock().Text(when);
}

inline std::string TimeText(time_t time) {
    return TimeText(std::chrono::system_clock::from_time_t(time));
}

// A process or thread may call itself anything, a line feed included.
inline std::string Printable(std::string_view name) {
    std::string text(name);
    for (char &c : text) {
        c = c >= ' ' && c != 0x7F ? c : '?';
    }
    return text;
}

} // namespace tarnd
