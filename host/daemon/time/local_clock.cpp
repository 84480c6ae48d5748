#include "host/daemon/time/local_clock.h"

#include <sys/time.h>
#include <unistd.h>

#include <ctime>

#include <fmt/format.h>

#include "host/osal/error.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

using host::Document;
using host::GmtTime;
using host::LocalMillis;
using host::Millis;

constexpr const char *kDocument = "clock";
constexpr uint32_t kVersion = 1;
constexpr const char *kTime = "time (stTime)"; // what requests call it
constexpr const char *kZones = "/usr/share/zoneinfo";

// Replaced in one step, as whoever reads the zone expects.
void LinkZone(const std::filesystem::path &link, const std::string &zone) {
    const std::filesystem::path target = std::filesystem::path(kZones) / zone;
    if (!std::filesystem::is_regular_file(target)) {
        host::Fail(ENOENT, fmt::format("the system has no zone {}", zone));
    }
    const std::string aside = fmt::format("{}.{}.partial", link.string(), getpid());
    if (symlink(target.c_str(), aside.c_str()) != 0 || rename(aside.c_str(), link.c_str()) != 0) {
        const int error = errno;
        unlink(aside.c_str());
        host::Fail(error, link);
    }
}

void SetSystemClock(GmtTime to) {
    const auto sinceEpoch = to.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    timespec time{};
    time.tv_sec = static_cast<time_t>(seconds.count());
    time.tv_nsec = static_cast<long>(std::chrono::nanoseconds(sinceEpoch - seconds).count());
    if (clock_settime(CLOCK_REALTIME, &time) != 0) {
        host::Fail(errno, "the system's clock");
    }
}

host::DateFormat DateFormatOf(const Document &content) {
    const auto format = content.Get<uint32_t>("dateFormat");
    if (format > static_cast<uint32_t>(host::DateFormat::kMonthDayYear)) {
        throw host::BadValue("dateFormat", format, "0 to 2");
    }
    return static_cast<host::DateFormat>(format);
}

Document ToDocument(const ClockSettings &settings) {
    Document::Object content{{"shiftMs", settings.shift.count()},
                             {"dateFormat", static_cast<uint32_t>(settings.dateFormat)}};
    if (settings.zone) {
        content["zone"] =
            Document::Object{{"name", settings.zone->name}, {"offsetMinutes", settings.zone->offsetMinutes}};
    }
    if (settings.dst) {
        content["dst"] = Document::Object{{"name", settings.dst->name},
                                          {"offsetMinutes", settings.dst->offsetMinutes},
                                          {"start", host::TextOf(settings.dst->start)},
                                          {"end", host::TextOf(settings.dst->end)}};
    }
    return content;
}

ClockSettings FromDocument(const Document &content) {
    ClockSettings settings;
    settings.shift = Millis(content.Get<int64_t>("shiftMs"));
    settings.dateFormat = DateFormatOf(content);
    if (const Document *const zone = content.Find("zone")) {
        settings.zone = host::CheckedZone({zone->Get<std::string>("name"), zone->Get<int32_t>("offsetMinutes")});
    }
    if (const Document *const dst = content.Find("dst")) {
        settings.dst = host::CheckedRule({dst->Get<std::string>("name"), dst->Get<uint32_t>("offsetMinutes"),
                                          host::ParseChange(dst->Get<std::string>("start")),
                                          host::ParseChange(dst->Get<std::string>("end"))});
    }
    return settings;
}

} // namespace

LocalClock::LocalClock(const host::Clocks &clocks, host::Store &store, std::optional<std::filesystem::path> zoneLink)
    : clocks_(clocks), store_(store), zoneLink_(std::move(zoneLink)) {
    const host::MutexLock lock(mutex_);
    store_.Load(kDocument, kVersion,
                [this](const Document &content) TARN_REQUIRES(mutex_) { settings_ = FromDocument(content); });
}

void LocalClock::SetZone(const host::Zone &zone, const char *source) {
    const host::MutexLock lock(mutex_);
    ClockSettings changed = settings_;
    changed.zone = host::CheckedZone(zone);
    if (zoneLink_) {
        LinkZone(*zoneLink_, zone.name);
    }
    const std::string before = settings_.zone ? host::TextOf(*settings_.zone) : "the system's";
    Change(std::move(changed), fmt::format("time zone {} from {}, before {}", host::TextOf(zone), source, before));
}

void LocalClock::SetDst(const std::optional<host::DstRule> &rule, const char *source) {
    const host::MutexLock lock(mutex_);
    ClockSettings changed = settings_;
    changed.dst = rule ? std::optional(host::CheckedRule(*rule)) : std::nullopt;
    Change(std::move(changed), fmt::format("daylight saving {} from {}, before {}", host::TextOf(rule), source,
                                           host::TextOf(settings_.dst)));
}

void LocalClock::SetGmt(const Tarn_sys_diag_Systime &time) {
    const host::MutexLock lock(mutex_);
    SetNow(GmtTime(host::FromRecord(time, kTime).time_since_epoch()));
}

void LocalClock::SetLocal(const Tarn_sys_diag_Systime &time) {
    const host::MutexLock lock(mutex_);
    const LocalMillis local = host::FromRecord(time, kTime);
    if (settings_.zone) {
        SetNow(host::WallClock(*settings_.zone, settings_.dst).ToGmt(local));
        return;
    }
    tm fields{};
    fields.tm_year = time.usYear - 1900;
    fields.tm_mon = time.ucMonth - 1;
    fields.tm_mday = time.ucDay;
    fields.tm_hour = time.ucHour;
    fields.tm_min = time.ucMinute;
    fields.tm_sec = time.ucSecond;
    fields.tm_isdst = -1;
    const time_t seconds = mktime(&fields);
    if (fields.tm_hour != time.ucHour || fields.tm_min != time.ucMinute) {
        throw host::BadValue(kTime, host::TextOf(local), "a time that the clock does not skip when it goes forward");
    }
    SetNow(GmtTime(std::chrono::seconds(seconds) + Millis(time.uiMillisecond)));
}

void LocalClock::SetDateFormat(host::DateFormat format) {
    const host::MutexLock lock(mutex_);
    ClockSettings changed = settings_;
    changed.dateFormat = format;
    Change(std::move(changed), fmt::format("date format {}", static_cast<uint32_t>(format)));
    host::Log().info("the date is now {}", host::TextOf(Local(clocks_.WallNow()), settings_.dateFormat));
}

Tarn_sys_diag_Systime LocalClock::LocalTime(host::WallTime when) const {
    return host::ToRecord(Shown(when));
}

LocalMillis LocalClock::Shown(host::WallTime when) const {
    const host::MutexLock lock(mutex_);
    return Local(when).local;
}

std::string LocalClock::Text(host::WallTime when, host::Precision precision) const {
    const host::MutexLock lock(mutex_);
    return host::TextOf(Local(when), settings_.dateFormat, precision);
}

std::string LocalClock::PosixZone() const {
    const host::MutexLock lock(mutex_);
    const GmtTime now = std::chrono::floor<Millis>(clocks_.WallNow()) + settings_.shift;
    return settings_.zone ? host::PosixText(*settings_.zone, settings_.dst, now) : "";
}

std::string LocalClock::TextWithoutZone(host::WallTime when) const {
    const host::MutexLock lock(mutex_);
    return host::TextOf(Local(when).local, settings_.dateFormat);
}

host::ZonedTime LocalClock::Local(host::WallTime when) const {
    if (!settings_.zone) {
        return host::SystemsTime(when + settings_.shift);
    }
    const GmtTime gmt = std::chrono::time_point_cast<Millis>(when) + settings_.shift;
    const LocalMillis local = host::WallClock(*settings_.zone, settings_.dst).ToLocal(gmt);
    return {local, std::chrono::floor<std::chrono::seconds>(local.time_since_epoch() - gmt.time_since_epoch())};
}

void LocalClock::SetNow(GmtTime now) {
    ClockSettings changed = settings_;
    if (zoneLink_) {
        SetSystemClock(now);
        changed.shift = Millis(0);
    } else {
        changed.shift = now - std::chrono::floor<Millis>(clocks_.WallNow());
    }
    const LocalMillis gmt(now.time_since_epoch());
    Change(std::move(changed),
           fmt::format("clock set to {} GMT, {} ms ahead of the system's, before {} ms",
                       host::TextOf(gmt, settings_.dateFormat), changed.shift.count(), settings_.shift.count()));
}

void LocalClock::Change(ClockSettings changed, const std::string &what) {
    if (changed == settings_) {
        return; // the master tells its settings whenever it is there
    }
    store_.Save(kDocument, kVersion, ToDocument(changed));
    settings_ = std::move(changed);
    if (changed_) {
        changed_();
    }
    host::Log().info("{}", what);
}

} // namespace tarnd
