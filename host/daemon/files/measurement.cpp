#include "host/daemon/files/measurement.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "host/meaning/check.h"
#include "host/meaning/methods.h"
#include "host/osal/error.h"
#include "host/osal/log.h"
#include "tarn_sysdiag/types/tarnd.h"

namespace tarnd {

namespace {

using namespace std::chrono_literals;
using host::Document;
namespace measurement_mode = host::meaning::measurement_mode;
namespace measurement_operation = host::meaning::measurement_operation;
namespace measurement_state = host::meaning::measurement_state;
namespace measurement_time = host::meaning::measurement_time;

constexpr char kSettings[] = "measurement";
constexpr char kBaseline[] = "measurement-baseline";
constexpr uint32_t kSettingsVersion = 2; // 1: who set them was not told
constexpr uint32_t kBaselineVersion = 1;
// Why there is no answer, besides what the status says.
constexpr char kGivenUp[] = "the measurement was given up";

// Others come first, at the CPU and at the disk.
void StandBack() {
    constexpr int kOfThread = 1, kIdleClass = 3 << 13;
    syscall(SYS_ioprio_set, kOfThread, 0, kIdleClass);
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 10);
}

// The master and what was stored keep to what a client must keep to.
MeasurementTimes Checked(MeasurementTimes times) {
    const auto &method = host::methods::TarnSetDimTimeCfgByTarnd;
    const Tarn_sys_diag_DimTimeCfg request{times.hour, times.minute};
    host::meaning::Check(*method.request, &request);
    if (times.hour < 24 && times.minute > 59) {
        throw host::meaning::BadMember(method, "minute", times.minute, "0 to 59, a minute of the hour");
    }
    return times;
}

uint32_t CheckedMode(uint32_t mode) {
    const Tarn_sys_diag_DimWorkModeCfg request{mode};
    host::meaning::Check(*host::methods::TarnSetDimWorkModeCfgByTarnd.request, &request);
    return mode;
}

MeasurementTimes TimesOf(const Document &content) {
    return Checked({content.Get<uint8_t>("hour"), content.Get<uint8_t>("minute")});
}

Document TimesDocument(const MeasurementTimes &times) {
    return Document::Object{{"hour", times.hour}, {"minute", times.minute}};
}

Measurement::State NothingMeasured() {
    return {measurement_state::kNone, "nothing has been measured"};
}

std::string Scope(const Survey &survey) {
    const std::string leftOut = survey.leftOut == 0 ? "" : fmt::format("{} left out; ", survey.leftOut);
    return leftOut + fmt::format("{} unread; {} processes, {} hidden", survey.unread, survey.processes, survey.hidden);
}

// Names a path within what the reply has room for; its end tells more than its start.
std::string WithExample(const std::string &text, const std::string &path) {
    constexpr size_t kRoom = sizeof(Tarn_sys_diag_DimMeasRst::acMeasResult) - 1;
    const size_t limit = kRoom - std::min(kRoom, text.size() + 2);
    const std::string name = path.size() <= limit ? path : "..." + path.substr(path.size() - limit + 3);
    return name + ": " + text;
}

Document ToDocument(const FileDigests &files) {
    Document::Object content;
    for (const auto &[path, digests] : files) {
        content[path] = Document::Array(digests.begin(), digests.end());
    }
    return content;
}

FileDigests FromDocument(const Document &content) {
    FileDigests files;
    for (const auto &[path, digests] : content.AsObject()) {
        for (const Document &digest : digests.AsArray()) {
            files[path].insert(digest.As<std::string>());
        }
    }
    return files;
}

} // namespace

bool MeasurementTimes::IsNever() const {
    return hour >= 24 && minute == 0;
}

std::chrono::milliseconds MeasurementTimes::Period() const {
    return hour == measurement_time::kEverySeconds   ? std::chrono::seconds(minute)
           : hour == measurement_time::kEveryMinutes ? std::chrono::minutes(minute)
                                                     : 0ms;
}

Measurement::Measurement(const host::Clocks &clocks, const host::procfs::Procfs &proc, host::Store &store,
                         LocalClock &clock, Timers &timers, Journal &journal, uint64_t bytesPerSecond)
    : clocks_(clocks), proc_(proc), store_(store), clock_(clock), timers_(timers), journal_(journal),
      settings_(Defaults()), state_(NothingMeasured()),
      timer_(timers.Add(
          "measurement", [](void *self) { static_cast<Measurement *>(self)->Expire(); }, this)),
      clockTimer_(timers.Add(
          "measurement clock", [](void *self) { static_cast<Measurement *>(self)->ArmByClock(); }, this)),
      digests_(clocks, bytesPerSecond, [](host::SteadyTime until) { std::this_thread::sleep_until(until); }) {
    Load();
    clock_.OnChange([this] { timers_.Once(clockTimer_, 0ms); });
    queue_->Post([](const std::stop_token &) { StandBack(); });
    const host::MutexLock lock(mutex_);
    Arm();
}

Measurement::~Measurement() {
    {
        const host::MutexLock lock(mutex_);
        ends_ = true;
    }
    queue_.reset();
    for (std::vector<Job> jobs = FirstAlike(); !jobs.empty(); jobs = FirstAlike()) {
        Finish(jobs, {ESHUTDOWN, kGivenUp});
    }
}

void Measurement::Load() {
    const host::MutexLock lock(mutex_);
    store_.Load(kSettings, kSettingsVersion, [this](const Document &content, uint32_t version) TARN_REQUIRES(mutex_) {
        settings_ = Parse(content, version);
    });
    store_.Load(kBaseline, kBaselineVersion,
                [this](const Document &content) TARN_REQUIRES(mutex_) { baseline_ = FromDocument(content); });
}

Measurement::Settings Measurement::Defaults() {
    return {Setting(MeasurementTimes{measurement_time::kEveryMinutes, 0}),
            Setting(static_cast<uint32_t>(measurement_mode::kReport))};
}

Measurement::Settings Measurement::Parse(const Document &content, uint32_t version) {
    Settings settings = Defaults();
    if (version == 1) {
        settings.times.Set(Source::kMaster, TimesOf(content));
        settings.mode.Set(Source::kMaster, CheckedMode(content.Get<uint32_t>("mode")));
    } else {
        settings.times.Take(content.At("times"), TimesOf);
        settings.mode.Take(content.At("mode"), [](const Document &mode) { return CheckedMode(mode.As<uint32_t>()); });
    }
    return settings;
}

// A timer whose setting stays goes on.
void Measurement::Change(const Settings &changed) {
    if (changed == settings_) {
        return;
    }
    store_.Save(kSettings, kSettingsVersion,
                Document::Object{{"times", changed.times.ToDocument(TimesDocument)},
                                 {"mode", changed.mode.ToDocument([](uint32_t mode) { return Document(mode); })}});
    const std::optional<MeasurementTimes> before = settings_.Times();
    settings_ = changed;
    if (settings_.Times() != before) {
        Arm();
    }
    const MeasurementTimes &times = settings_.times.Value();
    const std::string text =
        fmt::format("measurement times {} {} from {}, work mode {} from {}", times.hour, times.minute,
                    NameOf(settings_.times.From()), settings_.mode.Value(), NameOf(settings_.mode.From()));
    host::Log().info("{}", text);
    if (settings_.times.From() == Source::kMaster || settings_.mode.From() == Source::kMaster) {
        journal_.Add({{}, EventKind::kSetting, 0, "", text});
    }
}

// ---- When ----

void Measurement::SetTimes(MeasurementTimes times, Source source) {
    const host::MutexLock lock(mutex_);
    Settings changed = settings_;
    changed.times.Set(source, Checked(times));
    Change(changed);
}

void Measurement::SetMode(uint32_t mode, Source source) {
    const host::MutexLock lock(mutex_);
    Settings changed = settings_;
    changed.mode.Set(source, CheckedMode(mode));
    Change(changed);
}

void Measurement::ForgetClients() {
    const host::MutexLock lock(mutex_);
    Settings changed = settings_;
    changed.times.ForgetClients();
    changed.mode.ForgetClients();
    Change(changed);
}

Setting<MeasurementTimes> Measurement::Times() const {
    const host::MutexLock lock(mutex_);
    return settings_.times;
}

Setting<uint32_t> Measurement::Mode() const {
    const host::MutexLock lock(mutex_);
    return settings_.mode;
}

bool Measurement::Settings::IsByTime() const {
    return mode.Value() != measurement_mode::kOff && !times.Value().IsNever();
}

std::optional<MeasurementTimes> Measurement::Settings::Times() const {
    return IsByTime() ? std::optional(times.Value()) : std::nullopt;
}

void Measurement::Arm() {
    const std::optional<MeasurementTimes> times = settings_.Times();
    daily_.reset();
    if (!times) {
        timers_.Cancel(timer_);
    } else if (times->Period() != 0ms) {
        timers_.Every(timer_, times->Period());
    } else {
        daily_.emplace(std::chrono::hours(times->hour) + std::chrono::minutes(times->minute), clock_.LocalNow());
        WaitForTimeOfDay();
    }
}

// The daemon's clock was set, or its zone.
void Measurement::ArmByClock() {
    const host::MutexLock lock(mutex_);
    if (daily_) {
        Arm();
    }
}

// The system's clock may be set, and daylight saving begin: a long delay is looked at again.
void Measurement::WaitForTimeOfDay() {
    timers_.Once(timer_, std::clamp<host::Millis>(daily_->Due() - clock_.LocalNow(), 0ms, 1min));
}

void Measurement::Expire() {
    const host::MutexLock lock(mutex_);
    if (!settings_.IsByTime()) {
        return; // it has just been switched off
    }
    const bool due = !daily_ || daily_->Take(clock_.LocalNow());
    if (due && jobs_.empty()) { // else the last one takes longer than the time between two
        Enqueue(Kind::kMeasure, std::nullopt);
    }
    if (daily_) {
        WaitForTimeOfDay();
    }
}

// ---- What ----

bool Measurement::Operate(uint32_t operation, MeasurementWaiter waiter) {
    const host::MutexLock lock(mutex_);
    switch (operation) {
    case measurement_operation::kMeasure:
        Enqueue(Kind::kMeasure, std::move(waiter));
        return true;
    case measurement_operation::kRecord:
        Enqueue(Kind::kRecord, std::move(waiter));
        return true;
    case measurement_operation::kForget:
        store_.Save(kBaseline, kBaselineVersion, ToDocument({}));
        baseline_.clear();
        state_ = NothingMeasured();
        host::Log().info("measurement: the baseline is forgotten");
        break;
    case measurement_operation::kCancel:
        cancelledJob_ = lastJob_;
        break;
    case measurement_operation::kStart:
        Enqueue(Kind::kMeasure, std::nullopt);
        break;
    }
    return false;
}

void Measurement::Enqueue(Kind kind, std::optional<MeasurementWaiter> waiter) {
    if (ends_) {
        host::Fail(ESHUTDOWN, kGivenUp);
    }
    if (jobs_.size() >= kMaxJobs) {
        host::Fail(EBUSY, "too many measurements are waiting");
    }
    jobs_.push_back({++lastJob_, kind, std::move(waiter), clocks_.WallNow()});
    queue_->Post([this](const std::stop_token &stop) { WorkOff(stop); });
}

Measurement::State Measurement::Last() const {
    const host::MutexLock lock(mutex_);
    if (jobs_.empty()) {
        return state_;
    }
    State soFar = soFar_;
    soFar.text = fmt::format("asked for at {}, not done yet{}", clock_.Text(jobs_.front().since), soFar.text);
    return soFar;
}

// ---- The work ----

// One pass over the files for all that it answers, which may leave nothing to do for the next.
void Measurement::WorkOff(const std::stop_token &stop) {
    const std::vector<Job> jobs = FirstAlike();
    if (!jobs.empty()) {
        Finish(jobs, host::FailureOf("measurement", [&] { Work(jobs, stop); }));
    }
}

// Those at the head of the queue that one pass over the files answers: however many ask, none waits for more than the
// pass under way and its own.
std::vector<Measurement::Job> Measurement::FirstAlike() {
    const host::MutexLock lock(mutex_);
    const auto other = std::ranges::find_if(jobs_, [kind = jobs_.empty() ? Kind::kMeasure : jobs_.front().kind](
                                                       const Job &job) { return job.kind != kind; });
    return {jobs_.begin(), other};
}

// They stay in the queue until here.
void Measurement::Finish(const std::vector<Job> &jobs, const host::Failure &failure) {
    {
        const host::MutexLock lock(mutex_);
        if (failure.error != 0) {
            state_ = {measurement_state::kFailed,
                      "given up: " + std::generic_category().message(static_cast<int>(failure.error))};
        }
        jobs_.erase(jobs_.begin(), jobs_.begin() + std::ssize(jobs));
        soFar_ = {measurement_state::kRuns, ""};
    }
    for (const Job &job : jobs) {
        if (job.waiter) {
            const uint32_t unwanted = WhyUnwanted(job);
            const host::Failure ofJob{unwanted, unwanted == 0 ? "" : kGivenUp};
            job.waiter->answer(failure.error != 0 ? failure : ofJob);
        }
    }
}

void Measurement::Work(const std::vector<Job> &jobs, const std::stop_token &stop) {
    const auto start = clocks_.SteadyNow();
    const uint64_t bytes = digests_.BytesRead();
    Comparison comparison(jobs.front().kind == Kind::kMeasure ? Baseline() : FileDigests());
    const Survey survey = SurveyFiles(
        proc_, digests_, ReadingBudget(budget_, geteuid()), [&] { Check(jobs, stop); },
        [&](const SurveyedFile &file) {
            if (comparison.Add(file)) {
                TellSoFar(comparison);
            }
        });
    if (jobs.front().kind == Kind::kRecord) {
        Record(survey);
    } else {
        Conclude(survey, comparison);
    }
    const std::chrono::duration<double> elapsed = clocks_.SteadyNow() - start;
    const host::MutexLock lock(mutex_);
    host::Log().info("measurement: {} ({:.1f} s, {:.1f} MB read)", state_.text, elapsed.count(),
                     static_cast<double>(digests_.BytesRead() - bytes) / 1e6);
}

// Gives up jobs of which nobody wants any any more.
void Measurement::Check(const std::vector<Job> &jobs, const std::stop_token &stop) const {
    if (stop.stop_requested()) {
        host::Fail(ESHUTDOWN, kGivenUp);
    }
    const auto unwanted = [this](const Job &job) { return WhyUnwanted(job) != 0; };
    if (std::all_of(jobs.begin(), jobs.end(), unwanted)) {
        host::Fail(static_cast<int>(WhyUnwanted(jobs.back())), kGivenUp);
    }
}

// 0 when it is wanted.
uint32_t Measurement::WhyUnwanted(const Job &job) const {
    const uint32_t unwanted = job.waiter ? job.waiter->unwanted() : 0;
    if (unwanted == ETIMEDOUT || unwanted == ESHUTDOWN) {
        return unwanted;
    }
    const host::MutexLock lock(mutex_);
    return unwanted != 0 || job.number <= cancelledJob_ ? uint32_t{ECANCELED} : 0;
}

void Measurement::Record(const Survey &survey) {
    const host::MutexLock lock(mutex_);
    store_.Save(kBaseline, kBaselineVersion, ToDocument(survey.files));
    baseline_ = survey.files;
    state_ = {measurement_state::kAsRecorded, fmt::format("{} files recorded; {}", baseline_.size(), Scope(survey))};
}

FileDigests Measurement::Baseline() const {
    const host::MutexLock lock(mutex_);
    return baseline_;
}

void Measurement::TellSoFar(const Comparison &comparison) {
    const size_t changed = comparison.Changed().size(), added = comparison.Added().size();
    const host::MutexLock lock(mutex_);
    soFar_.text = fmt::format("; {} changed, {} new so far", changed, added);
    soFar_.differences = static_cast<uint32_t>(changed + added);
}

void Measurement::Conclude(const Survey &survey, const Comparison &comparison) {
    const host::MutexLock lock(mutex_);
    if (!comparison.HasBaseline() || baseline_.empty()) { // it may have been forgotten meanwhile
        state_ = {measurement_state::kNoBaseline,
                  fmt::format("no baseline; {} files; {}", survey.files.size(), Scope(survey))};
        return;
    }
    const std::set<std::string> &changed = comparison.Changed();
    std::set<std::string> added = comparison.Added();
    if (settings_.mode.Value() == measurement_mode::kLearn && !added.empty()) {
        Learn(survey, added);
        added.clear();
    }
    const bool differs = !changed.empty() || !added.empty();
    const std::string counts = fmt::format("{} changed, {} new of {} files; {}", changed.size(), added.size(),
                                           survey.files.size(), Scope(survey));
    const std::string &example = !changed.empty() ? *changed.begin()
                                 : !added.empty() ? *added.begin()
                                                  : survey.firstLeftOut;
    state_.code = differs ? measurement_state::kDiffers : measurement_state::kAsRecorded;
    state_.text = example.empty() ? counts : WithExample(counts, example);
    state_.differences = static_cast<uint32_t>(changed.size() + added.size());
    if (differs) {
        journal_.Add({{}, EventKind::kIntegrity, 0, "", state_.text});
    }
}

void Measurement::Learn(const Survey &survey, const std::set<std::string> &added) {
    FileDigests baseline = baseline_;
    for (const std::string &path : added) {
        baseline[path] = survey.files.at(path);
    }
    store_.Save(kBaseline, kBaselineVersion, ToDocument(baseline));
    baseline_ = std::move(baseline);
}

} // namespace tarnd
