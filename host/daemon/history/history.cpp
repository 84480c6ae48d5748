#include "host/daemon/history/history.h"

#include "host/osal/attempt.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

std::unique_ptr<HistoryTables> InMemory(const std::system_error &reason) {
    host::Log().error("{}; the history is kept in memory only", reason.what());
    return std::make_unique<HistoryTables>(std::filesystem::path());
}

std::unique_ptr<HistoryTables> OpenTables(const std::filesystem::path &stateDirectory) {
    try {
        return std::make_unique<HistoryTables>(stateDirectory.empty() ? stateDirectory : stateDirectory / "history.db");
    } catch (const std::system_error &error) {
        return InMemory(error);
    }
}

std::string BeginText(const Overload &overload) {
    return overload.of == Overload::Of::kSystem
               ? fmt::format("the system uses {} permille of its CPUs, and this process most: {} of one",
                             overload.systemPermille, overload.processPermille)
               : fmt::format("the watched process uses {} permille of a CPU; the system {} of its CPUs",
                             overload.processPermille, overload.systemPermille);
}

std::string EndText(const Overload &overload) {
    const auto lasted = std::chrono::duration_cast<std::chrono::seconds>(*overload.end - overload.begin);
    return fmt::format("the overload of {} that began {} s before is over",
                       overload.of == Overload::Of::kSystem ? "the system" : "the watched process", lasted.count());
}

} // namespace

// Damage that is found only now costs what is in the file, and nobody the answer.
template <class Read>
auto History::ReadTables(const Read &read) const {
    try {
        return read(*tables_);
    } catch (const host::DatabaseDamage &damage) {
        BeginAnew(damage);
        return read(*tables_);
    }
}

History::History(const std::filesystem::path &stateDirectory, const host::Clocks &clocks)
    : clocks_(clocks), tables_(OpenTables(stateDirectory)) {
    const host::MutexLock tables(tablesMutex_);
    const host::MutexLock lock(mutex_);
    lastOverload_ = ReadTables([](const HistoryTables &kept) { return kept.LastOverload(); });
}

History::~History() {
    Flush();
}

// --- What is to be written

void History::Add(Event event) {
    const host::MutexLock lock(mutex_);
    Enter(std::move(event));
}

void History::AddFaults(std::vector<Event> events, const FaultMarks &read) {
    const host::MutexLock lock(mutex_);
    for (const auto &[user, mark] : read) {
        waiting_.faultMarks[user] = mark;
    }
    for (Event &event : events) {
        Enter(std::move(event));
    }
    WriteSoon();
}

void History::Keep(Overload &overload) {
    const host::MutexLock lock(mutex_);
    if (overload.number == 0) {
        overload.number = ++lastOverload_;
        Enter({overload.begin, EventKind::kCpuOverloadBegins, overload.pid, overload.name, BeginText(overload)});
    }
    if (overload.end.has_value()) {
        Enter({*overload.end, EventKind::kCpuOverloadEnds, overload.pid, overload.name, EndText(overload)});
    }
    waiting_.overloads.push_back(overload);
    WriteSoon();
}

void History::AddMinute(const MinuteFigures &minute) {
    const host::MutexLock lock(mutex_);
    if (waiting_.minutes.size() == HistoryTables::kMinutes) {
        waiting_.minutes.erase(waiting_.minutes.begin());
    }
    waiting_.minutes.push_back(minute);
    WriteBy(clocks_.SteadyNow() + kLongest);
}

void History::Enter(Event event) {
    if (waiting_.events.size() == kMostWaiting) {
        host::Log().error("journal: an event is lost, {} wait to be written: {} of {} ({}): {}", kMostWaiting,
                          InfoOf(event.kind).name, event.process, event.pid, event.text);
        return;
    }
    if (event.time == host::WallTime{}) {
        event.time = clocks_.WallNow();
    }
    waiting_.events.push_back(std::move(event));
    WriteSoon();
}

void History::WriteSoon() {
    const host::SteadyTime now = clocks_.SteadyNow();
    WriteBy(written_ ? std::max(now, *written_ + kShortest) : now);
}

void History::WriteBy(host::SteadyTime due) {
    if (due_ && *due_ <= due) {
        return;
    }
    due_ = due;
    if (tellDue_) {
        tellDue_(due);
    }
}

// --- Writing

void History::OnDue(std::function<void(host::SteadyTime)> tell) {
    const host::MutexLock lock(mutex_);
    tellDue_ = std::move(tell);
    if (tellDue_ && due_) {
        tellDue_(*due_);
    }
}

void History::OnWritten(std::function<void()> tell) {
    const host::MutexLock lock(tellMutex_);
    tellWritten_ = std::move(tell);
}

// What was told may have been done meanwhile, with what came before it.
void History::RunDue() {
    {
        const host::MutexLock lock(mutex_);
        if (!due_ || clocks_.SteadyNow() < *due_) {
            return;
        }
    }
    Flush();
}

void History::Flush() {
    HistoryBatch batch = TakeBatch();
    if (batch.IsEmpty()) {
        return;
    }
    if (!Write(batch)) {
        PutBack(std::move(batch));
        return;
    }
    const host::MutexLock lock(tellMutex_);
    if (tellWritten_) {
        tellWritten_();
    }
}

HistoryBatch History::TakeBatch() {
    const host::MutexLock lock(mutex_);
    due_.reset();
    written_ = clocks_.SteadyNow();
    return std::exchange(waiting_, {});
}

// In front of what has come since.
void History::PutBack(HistoryBatch batch) {
    const host::MutexLock lock(mutex_);
    HistoryBatch since = std::exchange(waiting_, std::move(batch));
    for (Event &event : since.events) {
        Enter(std::move(event));
    }
    waiting_.overloads.insert(waiting_.overloads.end(), since.overloads.begin(), since.overloads.end());
    waiting_.minutes.insert(waiting_.minutes.end(), since.minutes.begin(), since.minutes.end());
    for (const auto &[user, mark] : since.faultMarks) {
        waiting_.faultMarks[user] = mark;
    }
    due_.reset();
    WriteBy(clocks_.SteadyNow() + kRetry);
}

bool History::Write(const HistoryBatch &batch) {
    const uint32_t error = host::Attempt("the history", [&] {
        const host::MutexLock lock(tablesMutex_);
        try {
            tables_->Write(batch);
        } catch (const host::DatabaseDamage &damage) {
            BeginAnew(damage);
            tables_->Write(batch);
        }
    });
    return error == 0;
}

void History::BeginAnew(const host::DatabaseDamage &damage) const {
    try {
        tables_->SetAside(host::ReasonOf(damage));
    } catch (const std::system_error &error) {
        tables_ = InMemory(error);
    }
}

// --- Reading

History::Extent History::TheExtent() const {
    const host::MutexLock lock(tablesMutex_);
    return ReadTables([](const HistoryTables &kept) {
        const auto [oldest, end] = kept.EventNumbers();
        return Extent{kept.JournalName(), oldest, end};
    });
}

std::vector<NumberedEvent> History::EventsFrom(uint64_t number, size_t most) const {
    const host::MutexLock lock(tablesMutex_);
    return ReadTables([&](const HistoryTables &kept) { return kept.EventsFrom(number, most); });
}

std::optional<Overload> History::Last(Overload::Of of) const {
    const std::vector<Overload> last = Overloads(of, 1);
    return last.empty() ? std::nullopt : std::optional(last.front());
}

std::vector<Overload> History::Overloads(Overload::Of of, size_t most) const {
    const host::MutexLock lock(tablesMutex_);
    return ReadTables([&](const HistoryTables &kept) { return kept.Overloads(of, most); });
}

// With those that are still to be written.
std::vector<MinuteFigures> History::Minutes(host::WallTime since) const {
    const host::MutexLock tables(tablesMutex_);
    std::vector<MinuteFigures> minutes = ReadTables([&](const HistoryTables &kept) { return kept.Minutes(since); });
    const host::MutexLock lock(mutex_);
    for (const MinuteFigures &minute : waiting_.minutes) {
        if (minute.time >= since) {
            minutes.push_back(minute);
        }
    }
    return minutes;
}

FaultMarks History::ReadFaultMarks() const {
    const host::MutexLock lock(tablesMutex_);
    return ReadTables([](const HistoryTables &kept) { return kept.ReadFaultMarks(); });
}

} // namespace tarnd
