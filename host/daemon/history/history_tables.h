// The tables of the history, and how much they may hold: the oldest makes room.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/daemon/cpu/overload.h"
#include "host/daemon/history/event.h"
#include "host/store/database.h"

namespace tarnd {

struct NumberedEvent : Event {
    uint64_t number = 0; // from 1, and never used again
};

// The system over a minute.
struct MinuteFigures {
    host::WallTime time; // its end
    uint32_t busyPermille = 0;
    uint32_t waitingPermille = 0;
    uint64_t memoryKb = 0;
    uint64_t availableKb = 0;
    uint64_t swapUsedKb = 0;
};

// How far a user's black box has been read.
struct FaultMark {
    uint64_t sequence = 0;
    uint64_t timeNs = 0;
};
using FaultMarks = std::map<uint32_t, FaultMark>; // by user

// What is written in one go.
struct HistoryBatch {
    std::vector<Event> events;
    std::vector<Overload> overloads; // with their numbers
    std::vector<MinuteFigures> minutes;
    FaultMarks faultMarks;

    bool IsEmpty() const { return events.empty() && overloads.empty() && minutes.empty() && faultMarks.empty(); }
};

class HistoryTables {
public:
    static constexpr size_t kEvents = 10'000;
    static constexpr size_t kOverloads = 100; // of the system, and as many of watched processes
    static constexpr size_t kMinutes = 7 * 24 * 60;
    static constexpr size_t kMostText = 1024;        // bytes of an event's text
    static constexpr size_t kMostStack = 8 << 10;    // and of a stack's
    static constexpr uint64_t kMostBytes = 40 << 20; // which all of these can't fill

    // Without a file, in memory. An overload that an earlier run did not see end has ended with that run.
    explicit HistoryTables(const std::filesystem::path &file);

    void Write(const HistoryBatch &batch);
    void SetAside(const std::string &reason) { database_.SetAside(reason); }

    // Of the journal: a new one has other numbers, and another name.
    std::string JournalName() const;
    std::vector<NumberedEvent> EventsFrom(uint64_t number, size_t most) const; // the oldest first
    std::pair<uint64_t, uint64_t> EventNumbers() const;                        // the oldest that is kept, and the next

    std::vector<Overload> Overloads(Overload::Of of, size_t most) const; // the newest first
    uint64_t LastOverload() const;                                       // the highest number that was ever given
    std::vector<MinuteFigures> Minutes(host::WallTime since) const;      // the oldest first
    FaultMarks ReadFaultMarks() const;

private:
    void Write(const Event &event);
    void Write(const Overload &overload);
    void Write(const MinuteFigures &minute);
    void DropOldest();
    void EndOverloadsOfEarlierRun();
    std::vector<OverloadThread> ThreadsOf(uint64_t overload) const;

    host::Database database_;
};

} // namespace tarnd
