#include "host/relay/requests.h"

#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "host/meaning/groups.h"
#include "host/osal/log.h"
#include "host/runtime/status.h"

namespace relay {

namespace {

host::CallOutcome Refused(int error, std::string text) {
    host::CallOutcome outcome;
    outcome.errCode = static_cast<uint32_t>(error);
    outcome.text = std::move(text);
    return outcome;
}

std::string Label(const fleet::Request &request) {
    return fmt::format("{}.{}", request.service, request.method);
}

std::string Who(const fleet::Request &request) {
    return request.caller.empty() ? "somebody without a name" : request.caller;
}

// What changes something on the device.
bool IsLogged(host::Group group) {
    return group == host::Group::kSettings || group == host::Group::kCommands;
}

constexpr char kDaemon[] = "TarnSysdiagTarnd";

} // namespace

Requests::Requests(fleet::Connection &connection, const Config &config)
    : connection_(connection), config_(config), calls_(fleet::SubjectOf(config.device, "call.*.*")),
      cancels_(fleet::SubjectOf(config.device, "cancel")), client_({.runDir = config.runDir}) {
    connection_.Subscribe(calls_, [this](const fleet::Message &message) { Take(message); });
    connection_.Subscribe(cancels_, [this](const fleet::Message &message) { GiveUp(std::string(message.Payload())); });
}

Requests::~Requests() {
    connection_.Unsubscribe(calls_);
    connection_.Unsubscribe(cancels_);
    client_.Shutdown(); // which ends what is in flight
    log_.Flush();
}

void Requests::Refuse(std::string reason) {
    const host::MutexLock lock(mutex_);
    refusal_ = std::move(reason);
}

Requests::Counts Requests::GetCounts() const {
    const host::MutexLock lock(mutex_);
    return counts_;
}

void Requests::Take(const fleet::Message &message) {
    const std::string reply = message.Reply();
    {
        const host::MutexLock lock(mutex_);
        ++counts_.requests;
    }
    fleet::Request request;
    try {
        request = fleet::RequestOf(message);
    } catch (const std::invalid_argument &error) {
        Reply(reply, Refused(EBADMSG, fmt::format("{}: {}", message.Subject(), error.what())));
        return;
    }
    if (const host::CallOutcome refused = Check(request); !refused.Ok()) {
        LogRefusal(request, refused);
        Reply(reply, refused);
        return;
    }
    PassOn(request, reply);
}

// A method that this relay does not know may do anything, and so does one of a service that it does not know.
host::CallOutcome Requests::Check(const fleet::Request &request) const {
    const host::Group group = host::GroupOf(request.method);
    if (!config_.groups.contains(group)) {
        return Refused(EACCES, fmt::format("{}: the relay of {} passes on no method of the group {}", Label(request),
                                           config_.device, host::NameOf(group)));
    }
    const host::MutexLock lock(mutex_);
    if (!refusal_.empty()) {
        return Refused(ENOTUNIQ, fmt::format("{}: {}", Label(request), refusal_));
    }
    if (inFlight_.size() >= config_.requests) {
        return Refused(EBUSY, fmt::format("{}: the relay of {} has {} requests in flight, and takes no more",
                                          Label(request), config_.device, config_.requests));
    }
    return {};
}

// The answer may be there before the call has its number here.
void Requests::PassOn(const fleet::Request &request, const std::string &reply) {
    uint64_t number = 0;
    {
        const host::MutexLock lock(mutex_);
        number = ++last_;
        replies_.emplace(number, reply);
        inFlight_[reply.empty() ? std::to_string(number) : reply] = 0;
    }
    const bool isLogged = IsLogged(host::GroupOf(request.method));
    const std::string record = isLogged ? fmt::format("{}, for {} over the fleet", Label(request), Who(request)) : "";
    const bool isOwn = request.service == host::kRuntimeService && request.socketOf.empty();
    const uint64_t call = client_.CallAsync(
        {.service = request.service,
         .pid = request.pid,
         .method = request.method,
         .requestHash = request.typeHash,
         .request = {reinterpret_cast<const uint8_t *>(request.message.data()), request.message.size()},
         .deadline = request.deadline,
         .socketOf = isOwn ? std::string_view(kDaemon) : std::string_view(request.socketOf)},
        [this, number, reply, record](host::CallOutcome &&outcome) {
            {
                const host::MutexLock lock(mutex_);
                replies_.erase(number);
                inFlight_.erase(reply.empty() ? std::to_string(number) : reply);
            }
            if (!record.empty()) {
                host::Log().info("{}: {}", record, outcome.Ok() ? "done" : outcome.text);
            }
            Reply(reply, outcome);
        });
    const host::MutexLock lock(mutex_);
    if (replies_.contains(number)) {
        inFlight_[reply] = call;
    }
}

void Requests::GiveUp(const std::string &reply) {
    uint64_t call = 0;
    {
        const host::MutexLock lock(mutex_);
        const auto found = inFlight_.find(reply);
        call = found == inFlight_.end() ? 0 : found->second;
    }
    if (call != 0) {
        client_.Cancel(call);
    }
}

void Requests::Reply(const std::string &to, const host::CallOutcome &outcome) {
    if (!outcome.Ok()) {
        const host::MutexLock lock(mutex_);
        ++counts_.errors;
        counts_.lastError = outcome.text;
    }
    if (to.empty()) { // one way
        return;
    }
    try {
        for (const fleet::Message &part : fleet::ToMessages(outcome, to, connection_.MostPayload())) {
            connection_.Publish(part);
        }
    } catch (const fleet::Error &error) {
        host::Log().debug("an answer is lost: {}", error.what());
    }
}

void Requests::LogRefusal(const fleet::Request &request, const host::CallOutcome &outcome) {
    log_.Warn(0, "refused over the fleet", fmt::format("{}: refused for {}", outcome.text, Who(request)),
              host::PeerLog::Clock::now());
}

} // namespace relay
