// Moments as the records carry them.
#pragma once

#include <ctime>

#include <chrono>

#include "types/time.h"

namespace host {

// Local time; ucWeek counts from Sunday, 0.
inline Tarn_sys_diag_Systime LocalTime(std::chrono::system_clock::time_point when) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
    const time_t seconds = std::chrono::system_clock::to_time_t(when);
    tm fields{};
    localtime_r(&seconds, &fields);
    Tarn_sys_diag_Systime time{};
    time.usYear = static_cast<uint16_t>(fields.tm_year + 1900);
    time.ucMonth = static_cast<uint8_t>(fields.tm_mon + 1);
    time.ucDay = static_cast<uint8_t>(fields.tm_mday);
    time.ucHour = static_cast<uint8_t>(fields.tm_hour);
    time.ucMinute = static_cast<uint8_t>(fields.tm_min);
    time.ucSecond = static_cast<uint8_t>(fields.tm_sec);
    time.ucWeek = static_cast<uint8_t>(fields.tm_wday);
    time.uiMillisecond = static_cast<uint32_t>(ms % 1000);
    return time;
}

} // namespace host
