#include "host/daemon/time/local_clock.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <fstream>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "host/osal/error.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

using host::Document;
using host::GmtTime;
using host::LocalMillis;
using host::Millis;

constexpr const char *kDocument = "clock";
constexpr uint32_t kVersion = 3;               // 2: only clients set the clock; 1: who set zone and rule was not told
constexpr const char *kTime = "time (stTime)"; // what requests call it

// Replaced in one step, as whoever reads the zone expects.
void LinkZone(const std::filesystem::path &link, const std::filesystem::path &zones, const std::string &zone) {
    const std::filesystem::path target = zones / zone;
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

Millis ShiftOf(const Document &shift) {
    return Millis(shift.As<int64_t>());
}

std::optional<host::Zone> ZoneOf(const Document &content) {
    return host::CheckedZone({content.Get<std::string>("name"), content.Get<int32_t>("offsetMinutes")});
}

Document ZoneDocument(const std::optional<host::Zone> &zone) {
    return Document::Object{{"name", zone->name}, {"offsetMinutes", zone->offsetMinutes}}; // only a zone is set
}

std::optional<host::DstRule> RuleOf(const Document &content) {
    if (content.IsNull()) {
        return std::nullopt; // daylight saving was switched off
    }
    return host::CheckedRule({content.Get<std::string>("name"), content.Get<uint32_t>("offsetMinutes"),
                              host::ParseChange(content.Get<std::string>("start")),
                              host::ParseChange(content.Get<std::string>("end"))});
}

Document RuleDocument(const std::optional<host::DstRule> &rule) {
    if (!rule) {
        return nullptr;
    }
    return Document::Object{{"name", rule->name},
                            {"offsetMinutes", rule->offsetMinutes},
                            {"start", host::TextOf(rule->start)},
                            {"end", host::TextOf(rule->end)}};
}

Document ToDocument(const ClockSettings &settings) {
    return Document::Object{{"shift", settings.shift.ToDocument([](Millis shift) { return shift.count(); })},
                            {"dateFormat", static_cast<uint32_t>(settings.dateFormat)},
                            {"zone", settings.zone.ToDocument(ZoneDocument)},
                            {"dst", settings.dst.ToDocument(RuleDocument)}};
}

ClockSettings FromDocument(const Document &content, uint32_t version) {
    ClockSettings settings;
    if (version < 3 && content.Get<int64_t>("shiftMs") != 0) {
        settings.shift.Set(Source::kClient, Millis(content.Get<int64_t>("shiftMs")));
    }
    settings.dateFormat = DateFormatOf(content);
    const auto take = [&](const char *key, auto &setting, auto parse) {
        if (const Document *const found = content.Find(key)) {
            version == 1 ? setting.Set(Source::kMaster, parse(*found)) : setting.Take(*found, parse);
        }
    };
    take("shift", settings.shift, ShiftOf);
    take("zone", settings.zone, ZoneOf);
    take("dst", settings.dst, RuleOf);
    return settings;
}

template <class T>
bool IsNewOfMaster(const Setting<T> &now, const Setting<T> &before) {
    return now.From() == Source::kMaster && (before.From() != Source::kMaster || now.Value() != before.Value());
}

// Whether something of the master's begins to hold.
bool IsNewOfMaster(const ClockSettings &now, const ClockSettings &before) {
    return IsNewOfMaster(now.shift, before.shift) || IsNewOfMaster(now.zone, before.zone) ||
           (IsNewOfMaster(now.dst, before.dst) && now.dst.From() >= now.zone.From());
}

} // namespace

LocalClock::LocalClock(const host::Clocks &clocks, host::Store &store, Journal &journal,
                       std::optional<std::filesystem::path> zoneLink, std::filesystem::path zones)
    : clocks_(clocks), store_(store), journal_(journal), zoneLink_(std::move(zoneLink)), zones_(std::move(zones)) {
    const host::MutexLock lock(mutex_);
    store_.Load(kDocument, kVersion, [this](const Document &content, uint32_t version) TARN_REQUIRES(mutex_) {
        settings_ = FromDocument(content, version);
    });
}

void LocalClock::SetZone(const host::Zone &zone, Source source) {
    const host::MutexLock lock(mutex_);
    ClockSettings changed = settings_;
    changed.zone.Set(source, host::CheckedZone(zone));
    CheckAgainstSystem(zone);
    if (zoneLink_ && changed.zone.From() == source) {
        LinkZone(*zoneLink_, zones_, zone.name);
    }
    const std::string text = fmt::format("time zone {} from {}", host::TextOf(zone), NameOf(source));
    const std::string before = settings_.Zone() ? host::TextOf(*settings_.Zone()) : "the system's";
    Change(changed, changed.zone.From() == source ? fmt::format("{}, before {}", text, before)
                                                  : fmt::format("{}; a client's {} holds", text, before));
}

// A zone's file ends with a line that tells its offsets from now on.
void LocalClock::CheckAgainstSystem(const host::Zone &zone) const {
    std::ifstream file(zones_ / zone.name, std::ios::binary);
    std::string line, last;
    while (std::getline(file, line)) {
        last = line;
    }
    const std::vector<int32_t> offsets = host::OffsetsOf(last);
    if (!offsets.empty() && std::ranges::find(offsets, zone.offsetMinutes) == offsets.end()) {
        throw host::BadValue(
            "zone.offset", zone.offsetMinutes,
            fmt::format("{} minutes, which the system has for {}", fmt::join(offsets, " or "), zone.name));
    }
}

void LocalClock::SetDst(const std::optional<host::DstRule> &rule, Source source) {
    const host::MutexLock lock(mutex_);
    ClockSettings changed = settings_;
    changed.dst.Set(source, rule ? std::optional(host::CheckedRule(*rule)) : std::nullopt);
    const std::string text = fmt::format("daylight saving {} from {}", host::TextOf(rule), NameOf(source));
    const std::string before = host::TextOf(settings_.Dst());
    Change(changed, changed.dst.From() == source ? fmt::format("{}, before {}", text, before)
                                                 : fmt::format("{}; a client's {} holds", text, before));
}

void LocalClock::ForgetClients() {
    const host::MutexLock lock(mutex_);
    ClockSettings changed = settings_;
    changed.shift.ForgetClients();
    changed.zone.ForgetClients();
    changed.dst.ForgetClients();
    if (zoneLink_ && changed.Zone() && changed.Zone() != settings_.Zone()) {
        LinkZone(*zoneLink_, zones_, changed.Zone()->name);
    }
    Change(changed, fmt::format("clock from {}, time zone from {}, daylight saving from {}",
                                NameOf(changed.shift.From()), NameOf(changed.zone.From()), NameOf(changed.dst.From())));
}

void LocalClock::SetGmt(const Tarn_sys_diag_Systime &time) {
    const host::MutexLock lock(mutex_);
    SetNow(GmtTime(host::FromRecord(time, kTime).time_since_epoch()), Source::kClient);
}

// What a reply takes on its way is no difference.
void LocalClock::TakeMastersGmt(const Tarn_sys_diag_Systime &time) {
    constexpr std::chrono::seconds kOnItsWay{2};
    const host::MutexLock lock(mutex_);
    const GmtTime masters(host::FromRecord(time, "the master's time").time_since_epoch());
    const GmtTime own = std::chrono::floor<Millis>(clocks_.WallNow()) + settings_.shift.Value();
    if (settings_.shift.From() != Source::kClient && std::chrono::abs(masters - own) > kOnItsWay) {
        SetNow(masters, Source::kMaster);
    }
}

void LocalClock::SetLocal(const Tarn_sys_diag_Systime &time) {
    const host::MutexLock lock(mutex_);
    const LocalMillis local = host::FromRecord(time, kTime);
    if (settings_.Zone()) {
        SetNow(host::WallClock(*settings_.Zone(), settings_.Dst()).ToGmt(local), Source::kClient);
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
    SetNow(GmtTime(std::chrono::seconds(seconds) + Millis(time.uiMillisecond)), Source::kClient);
}

host::DateFormat LocalClock::TheDateFormat() const {
    const host::MutexLock lock(mutex_);
    return settings_.dateFormat;
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
    const GmtTime now = std::chrono::floor<Millis>(clocks_.WallNow()) + settings_.shift.Value();
    return settings_.Zone() ? host::PosixText(*settings_.Zone(), settings_.Dst(), now) : "";
}

std::string LocalClock::TextWithoutZone(host::WallTime when) const {
    const host::MutexLock lock(mutex_);
    return host::TextOf(Local(when).local, settings_.dateFormat);
}

host::ZonedTime LocalClock::Local(host::WallTime when) const {
    if (!settings_.Zone()) {
        return host::SystemsTime(when + settings_.shift.Value());
    }
    const GmtTime gmt = std::chrono::time_point_cast<Millis>(when) + settings_.shift.Value();
    const LocalMillis local = host::WallClock(*settings_.Zone(), settings_.Dst()).ToLocal(gmt);
    return {local, std::chrono::floor<std::chrono::seconds>(local.time_since_epoch() - gmt.time_since_epoch())};
}

void LocalClock::SetNow(GmtTime now, Source source) {
    ClockSettings changed = settings_;
    if (zoneLink_) {
        SetSystemClock(now);
        changed.shift.Set(source, Millis(0));
    } else {
        changed.shift.Set(source, now - std::chrono::floor<Millis>(clocks_.WallNow()));
    }
    const LocalMillis gmt(now.time_since_epoch());
    Change(std::move(changed), fmt::format("clock set to {} GMT from {}, {} ms ahead of the system's, before {} ms",
                                           host::TextOf(gmt, settings_.dateFormat), NameOf(source),
                                           changed.shift.Value().count(), settings_.shift.Value().count()));
}

void LocalClock::Change(ClockSettings changed, const std::string &what) {
    if (changed == settings_) {
        return; // the master tells its settings whenever it is there
    }
    store_.Save(kDocument, kVersion, ToDocument(changed));
    const bool isNewOfMaster = IsNewOfMaster(changed, settings_);
    settings_ = std::move(changed);
    if (changed_) {
        changed_();
    }
    host::Log().info("{}", what);
    if (isNewOfMaster) { // clients are told of with their calls
        journal_.Add({{}, EventKind::kSetting, 0, "", what});
    }
}

} // namespace tarnd
