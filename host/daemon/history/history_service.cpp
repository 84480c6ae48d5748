#include "host/daemon/history/history_service.h"

#include <set>

#include "host/osal/error.h"
#include "host/osal/json_writer.h"
#include "host/osal/text.h"
#include "host/store/document.h"

namespace tarnd {

namespace {

using host::Document;
using host::JsonWriter;

// The members of a question that are known; others are of later clients.
class Asked {
public:
    explicit Asked(const std::string &text) : document_(text.empty() ? Document::Object{} : Document::Parse(text)) {
        static_cast<void>(document_.AsObject());
    }

    template <class T>
    T Get(std::string_view key, T otherwise) const {
        const Document *const value = document_.Find(key);
        return value == nullptr || value->IsNull() ? otherwise : document_.Get<T>(key);
    }
    std::vector<std::string> Texts(std::string_view key) const {
        std::vector<std::string> texts;
        if (document_.Find(key) != nullptr) {
            for (const Document &one : document_.ArrayAt(key)) {
                texts.push_back(one.As<std::string>());
            }
        }
        return texts;
    }

private:
    const Document document_;
};

int64_t Ms(host::WallTime time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

void Write(JsonWriter &json, const NumberedEvent &event) {
    json.Object([&] {
        json.Member("number", event.number);
        json.Member("time_ms", Ms(event.time));
        json.Member("kind", InfoOf(event.kind).name);
        json.Member("pid", event.pid);
        json.Member("process", host::LineOfText(event.process));
        json.Member("text", host::LineOfText(event.text));
    });
}

void Write(JsonWriter &json, const OverloadThread &thread) {
    json.Object([&] {
        json.Member("pid", thread.pid);
        json.Member("tid", thread.tid);
        json.Member("name", host::LineOfText(thread.name));
        json.Member("run_ns", thread.runNs);
        json.Member("permille", thread.permille);
        const bool readable = thread.stack.has_value() && host::IsText(*thread.stack);
        json.Member("stack", readable ? thread.stack : std::nullopt);
    });
}

void Write(JsonWriter &json, const Overload &overload, bool withThreads) {
    json.Object([&] {
        json.Member("number", overload.number);
        json.Member("of", overload.of == Overload::Of::kSystem ? "system" : "process");
        json.Member("began_ms", Ms(overload.begin));
        json.Member("ended_ms", overload.end ? std::optional(Ms(*overload.end)) : std::nullopt);
        json.Member("pid", overload.pid);
        json.Member("process", host::LineOfText(overload.name));
        json.Member("busy_permille", overload.systemPermille);
        json.Member("cpu_permille", overload.processPermille);
        if (withThreads) {
            json.Array("threads", [&] {
                for (const OverloadThread &thread : overload.threads) {
                    Write(json, thread);
                }
            });
        }
    });
}

// The kinds that are wanted; none of them: all.
std::set<EventKind> KindsIn(const Asked &asked) {
    std::set<EventKind> kinds;
    for (const std::string &name : asked.Texts("kinds")) {
        const EventKindInfo *const info = EventKindNamed(name);
        if (info == nullptr) {
            std::string known;
            for (const EventKindInfo &one : kEventKinds) {
                known += fmt::format(" {}", one.name);
            }
            host::Fail(EINVAL, fmt::format("kinds has \"{}\", expected of{}", host::LineOfText(name), known));
        }
        kinds.insert(info->kind);
    }
    return kinds;
}

// What a client asks for in its own words, at most so much.
std::chrono::milliseconds WaitIn(const Asked &asked) {
    const std::chrono::milliseconds most = HistoryService::kLongestWait;
    const auto asks = asked.Get<uint32_t>("wait_ms", 0);
    return std::min(std::chrono::milliseconds(asks), most);
}

} // namespace

bool HistoryService::Has(std::string_view method) const {
    return method == "Events" || method == "Overloads" || method == "Figures";
}

host::OwnMethods::Told HistoryService::Tell(const Question &question) const {
    try {
        if (question.method == "Events") {
            return TellEvents(question);
        }
        return {question.method == "Overloads" ? TellOverloads(question) : TellFigures(question)};
    } catch (const host::DocumentError &error) {
        host::Fail(EINVAL, error.what());
    }
}

// From the number that is asked for, or so many of the last; with another journal's number, from the beginning. Who may
// not read an event does not see it, nor wait for it, but goes on behind it.
host::OwnMethods::Told HistoryService::TellEvents(const Question &question) const {
    const Asked asked(question.text);
    const std::set<EventKind> kinds = KindsIn(asked);
    const auto most = static_cast<size_t>(std::min<uint64_t>(asked.Get<uint64_t>("most", kMostEvents), kMostEvents));
    const History::Extent extent = history_.TheExtent();
    const auto last = asked.Get<uint64_t>("last", UINT64_MAX);
    const bool isOther = asked.Get<std::string>("journal", extent.journal) != extent.journal;
    const uint64_t wanted = isOther ? 0 : asked.Get<uint64_t>("from", 0);
    const uint64_t from = std::max({wanted, extent.oldest, extent.end - std::min(last, extent.end)});
    const std::vector<NumberedEvent> events = history_.EventsFrom(from, most);
    const uint64_t next = events.empty() ? from : events.back().number + 1;
    JsonWriter json;
    json.Object([&] {
        json.Member("journal", extent.journal);
        json.Member("oldest", extent.oldest);
        json.Member("from", from);
        json.Member("next", next);
        json.Member("end", std::max(extent.end, next));
        json.Array("events", [&] {
            for (const NumberedEvent &event : events) {
                const std::string_view toldBy = InfoOf(event.kind).toldBy;
                if ((kinds.empty() || kinds.count(event.kind) != 0) && (toldBy.empty() || question.mayCall(toldBy))) {
                    Write(json, event);
                }
            }
        });
    });
    return {json.Text(), events.empty() && most != 0 && !isOther ? WaitIn(asked) : std::chrono::milliseconds(0)};
}

// One with its threads, or all without.
std::string HistoryService::TellOverloads(const Question &question) const {
    const Asked asked(question.text);
    const auto number = asked.Get<uint64_t>("number", 0);
    const bool withThreads = number != 0 && question.mayCall("DisCpuOvloadCallstackInfo");
    JsonWriter json;
    json.Object([&] {
        json.Array("overloads", [&] {
            for (const Overload::Of of : {Overload::Of::kSystem, Overload::Of::kProcess}) {
                for (const Overload &overload : history_.Overloads(of, HistoryTables::kOverloads)) {
                    if (number == 0 || overload.number == number) {
                        Write(json, overload, withThreads);
                    }
                }
            }
        });
    });
    return json.Text();
}

std::string HistoryService::TellFigures(const Question &question) const {
    const Asked asked(question.text);
    const auto since = std::chrono::milliseconds(asked.Get<int64_t>("since_ms", 0));
    JsonWriter json;
    json.Object([&] {
        json.Array("minutes", [&] {
            for (const MinuteFigures &minute :
                 history_.Minutes(host::NearestWallTime(std::chrono::duration_cast<std::chrono::seconds>(since)))) {
                json.Object([&] {
                    json.Member("time_ms", Ms(minute.time));
                    json.Member("busy_permille", minute.busyPermille);
                    json.Member("waiting_permille", minute.waitingPermille);
                    json.Member("memory_kb", minute.memoryKb);
                    json.Member("available_kb", minute.availableKb);
                    json.Member("swap_used_kb", minute.swapUsedKb);
                });
            }
        });
    });
    return json.Text();
}

} // namespace tarnd
