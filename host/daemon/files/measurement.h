// Measurement: whether the executables and libraries that run are those that were recorded.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/clock/clocks.h"
#include "host/clock/daily.h"
#include "host/daemon/files/comparison.h"
#include "host/daemon/files/survey.h"
#include "host/daemon/history/event.h"
#include "host/daemon/setting.h"
#include "host/daemon/time/local_clock.h"
#include "host/daemon/time/timers.h"
#include "host/meaning/choices.h"
#include "host/osal/attempt.h"
#include "host/osal/mutex.h"
#include "host/osal/work_queue.h"
#include "host/store/store.h"

namespace tarnd {

// When measurements are due, in the form of DimTimeCfg.
struct MeasurementTimes {
    uint8_t hour;
    uint8_t minute;

    bool IsNever() const;
    std::chrono::milliseconds Period() const; // 0: once a day

    bool operator==(const MeasurementTimes &) const = default;
};

// Who asked for a measurement and waits for its end.
struct MeasurementWaiter {
    std::function<uint32_t()> unwanted;                       // why the answer is not wanted any more; 0: it is
    std::function<void(const host::Failure &failure)> answer; // called once
};

class Measurement {
public:
    static constexpr size_t kMaxJobs = 16;

    // Takes over what an earlier run kept.
    Measurement(const host::Clocks &clocks, const host::procfs::Procfs &proc, host::Store &store, LocalClock &clock,
                Timers &timers, Journal &journal, uint64_t bytesPerSecond);
    Measurement(const Measurement &) = delete;
    Measurement &operator=(const Measurement &) = delete;
    ~Measurement(); // gives up what runs

    void SetTimes(MeasurementTimes times, Source source = Source::kClient);
    void SetMode(uint32_t mode, Source source = Source::kClient);
    void ForgetClients(); // what they have set
    Setting<MeasurementTimes> Times() const;
    Setting<uint32_t> Mode() const;

    // True when the waiter will be answered, once the work is done.
    bool Operate(uint32_t operation, MeasurementWaiter waiter);

    struct State {
        uint32_t code; // one of host::meaning::measurement_state
        std::string text;
        uint32_t differences = 0;
    };
    State Last() const;

private:
    enum class Kind { kMeasure, kRecord };
    struct Job {
        uint64_t number;
        Kind kind;
        std::optional<MeasurementWaiter> waiter;
        host::WallTime since;
    };

    // When.
    struct Settings {
        Setting<MeasurementTimes> times;
        Setting<uint32_t> mode;

        bool IsByTime() const;
        std::optional<MeasurementTimes> Times() const; // none: not by time
        bool operator==(const Settings &) const = default;
    };
    static Settings Defaults();
    static Settings Parse(const host::Document &content, uint32_t version);
    void Load();
    void Change(const Settings &changed) TARN_REQUIRES(mutex_); // once it is kept
    void Arm() TARN_REQUIRES(mutex_);
    void ArmByClock();
    void WaitForTimeOfDay() TARN_REQUIRES(mutex_);
    void Expire();

    // What.
    void Enqueue(Kind kind, std::optional<MeasurementWaiter> waiter) TARN_REQUIRES(mutex_);
    void WorkOff(const std::stop_token &stop);
    std::vector<Job> FirstAlike();
    void Finish(const std::vector<Job> &jobs, const host::Failure &failure);
    void Work(const std::vector<Job> &jobs, const std::stop_token &stop);
    void Check(const std::vector<Job> &jobs, const std::stop_token &stop) const;
    uint32_t WhyUnwanted(const Job &job) const;
    void Record(const Survey &survey);
    FileDigests Baseline() const;
    void TellSoFar(const Comparison &comparison);
    void Conclude(const Survey &survey, const Comparison &comparison);
    void Learn(const Survey &survey, const std::set<std::string> &added) TARN_REQUIRES(mutex_);

    const host::Clocks &clocks_;
    const host::procfs::Procfs &proc_;
    host::Store &store_;
    LocalClock &clock_;
    Timers &timers_;
    Journal &journal_;

    mutable host::Mutex mutex_;
    std::deque<Job> jobs_ TARN_GUARDED_BY(mutex_); // also those that are worked on
    uint64_t lastJob_ TARN_GUARDED_BY(mutex_) = 0;
    uint64_t cancelledJob_ TARN_GUARDED_BY(mutex_) = 0; // and all before it
    bool ends_ TARN_GUARDED_BY(mutex_) = false;
    Settings settings_ TARN_GUARDED_BY(mutex_);
    FileDigests baseline_ TARN_GUARDED_BY(mutex_);
    State state_ TARN_GUARDED_BY(mutex_);
    State soFar_ TARN_GUARDED_BY(mutex_) = {host::meaning::measurement_state::kRuns, ""}; // of the work under way
    std::optional<host::Daily> daily_ TARN_GUARDED_BY(mutex_);                            // when due once a day
    const uint32_t timer_, clockTimer_;

    Digests digests_; // the work's
    const ReadingBudget::Limits budget_;
    std::optional<host::WorkQueue> queue_{"measurement"};
};

} // namespace tarnd
