#include "host/relay/events.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <utility>

#include "host/osal/log.h"
#include "host/runtime/status.h"

namespace relay {

namespace {

using Json = nlohmann::json;

constexpr char kDaemon[] = "TarnSysdiagTarnd";
constexpr std::chrono::seconds kWait{60};  // for something to happen
constexpr std::chrono::seconds kAnswer{5}; // that an answer may take
constexpr uint64_t kPage = 200;            // events of an answer

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace

Events::Events(fleet::Connection &connection, const Config &config)
    : connection_(connection), config_(config), subject_(fleet::SubjectOf(config.device, "event")),
      client_({.runDir = config.runDir}) {
    thread_ = std::thread([this] { Run(); });
}

Events::~Events() {
    {
        const host::MutexLock lock(mutex_);
        stopping_ = true;
    }
    changed_.NotifyAll();
    client_.Shutdown();
    thread_.join();
}

void Events::Resume() {
    uint64_t call = 0;
    {
        const host::MutexLock lock(mutex_);
        isStale_ = true;
        call = call_;
    }
    changed_.NotifyAll();
    client_.Cancel(call);
}

bool Events::IsStopping() const {
    const host::MutexLock lock(mutex_);
    return stopping_;
}

bool Events::TakeStale() {
    const host::MutexLock lock(mutex_);
    return std::exchange(isStale_, false);
}

// False when it is time to end.
bool Events::Pause() {
    host::MutexLock lock(mutex_);
    changed_.WaitUntil(lock, std::chrono::steady_clock::now() + config_.retry,
                       [this]() TARN_REQUIRES(mutex_) { return stopping_ || isStale_; });
    return !stopping_;
}

// Once, until it is another.
void Events::Note(const std::string &trouble) {
    if (std::exchange(trouble_, trouble) != trouble) {
        host::Log().warn("events: {}", trouble);
    }
}

void Events::Run() {
    do {
        try {
            TakeStale();
            Position position = Find();
            while (CarrySome(position)) {
            }
        } catch (const std::exception &error) { // of the server, or a daemon that answers nonsense
            if (!IsStopping()) {
                Note(error.what());
            }
        }
    } while (Pause());
}

Events::Position Events::Find() const {
    const auto last = connection_.LastOf(fleet::kEventStream, subject_);
    if (last == nullptr) {
        return {};
    }
    const Json event = Json::parse(last->Payload());
    return {event.at("journal").get<std::string>(), event.at("number").get<uint64_t>() + 1, last->Sequence()};
}

// False when the position has to be found anew, or it is time to end.
bool Events::CarrySome(Position &position) {
    Json question{{"most", kPage}, {"wait_ms", std::chrono::milliseconds(kWait).count()}};
    if (!position.journal.empty()) {
        question["journal"] = position.journal;
        question["from"] = position.next;
    }
    const host::CallOutcome outcome = Ask(question.dump());
    if (IsStopping() || TakeStale()) {
        return false;
    }
    if (!outcome.Ok()) {
        Note(outcome.text);
        return false;
    }
    CarryPage(Json::parse(outcome.bytes), position);
    trouble_.clear();
    return true;
}

void Events::CarryPage(const Json &page, Position &position) {
    TellGap(page, position);
    for (const Json &event : page.at("events")) {
        Add(event, std::to_string(event.at("number").get<uint64_t>()), position);
    }
    position.next = page.at("next").get<uint64_t>();
}

// Of what is lost before the page.
void Events::TellGap(const Json &page, Position &position) {
    const auto journal = page.at("journal").get<std::string>();
    const auto from = page.at("from").get<uint64_t>();
    const bool isOther = journal != position.journal;
    const bool isFirst = position.journal.empty();
    if (isFirst || (!isOther && from <= position.next)) {
        position.journal = journal;
        return;
    }
    Json gap{{"kind", "gap"}, {"time_ms", NowMs()}, {"pid", 0}, {"process", ""}, {"number", from - 1}};
    if (isOther) {
        gap["text"] = "the daemon has another journal: what was not carried of the one before is lost";
        gap["lost"] = nullptr;
    } else {
        gap["lost"] = from - position.next;
        gap["text"] = fmt::format("the events {} to {} are lost: the journal kept them no longer than the server was "
                                  "away",
                                  position.next, from - 1);
    }
    host::Log().warn("events: {}", gap.at("text").get<std::string>());
    position.journal = journal;
    Add(gap, fmt::format("gap.{}-{}", isOther ? 0 : position.next, from - 1), position);
}

// The stream takes it only behind what it has had last of this device, so that nothing is there twice, whatever was
// under way when a connection broke.
void Events::Add(const Json &event, const std::string &id, Position &position) {
    Json carried = event;
    carried["device"] = config_.device;
    carried["journal"] = position.journal;
    const fleet::Message message(subject_, carried.dump(-1, ' ', false, Json::error_handler_t::replace));
    position.sequence = connection_.Add(
        message, fleet::kEventStream, fmt::format("{}.{}.{}", config_.device, position.journal, id), position.sequence);
    position.next = event.at("number").get<uint64_t>() + 1;
}

host::CallOutcome Events::Ask(const std::string &question) {
    auto answer = std::make_shared<std::promise<host::CallOutcome>>();
    const uint64_t call =
        client_.CallAsync({.service = host::kRuntimeService,
                           .method = "Events",
                           .request = {reinterpret_cast<const uint8_t *>(question.data()), question.size()},
                           .deadline = kWait + kAnswer,
                           .socketOf = kDaemon},
                          [answer](host::CallOutcome &&outcome) { answer->set_value(std::move(outcome)); });
    bool isWanted = true;
    {
        const host::MutexLock lock(mutex_);
        call_ = call;
        isWanted = !isStale_ && !stopping_;
    }
    if (!isWanted) {
        client_.Cancel(call);
    }
    host::CallOutcome outcome = answer->get_future().get();
    const host::MutexLock lock(mutex_);
    call_ = 0;
    return outcome;
}

} // namespace relay
