#include "host/daemon/files/measurement.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "host/answer/answer.h"
#include "host/daemon/store.h"
#include "host/daemon/time/local_clock.h"
#include "host/daemon/time/timers.h"
#include "host/osal/log.h"
#include "host/osal/thread.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using namespace std::chrono_literals;
using host::Document;

constexpr char kSettings[] = "measurement";
constexpr char kBaseline[] = "measurement-baseline";
constexpr uint32_t kVersion = 1;
constexpr size_t kMaxJobs = 16;

// Others come first, at the CPU and at the disk.
void StandBack() {
    constexpr int kOfThread = 1, kIdleClass = 3 << 13;
    syscall(SYS_ioprio_set, kOfThread, 0, kIdleClass);
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 10);
}

MeasurementTimes Checked(MeasurementTimes times) {
    const bool ofDay = times.hour < 24;
    if (!ofDay && times.hour != TARND_DIM_EVERY_SECONDS && times.hour != TARND_DIM_EVERY_MINUTES) {
        throw host::BadValue("ucValue1", times.hour, "an hour, 0 to 23, or 254 or 255");
    }
    if (ofDay && times.minute > 59) {
        throw host::BadValue("ucValue2", times.minute, "a minute, 0 to 59");
    }
    return times;
}

uint32_t CheckedMode(uint32_t mode) {
    if (mode > TARND_DIM_MODE_LEARN) {
        throw host::BadValue("uiWorkMode", mode, "0, 1 or 2");
    }
    return mode;
}

Measurement::State NothingMeasured() {
    return {TARND_DIM_STATE_NONE, "nothing has been measured"};
}

std::string Scope(const Survey &survey) {
    return fmt::format("{} unread; {} processes, {} hidden", survey.unread, survey.processes, survey.hidden);
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

// Each by its name; what the reply has room for are the counts and one of them.
void Report(const std::vector<std::string> &changed, const std::vector<std::string> &added) {
    for (const std::string &path : changed) {
        host::Log().warn("measurement: changed: {}", path);
    }
    for (const std::string &path : added) {
        host::Log().info("measurement: new: {}", path);
    }
}

} // namespace

bool MeasurementTimes::IsNever() const {
    return hour >= 24 && minute == 0;
}

std::chrono::milliseconds MeasurementTimes::Period() const {
    return hour == TARND_DIM_EVERY_SECONDS   ? std::chrono::seconds(minute)
           : hour == TARND_DIM_EVERY_MINUTES ? std::chrono::minutes(minute)
                                             : 0ms;
}

Measurement::Measurement()
    : times_{TARND_DIM_EVERY_MINUTES, 0}, mode_(TARND_DIM_MODE_REPORT), state_(NothingMeasured()) {}

void Measurement::Start(uint64_t bytesPerSecond) {
    Load();
    digests_ = std::make_unique<Digests>(bytesPerSecond);
    timer_ = TheTimers().Add(
        "measurement", [](void *self) { static_cast<Measurement *>(self)->Expire(); }, this);
    clockTimer_ = TheTimers().Add(
        "measurement clock", [](void *self) { static_cast<Measurement *>(self)->ArmByClock(); }, this);
    TheClock().OnChange([this] { TheTimers().Once(clockTimer_, 0ms); });
    Arm();
    thread_ = host::StartThread("measurement", [this](const std::stop_token &stop) { Run(stop); });
}

void Measurement::Stop() {
    thread_.request_stop();
    if (thread_.joinable()) { // stays there, to tell late requests
        thread_.join();
    }
}

void Measurement::Load() {
    TheStore().Load(kSettings, kVersion, [this](const Document &content) {
        times_ = Checked({content.Get<uint8_t>("hour"), content.Get<uint8_t>("minute")});
        mode_ = CheckedMode(content.Get<uint32_t>("mode"));
    });
    TheStore().Load(kBaseline, kVersion, [this](const Document &content) { baseline_ = FromDocument(content); });
}

void Measurement::Set(MeasurementTimes times, uint32_t mode) {
    TheStore().Save(kSettings, kVersion,
                    Document::Object{{"hour", times.hour}, {"minute", times.minute}, {"mode", mode}});
    times_ = times;
    mode_ = mode;
    Arm();
}

// ---- When ----

void Measurement::SetTimes(MeasurementTimes times) {
    const std::lock_guard lock(mutex_);
    Set(Checked(times), mode_);
    host::Log().info("measurement times {} {}", times_.hour, times_.minute);
}

void Measurement::SetMode(uint32_t mode) {
    const std::lock_guard lock(mutex_);
    Set(times_, CheckedMode(mode));
    host::Log().info("measurement work mode {}", mode_);
}

bool Measurement::IsByTime() const {
    return mode_ != TARND_DIM_MODE_OFF && !times_.IsNever();
}

void Measurement::Arm() {
    daily_.reset();
    if (!IsByTime()) {
        TheTimers().Cancel(timer_);
    } else if (times_.Period() != 0ms) {
        TheTimers().Every(timer_, times_.Period());
    } else {
        daily_.emplace(std::chrono::hours(times_.hour) + std::chrono::minutes(times_.minute), TheClock().LocalNow());
        WaitForTimeOfDay();
    }
}

// The daemon's clock was set, or its zone.
void Measurement::ArmByClock() {
    const std::lock_guard lock(mutex_);
    if (daily_) {
        Arm();
    }
}

// The system's clock may be set, and daylight saving begin: a long delay is looked at again.
void Measurement::WaitForTimeOfDay() {
    TheTimers().Once(timer_, std::clamp<host::Millis>(daily_->Due() - TheClock().LocalNow(), 0ms, 1min));
}

void Measurement::Expire() {
    const std::lock_guard lock(mutex_);
    if (!IsByTime()) {
        return; // it has just been switched off
    }
    const bool due = !daily_ || daily_->Take(TheClock().LocalNow());
    if (due && jobs_.empty()) { // else the last one takes longer than the time between two
        Enqueue(Kind::kMeasure, nullptr);
    }
    if (daily_) {
        WaitForTimeOfDay();
    }
}

// ---- What ----

bool Measurement::Operate(uint32_t operation, void *replyCtx) {
    const std::lock_guard lock(mutex_);
    switch (operation) {
    case TARND_DIM_MEASURE:
        Enqueue(Kind::kMeasure, replyCtx);
        return true;
    case TARND_DIM_RECORD:
        Enqueue(Kind::kRecord, replyCtx);
        return true;
    case TARND_DIM_FORGET:
        TheStore().Save(kBaseline, kVersion, ToDocument({}));
        baseline_.clear();
        state_ = NothingMeasured();
        host::Log().info("measurement: the baseline is forgotten");
        return false;
    case TARND_DIM_CANCEL:
        cancelledJob_ = lastJob_;
        return false;
    case TARND_DIM_START:
        Enqueue(Kind::kMeasure, nullptr);
        return false;
    default:
        throw host::BadValue("uiOperation", operation, "1 to 5");
    }
}

void Measurement::Enqueue(Kind kind, void *replyCtx) {
    if (thread_.get_stop_token().stop_requested()) {
        host::Fail(ESHUTDOWN, "measurement");
    }
    if (jobs_.size() >= kMaxJobs) {
        host::Fail(EBUSY, "too many measurements are waiting");
    }
    jobs_.push_back({++lastJob_, kind, replyCtx, std::chrono::system_clock::now()});
    wake_.notify_one();
}

Measurement::State Measurement::Last() const {
    const std::lock_guard lock(mutex_);
    if (jobs_.empty()) {
        return state_;
    }
    const Tarn_sys_diag_Systime since = TheClock().LocalTime(jobs_.front().since);
    return {TARND_DIM_STATE_RUNS,
            fmt::format("asked for at {:02}:{:02}:{:02}, not done yet", since.ucHour, since.ucMinute, since.ucSecond)};
}

// ---- The work ----

void Measurement::Run(const std::stop_token &stop) {
    StandBack();
    std::unique_lock lock(mutex_);
    while (wake_.wait(lock, stop, [this] { return !jobs_.empty(); })) {
        const std::vector<Job> jobs = FirstAlike(); // stay there while they are done
        lock.unlock();
        const uint32_t error = host::Run("measurement", [&] { Work(jobs, stop); });
        lock.lock();
        if (error != 0) {
            state_ = {TARND_DIM_STATE_FAILED, "given up: " + std::generic_category().message(static_cast<int>(error))};
        }
        jobs_.erase(jobs_.begin(), jobs_.begin() + std::ssize(jobs));
        lock.unlock();
        for (const Job &job : jobs) {
            if (job.replyCtx != nullptr) {
                host::Answer<Tarn_sys_diag_Result>("TarnSetDimOpration", job.replyCtx, [&](auto &reply) {
                    reply.uiResult = error != 0 ? error : WhyUnwanted(job);
                });
            }
        }
        lock.lock();
    }
}

// Those at the head of the queue that one pass over the files answers: however many ask, none waits for more than the
// pass under way and its own.
std::vector<Measurement::Job> Measurement::FirstAlike() const {
    const auto other = [this](const Job &job) { return job.kind != jobs_.front().kind; };
    return {jobs_.begin(), std::find_if(jobs_.begin(), jobs_.end(), other)};
}

void Measurement::Work(const std::vector<Job> &jobs, const std::stop_token &stop) {
    const auto start = std::chrono::steady_clock::now();
    const uint64_t bytes = digests_->BytesRead();
    const Survey survey = SurveyFiles(*digests_, [&] { Check(jobs, stop); });
    if (jobs.front().kind == Kind::kRecord) {
        Record(survey);
    } else {
        Compare(survey);
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    const std::lock_guard lock(mutex_);
    host::Log().info("measurement: {} ({:.1f} s, {:.1f} MB read)", state_.text, elapsed.count(),
                     static_cast<double>(digests_->BytesRead() - bytes) / 1e6);
}

// Gives up jobs of which nobody wants any any more.
void Measurement::Check(const std::vector<Job> &jobs, const std::stop_token &stop) const {
    if (stop.stop_requested()) {
        host::Fail(ESHUTDOWN, "measurement");
    }
    const auto unwanted = [this](const Job &job) { return WhyUnwanted(job) != 0; };
    if (std::all_of(jobs.begin(), jobs.end(), unwanted)) {
        host::Fail(static_cast<int>(WhyUnwanted(jobs.back())), "measurement");
    }
}

// 0 when it is wanted.
uint32_t Measurement::WhyUnwanted(const Job &job) const {
    const uint32_t unwanted = job.replyCtx == nullptr ? 0 : TarnHost_Cancelled(job.replyCtx);
    if (unwanted == ETIMEDOUT || unwanted == ESHUTDOWN) {
        return unwanted;
    }
    return unwanted != 0 || job.number <= cancelledJob_ ? uint32_t{ECANCELED} : 0;
}

void Measurement::Record(const Survey &survey) {
    const std::lock_guard lock(mutex_);
    TheStore().Save(kBaseline, kVersion, ToDocument(survey.files));
    baseline_ = survey.files;
    state_ = {TARND_DIM_STATE_AS_RECORDED, fmt::format("{} files recorded; {}", baseline_.size(), Scope(survey))};
}

void Measurement::Compare(const Survey &survey) {
    const std::lock_guard lock(mutex_);
    if (baseline_.empty()) {
        state_ = {TARND_DIM_STATE_NO_BASELINE,
                  fmt::format("no baseline; {} files; {}", survey.files.size(), Scope(survey))};
        return;
    }
    std::vector<std::string> changed, added;
    for (const auto &[path, digests] : survey.files) {
        const auto known = baseline_.find(path);
        if (known == baseline_.end()) {
            added.push_back(path);
        } else if (!std::includes(known->second.begin(), known->second.end(), digests.begin(), digests.end())) {
            changed.push_back(path);
        }
    }
    Report(changed, added);
    if (mode_ == TARND_DIM_MODE_LEARN && !added.empty()) {
        Learn(survey, added);
        added.clear();
    }
    const bool differs = !changed.empty() || !added.empty();
    const std::string counts = fmt::format("{} changed, {} new of {} files; {}", changed.size(), added.size(),
                                           survey.files.size(), Scope(survey));
    state_.code = differs ? TARND_DIM_STATE_DIFFERS : TARND_DIM_STATE_AS_RECORDED;
    state_.text = differs ? WithExample(counts, changed.empty() ? added.front() : changed.front()) : counts;
    state_.differences = static_cast<uint32_t>(changed.size() + added.size());
}

void Measurement::Learn(const Survey &survey, const std::vector<std::string> &added) {
    FileDigests baseline = baseline_;
    for (const std::string &path : added) {
        baseline[path] = survey.files.at(path);
    }
    TheStore().Save(kBaseline, kVersion, ToDocument(baseline));
    baseline_ = std::move(baseline);
}

} // namespace tarnd

uint32_t TarnSetDimOpration(const Tarn_sys_diag_DimSetIn *request, void *replyCtx) {
    bool later = false;
    const uint32_t error =
        host::Run(__func__, [&] { later = tarnd::TheMeasurement().Operate(request->uiOperation, replyCtx); });
    if (later) {
        return 0;
    }
    return host::Answer<Tarn_sys_diag_Result>(__func__, replyCtx, [&](auto &reply) { reply.uiResult = error; });
}

uint32_t TarnSetDimTimeCfgByTarnd(const Tarn_sys_diag_DimTimeCfg *request) {
    return host::Run(__func__, [&] { tarnd::TheMeasurement().SetTimes({request->ucValue1, request->ucValue2}); });
}

uint32_t TarnSetDimWorkModeCfgByTarnd(const Tarn_sys_diag_DimWorkModeCfg *request) {
    return host::Run(__func__, [&] { tarnd::TheMeasurement().SetMode(request->uiWorkMode); });
}

uint32_t TarnGetDimMeasRstByTarnd(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_DimMeasRst>(__func__, replyCtx, [](auto &reply) {
        const tarnd::Measurement::State state = tarnd::TheMeasurement().Last();
        reply.uiValue1 = state.code;
        host::CopyText(reply.acMeasResult, state.text);
        reply.uiValue2 = state.differences;
    });
}
