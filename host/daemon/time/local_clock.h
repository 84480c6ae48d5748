// The daemon's time settings: told by clients and by the master, kept beyond a restart, and what its answers show by
// them. The system's own clock and zone are set only when main has said so.
#pragma once

#include <filesystem>
#include <functional>
#include <mutex>

#include "host/clock/rules.h"
#include "host/store/document.h"

namespace tarnd {

struct ClockSettings {
    std::optional<host::Zone> zone; // none: the system's, with its daylight saving
    std::optional<host::DstRule> dst;
    host::Millis shift{0}; // what the daemon's clock is ahead of the system's
    host::DateFormat dateFormat = host::DateFormat::kYearMonthDay;

    bool operator==(const ClockSettings &) const = default;
};

class Clock {
public:
    // From now on settings go to the system as well: its clock, and the link that names its zone.
    void ApplyToSystem(std::filesystem::path zoneLink);

    void Load();

    // What clocks show depends on the settings: the function is called after each change of them. It must be short and
    // not ask the clock. Before the first request.
    void OnChange(std::function<void()> function) { changed_ = std::move(function); }

    // Each takes a setting over, keeps it, and says so in the log; `source` is who wants it. Throws what is wrong with
    // it, or what keeps it from being applied or kept; the settings are as before then.
    void SetZone(const host::Zone &zone, const char *source);
    void SetDst(const std::optional<host::DstRule> &rule, const char *source);
    void SetGmt(const Tarn_sys_diag_Systime &time);
    void SetLocal(const Tarn_sys_diag_Systime &time);
    void SetDateFormat(uint32_t format);

    // A moment of the system's clock as the daemon's shows it.
    Tarn_sys_diag_Systime LocalTime(std::chrono::system_clock::time_point when) const;
    host::LocalMillis LocalNow() const;
    std::string Text(std::chrono::system_clock::time_point when) const;

private:
    host::LocalMillis Local(std::chrono::system_clock::time_point when) const;
    void SetNow(host::GmtTime now);
    void Change(ClockSettings changed, const std::string &what);
    static host::Document ToDocument(const ClockSettings &settings);
    static ClockSettings FromDocument(const host::Document &content);

    mutable std::mutex mutex_;
    ClockSettings settings_;
    bool applies_ = false;
    std::filesystem::path zoneLink_;
    std::function<void()> changed_;
};

Clock &TheClock();

} // namespace tarnd
