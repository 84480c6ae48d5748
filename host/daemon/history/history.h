// What the daemon remembers besides its settings: the journal of events, overloads, and the system's figures by the
// minute. It is kept in one database, beyond a restart.
//
// The database is written in batches, to spare flash memory: what happened a moment after it is told, but at most once
// in kShortest; figures alone once in kLongest. What is in the journal can be read once it is written, so that nobody
// reads what a crash of the machine takes back.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "host/clock/clocks.h"
#include "host/daemon/history/history_tables.h"
#include "host/osal/mutex.h"

namespace tarnd {

class History final : public Journal, public OverloadHistory {
public:
    static constexpr std::chrono::seconds kShortest{1};
    static constexpr std::chrono::minutes kLongest{10};
    static constexpr std::chrono::minutes kRetry{1}; // after a failure
    static constexpr size_t kMostWaiting = 1000;     // events; when the database can't be written, the newest are lost

    // The directory is there, and nobody else writes to it. Without one, or where no file can be made in it, all is
    // kept in memory only.
    History(const std::filesystem::path &stateDirectory, const host::Clocks &clocks);
    History(const History &) = delete;
    History &operator=(const History &) = delete;
    ~History(); // writes what waits

    void Add(Event event) override;
    void AddFaults(std::vector<Event> events, const FaultMarks &read); // and that the black boxes were read so far
    void Keep(Overload &overload) override;
    void AddMinute(const MinuteFigures &minute);

    struct Extent {
        std::string journal; // a new one has another name, as its numbers are others
        uint64_t oldest = 1; // number of an event that is kept
        uint64_t end = 1;    // behind the last
    };
    Extent TheExtent() const;
    std::vector<NumberedEvent> EventsFrom(uint64_t number, size_t most) const; // the oldest first
    std::optional<Overload> Last(Overload::Of of) const override;
    std::vector<Overload> Overloads(Overload::Of of, size_t most) const; // the newest first
    std::vector<MinuteFigures> Minutes(host::WallTime since) const;      // the oldest first
    FaultMarks ReadFaultMarks() const;

    // For a driver.
    void OnDue(std::function<void(host::SteadyTime)> tell);
    void RunDue();

    // Calls back, on any thread, whenever there is something new to read.
    void OnWritten(std::function<void()> tell);

private:
    void Enter(Event event) TARN_REQUIRES(mutex_);
    void WriteBy(host::SteadyTime due) TARN_REQUIRES(mutex_);
    void WriteSoon() TARN_REQUIRES(mutex_);
    void Flush();
    HistoryBatch TakeBatch();
    void PutBack(HistoryBatch batch);
    bool Write(const HistoryBatch &batch);
    template <class Read>
    auto ReadTables(const Read &read) const TARN_REQUIRES(tablesMutex_);
    void BeginAnew(const host::DatabaseDamage &damage) const TARN_REQUIRES(tablesMutex_);

    const host::Clocks &clocks_;

    mutable host::Mutex tablesMutex_;                                             // taken before the other
    mutable std::unique_ptr<HistoryTables> tables_ TARN_GUARDED_BY(tablesMutex_); // whoever finds damage sets it aside

    mutable host::Mutex mutex_;
    HistoryBatch waiting_ TARN_GUARDED_BY(mutex_);
    uint64_t lastOverload_ TARN_GUARDED_BY(mutex_) = 0;
    std::optional<host::SteadyTime> written_ TARN_GUARDED_BY(mutex_); // when last
    std::optional<host::SteadyTime> due_ TARN_GUARDED_BY(mutex_);     // the next write, where somebody was told
    std::function<void(host::SteadyTime)> tellDue_ TARN_GUARDED_BY(mutex_);

    host::Mutex tellMutex_;
    std::function<void()> tellWritten_ TARN_GUARDED_BY(tellMutex_);
};

} // namespace tarnd
