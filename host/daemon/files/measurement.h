// Measurement: whether the executables and libraries that run are those that were recorded.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/clock/daily.h"
#include "host/daemon/files/survey.h"

namespace tarnd {

// When measurements are due, in the form of DimTimeCfg.
struct MeasurementTimes {
    uint8_t hour;
    uint8_t minute;

    bool IsNever() const;
    std::chrono::milliseconds Period() const; // 0: once a day
};

class Measurement {
public:
    Measurement();

    // Takes over what an earlier run kept, and begins to work.
    void Start(uint64_t bytesPerSecond);
    void Stop(); // gives up what runs

    void SetTimes(MeasurementTimes times);
    void SetMode(uint32_t mode);

    // True when the request will be answered once the work is done.
    bool Operate(uint32_t operation, void *replyCtx);

    struct State {
        uint32_t code; // TARND_DIM_STATE_...
        std::string text;
        uint32_t differences = 0;
    };
    State Last() const;

private:
    enum class Kind { kMeasure, kRecord };
    struct Job {
        uint64_t number;
        Kind kind;
        void *replyCtx; // null: nobody waits
        std::chrono::system_clock::time_point since;
    };

    void Load();
    void Set(MeasurementTimes times, uint32_t mode); // once it is kept
    bool IsByTime() const;
    void Arm();
    void ArmByClock();
    void WaitForTimeOfDay();
    void Expire();
    void Enqueue(Kind kind, void *replyCtx);

    void Run(const std::stop_token &stop);
    std::vector<Job> FirstAlike() const;
    void Work(const std::vector<Job> &jobs, const std::stop_token &stop);
    void Check(const std::vector<Job> &jobs, const std::stop_token &stop) const;
    uint32_t WhyUnwanted(const Job &job) const;
    void Record(const Survey &survey);
    void Compare(const Survey &survey);
    void Learn(const Survey &survey, const std::vector<std::string> &added);

    mutable std::mutex mutex_;
    std::condition_variable_any wake_;
    std::deque<Job> jobs_;
    uint64_t lastJob_ = 0;
    MeasurementTimes times_;
    uint32_t mode_;
    FileDigests baseline_;
    State state_;
    uint32_t timer_ = 0, clockTimer_ = 0;
    std::optional<host::Daily> daily_; // when due once a day

    std::atomic<uint64_t> cancelledJob_{0}; // and all before it
    std::unique_ptr<Digests> digests_;
    std::jthread thread_; // ends before what it uses
};

Measurement &TheMeasurement();

} // namespace tarnd
