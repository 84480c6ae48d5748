#include "host/daemon/history/history_tables.h"

#include "host/osal/text.h"

namespace tarnd {

namespace {

using host::Rows;
using std::chrono::milliseconds;

// Numbers are never used again: readers go on from the one that they know.
constexpr char kSchema[] = R"(
CREATE TABLE journal(name TEXT NOT NULL);
INSERT INTO journal VALUES (lower(hex(randomblob(8))));
CREATE TABLE events(number INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL, kind TEXT NOT NULL,
    pid INTEGER NOT NULL, process TEXT NOT NULL, text TEXT NOT NULL);
CREATE TABLE overloads(number INTEGER PRIMARY KEY AUTOINCREMENT, of_process INTEGER NOT NULL, began INTEGER NOT NULL,
    ended INTEGER, pid INTEGER NOT NULL, process TEXT NOT NULL, system_permille INTEGER NOT NULL,
    process_permille INTEGER NOT NULL);
CREATE TABLE overload_threads(overload INTEGER NOT NULL, place INTEGER NOT NULL, pid INTEGER NOT NULL,
    tid INTEGER NOT NULL, name TEXT NOT NULL, run_ns INTEGER NOT NULL, permille INTEGER NOT NULL, stack TEXT,
    PRIMARY KEY(overload, place)) WITHOUT ROWID;
CREATE TABLE minutes(time INTEGER PRIMARY KEY, busy INTEGER NOT NULL, waiting INTEGER NOT NULL,
    memory_kb INTEGER NOT NULL, available_kb INTEGER NOT NULL, swap_used_kb INTEGER NOT NULL);
CREATE TABLE fault_marks(user INTEGER PRIMARY KEY, sequence INTEGER NOT NULL, time_ns INTEGER NOT NULL);
)";

int64_t ToMs(host::WallTime time) {
    return std::chrono::duration_cast<milliseconds>(time.time_since_epoch()).count();
}

host::WallTime FromMs(int64_t ms) {
    return host::NearestWallTime(std::chrono::seconds(ms / 1000), milliseconds(ms % 1000));
}

// With a mark where it is cut, at the end of a line.
std::optional<std::string> StackToKeep(const std::optional<std::string> &stack) {
    if (!stack.has_value() || stack->size() <= HistoryTables::kMostStack) {
        return stack;
    }
    const size_t end = stack->rfind('\n', HistoryTables::kMostStack);
    return stack->substr(0, end == std::string::npos ? 0 : end + 1) + "(more is not kept)\n";
}

// What a table of which only so many rows are kept has beyond them.
constexpr char kDropEvents[] = "DELETE FROM events WHERE number <= (SELECT max(number) FROM events) - ?";
constexpr char kDropOverloads[] = "DELETE FROM overloads WHERE number IN (SELECT number FROM overloads "
                                  "WHERE of_process = ? ORDER BY number DESC LIMIT -1 OFFSET ?)";
constexpr char kDropThreads[] = "DELETE FROM overload_threads WHERE overload NOT IN (SELECT number FROM overloads)";
constexpr char kDropMinutes[] =
    "DELETE FROM minutes WHERE time IN (SELECT time FROM minutes ORDER BY time DESC LIMIT -1 OFFSET ?)";

} // namespace

HistoryTables::HistoryTables(const std::filesystem::path &file)
    : database_({.file = file, .version = 1, .schema = kSchema, .mostBytes = kMostBytes}) {
    EndOverloadsOfEarlierRun();
}

// With the last that is known of that run.
void HistoryTables::EndOverloadsOfEarlierRun() {
    database_.Run("UPDATE overloads SET ended = max(began, ifnull((SELECT max(time) FROM minutes), 0), "
                  "ifnull((SELECT max(time) FROM events), 0)) WHERE ended IS NULL");
}

// --- What is written

void HistoryTables::Write(const HistoryBatch &batch) {
    host::Transaction transaction(database_);
    for (const Event &event : batch.events) {
        Write(event);
    }
    for (const Overload &overload : batch.overloads) {
        Write(overload);
    }
    for (const MinuteFigures &minute : batch.minutes) {
        Write(minute);
    }
    for (const auto &[user, mark] : batch.faultMarks) {
        database_.Run("INSERT OR REPLACE INTO fault_marks VALUES (?, ?, ?)", user, mark.sequence, mark.timeNs);
    }
    DropOldest();
    transaction.Commit();
}

void HistoryTables::Write(const Event &event) {
    database_.Run("INSERT INTO events(time, kind, pid, process, text) VALUES (?, ?, ?, ?, ?)", ToMs(event.time),
                  InfoOf(event.kind).name, event.pid, host::LineOfText(event.process),
                  host::LineOfText(std::string_view(event.text).substr(0, kMostText)));
}

void HistoryTables::Write(const Overload &overload) {
    database_.Run("INSERT OR REPLACE INTO overloads(number, of_process, began, pid, process, system_permille, "
                  "process_permille) VALUES (?, ?, ?, ?, ?, ?, ?)",
                  overload.number, overload.of == Overload::Of::kProcess, ToMs(overload.begin), overload.pid,
                  overload.name, overload.systemPermille, overload.processPermille);
    if (overload.end.has_value()) {
        database_.Run("UPDATE overloads SET ended = ? WHERE number = ?", ToMs(*overload.end), overload.number);
    }
    uint32_t place = 0;
    for (const OverloadThread &thread : overload.threads) {
        database_.Run("INSERT OR REPLACE INTO overload_threads VALUES (?, ?, ?, ?, ?, ?, ?, ?)", overload.number,
                      place++, thread.pid, thread.tid, thread.name, thread.runNs, thread.permille,
                      StackToKeep(thread.stack));
    }
}

void HistoryTables::Write(const MinuteFigures &minute) {
    database_.Run("INSERT OR REPLACE INTO minutes VALUES (?, ?, ?, ?, ?, ?)", ToMs(minute.time), minute.busyPermille,
                  minute.waitingPermille, minute.memoryKb, minute.availableKb, minute.swapUsedKb);
}

void HistoryTables::DropOldest() {
    database_.Run(kDropEvents, kEvents);
    for (const bool ofProcess : {false, true}) {
        database_.Run(kDropOverloads, ofProcess, kOverloads);
    }
    database_.Run(kDropThreads);
    database_.Run(kDropMinutes, kMinutes);
}

// --- What is read

std::string HistoryTables::JournalName() const {
    Rows rows = database_.Query("SELECT name FROM journal");
    return rows.Next() ? rows.Get<std::string>(0) : "";
}

std::vector<NumberedEvent> HistoryTables::EventsFrom(uint64_t number, size_t most) const {
    std::vector<NumberedEvent> events;
    if (!std::in_range<int64_t>(number)) { // beyond all that are ever given
        return events;
    }
    for (Rows rows = database_.Query("SELECT number, time, kind, pid, process, text FROM events WHERE number >= ? "
                                     "ORDER BY number LIMIT ?",
                                     number, most);
         rows.Next();) {
        if (const EventKindInfo *const info = EventKindNamed(rows.Get<std::string>(2))) {
            NumberedEvent &event = events.emplace_back();
            event.number = rows.Get<uint64_t>(0);
            event.time = FromMs(rows.Get<int64_t>(1));
            event.kind = info->kind;
            event.pid = rows.Get<uint32_t>(3);
            event.process = rows.Get<std::string>(4);
            event.text = rows.Get<std::string>(5);
        }
    }
    return events;
}

std::pair<uint64_t, uint64_t> HistoryTables::EventNumbers() const {
    Rows last = database_.Query("SELECT seq FROM sqlite_sequence WHERE name = 'events'");
    const uint64_t next = last.Next() ? last.Get<uint64_t>(0) + 1 : 1;
    Rows first = database_.Query("SELECT min(number) FROM events");
    return {first.Next() && !first.IsNull(0) ? first.Get<uint64_t>(0) : next, next};
}

std::vector<Overload> HistoryTables::Overloads(Overload::Of of, size_t most) const {
    std::vector<Overload> overloads;
    for (Rows rows = database_.Query("SELECT number, began, ended, pid, process, system_permille, process_permille "
                                     "FROM overloads WHERE of_process = ? ORDER BY number DESC LIMIT ?",
                                     of == Overload::Of::kProcess, most);
         rows.Next();) {
        Overload &overload = overloads.emplace_back();
        overload.number = rows.Get<uint64_t>(0);
        overload.of = of;
        overload.begin = FromMs(rows.Get<int64_t>(1));
        if (!rows.IsNull(2)) {
            overload.end = FromMs(rows.Get<int64_t>(2));
        }
        overload.pid = rows.Get<uint32_t>(3);
        overload.name = rows.Get<std::string>(4);
        overload.systemPermille = rows.Get<uint32_t>(5);
        overload.processPermille = rows.Get<uint32_t>(6);
        overload.threads = ThreadsOf(overload.number);
        overload.recorded = true;
    }
    return overloads;
}

std::vector<OverloadThread> HistoryTables::ThreadsOf(uint64_t overload) const {
    std::vector<OverloadThread> threads;
    for (Rows rows = database_.Query("SELECT pid, tid, name, run_ns, permille, stack FROM overload_threads "
                                     "WHERE overload = ? ORDER BY place",
                                     overload);
         rows.Next();) {
        OverloadThread &thread = threads.emplace_back();
        thread.pid = rows.Get<uint32_t>(0);
        thread.tid = rows.Get<uint32_t>(1);
        thread.name = rows.Get<std::string>(2);
        thread.runNs = rows.Get<uint64_t>(3);
        thread.permille = rows.Get<uint32_t>(4);
        if (!rows.IsNull(5)) {
            thread.stack = rows.Get<std::string>(5);
        }
    }
    return threads;
}

uint64_t HistoryTables::LastOverload() const {
    Rows rows = database_.Query("SELECT seq FROM sqlite_sequence WHERE name = 'overloads'");
    return rows.Next() ? rows.Get<uint64_t>(0) : 0;
}

std::vector<MinuteFigures> HistoryTables::Minutes(host::WallTime since) const {
    std::vector<MinuteFigures> minutes;
    for (Rows rows = database_.Query("SELECT time, busy, waiting, memory_kb, available_kb, swap_used_kb FROM minutes "
                                     "WHERE time >= ? ORDER BY time",
                                     ToMs(since));
         rows.Next();) {
        minutes.push_back({FromMs(rows.Get<int64_t>(0)), rows.Get<uint32_t>(1), rows.Get<uint32_t>(2),
                           rows.Get<uint64_t>(3), rows.Get<uint64_t>(4), rows.Get<uint64_t>(5)});
    }
    return minutes;
}

FaultMarks HistoryTables::ReadFaultMarks() const {
    FaultMarks marks;
    for (Rows rows = database_.Query("SELECT user, sequence, time_ns FROM fault_marks"); rows.Next();) {
        marks[rows.Get<uint32_t>(0)] = {rows.Get<uint64_t>(1), rows.Get<uint64_t>(2)};
    }
    return marks;
}

} // namespace tarnd
