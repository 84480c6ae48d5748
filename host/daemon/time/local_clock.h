// The daemon's time settings: told by clients and by the master, kept beyond a restart, and what its answers show by
// them. The system's own clock and zone are set only when main has said so.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "host/clock/clocks.h"
#include "host/clock/rules.h"
#include "host/daemon/history/event.h"
#include "host/daemon/setting.h"
#include "host/osal/mutex.h"
#include "host/store/store.h"

namespace tarnd {

struct ClockSettings {
    Setting<std::optional<host::Zone>> zone{std::nullopt}; // none: the system's, with its daylight saving
    Setting<std::optional<host::DstRule>> dst{std::nullopt};
    Setting<host::Millis> shift{host::Millis(0)}; // what the daemon's clock is ahead of the system's
    host::DateFormat dateFormat = host::DateFormat::kYearMonthDay;

    const std::optional<host::Zone> &Zone() const { return zone.Value(); }
    // The master's belongs to its zone.
    std::optional<host::DstRule> Dst() const { return dst.From() < zone.From() ? std::nullopt : dst.Value(); }

    bool operator==(const ClockSettings &) const = default;
};

class LocalClock {
public:
    // Takes over what an earlier run kept. With the link that names the system's zone, settings go to the system as
    // well: to its clock, and to the link. What comes to hold from the master is told to the journal.
    LocalClock(const host::Clocks &clocks, host::Store &store, Journal &journal,
               std::optional<std::filesystem::path> zoneLink, std::filesystem::path zones = "/usr/share/zoneinfo");

    // What clocks show depends on the settings: the function is called after each change of them. It must be short and
    // not ask the clock. Before the first request.
    void OnChange(std::function<void()> function) { changed_ = std::move(function); }

    // Each takes a setting over, keeps it, and says so in the log. Throws what is wrong with it, or what keeps it from
    // being applied or kept; the settings are as before then. A zone that the system has a file of has an offset that
    // it has there; the name of another is a label.
    void SetZone(const host::Zone &zone, Source source);
    void SetDst(const std::optional<host::DstRule> &rule, Source source);
    void ForgetClients(); // their clock, zone and rule
    void SetGmt(const Tarn_sys_diag_Systime &time);
    void SetLocal(const Tarn_sys_diag_Systime &time);
    void TakeMastersGmt(const Tarn_sys_diag_Systime &time); // where no client has set the clock
    void SetDateFormat(host::DateFormat format);
    host::DateFormat TheDateFormat() const;

    // A moment of the system's clock as the daemon's shows it.
    Tarn_sys_diag_Systime LocalTime(host::WallTime when) const;
    host::LocalMillis Shown(host::WallTime when) const;
    host::LocalMillis LocalNow() const { return Shown(clocks_.WallNow()); }

    // "2024-02-29 23:59:58 +0100"
    std::string Text(host::WallTime when, host::Precision precision = host::Precision::kSeconds) const;
    std::string TextWithoutZone(host::WallTime when) const;

    // The zone and rule of these texts, as POSIX has them for TZ; empty: the system's.
    std::string PosixZone() const;

private:
    void CheckAgainstSystem(const host::Zone &zone) const;
    host::ZonedTime Local(host::WallTime when) const TARN_REQUIRES(mutex_);
    void SetNow(host::GmtTime now, Source source) TARN_REQUIRES(mutex_);
    void Change(ClockSettings changed, const std::string &what) TARN_REQUIRES(mutex_);

    const host::Clocks &clocks_;
    host::Store &store_;
    Journal &journal_;
    const std::optional<std::filesystem::path> zoneLink_;
    const std::filesystem::path zones_;
    mutable host::Mutex mutex_;
    ClockSettings settings_ TARN_GUARDED_BY(mutex_);
    std::function<void()> changed_;
};

} // namespace tarnd
