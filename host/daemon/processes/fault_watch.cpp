#include "host/daemon/processes/fault_watch.h"

#include "host/daemon/processes/fault_text.h"
#include "host/osal/log.h"
#include "host/osal/text.h"

namespace tarnd {

namespace {

using host::blackbox::FaultHead;
using host::blackbox::RecordPlace;

// A user's records are numbered; in a box that was made anew from 1 on, but at a later time.
bool IsNew(const RecordPlace &place, const FaultMark &mark) {
    return place.sequence > mark.sequence || place.timeNs > mark.timeNs;
}

Event EventOf(const FaultHead &head) {
    const bool isCrash = head.kind == host::blackbox::FaultKind::kException;
    return {TimeOf(head), isCrash ? EventKind::kCrash : EventKind::kAssertion, head.pid, host::LineOfText(head.process),
            fmt::format("thread {} ({}): {}", head.tid, host::LineOfText(head.thread), CauseText(head))};
}

void LogFault(const Event &event) {
    host::Log().warn("{} of process {} ({}), {}", InfoOf(event.kind).name, event.pid, event.process, event.text);
}

} // namespace

FaultWatch::FaultWatch(std::filesystem::path directory, const ErasedFaults &erased, History &history, Timers &timers)
    : directory_(std::move(directory)), erased_(erased), history_(history), marks_(history.ReadFaultMarks()) {
    const auto look = [](void *self) { static_cast<FaultWatch *>(self)->Look(); };
    timers.Every(timers.Add("faults", look, this), kPeriod);
}

// Boxes are read when one of them was written to, and once more after that.
void FaultWatch::Look() {
    const uint64_t stamp = host::blackbox::StampOf(directory_);
    const bool changed = stamp != stamp_;
    if (changed || again_) {
        ReadNew();
    }
    stamp_ = stamp;
    again_ = changed;
}

void FaultWatch::ReadNew() {
    const auto isErased = [this](const RecordPlace &place) { return erased_.Has(place); };
    const auto all = [](const FaultHead &) { return true; };
    std::vector<RecordPlace> records = host::blackbox::List(directory_, isErased, all, [] {}).records;
    std::ranges::reverse(records); // the oldest first
    FaultMarks read;
    std::vector<Event> events;
    for (const RecordPlace &place : records) {
        if (!IsNew(place, marks_[place.user])) {
            continue;
        }
        if (const auto record = host::blackbox::Read(directory_, place)) {
            events.push_back(EventOf(record->head));
            LogFault(events.back());
        }
        read[place.user] = {std::max(read[place.user].sequence, place.sequence), place.timeNs};
    }
    for (const auto &[user, mark] : read) {
        marks_[user] = mark;
    }
    if (!read.empty()) {
        history_.AddFaults(std::move(events), read);
    }
}

} // namespace tarnd
