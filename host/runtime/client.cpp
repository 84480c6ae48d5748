#include "host/runtime/client.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <utility>

#include "host/runtime/async.h"
#include "host/runtime/pool.h"

namespace host {
namespace {

std::atomic<uint64_t> lastId = 0;

void CopyName(char *field, size_t size, std::string_view name) {
    name.copy(field, size - 1);
}

uint32_t Milliseconds(std::chrono::milliseconds duration) {
    return static_cast<uint32_t>(std::clamp<int64_t>(duration.count(), 1, UINT32_MAX));
}

} // namespace

class Client::Core {
public:
    explicit Core(const ClientOptions &options)
        : options_(options), transport_(std::make_shared<Transport>(Directory(options.runDir))),
          async_(transport_, options.limits) {}

    CallOutcome Exchange(const CallRequest &call, FrameKind kind);
    uint64_t Start(const CallRequest &call, AsyncCalls::Done done);
    void Cancel(uint64_t call) { async_.Cancel(call); }
    void Fail(CallOutcome &&failure, AsyncCalls::Done done) { async_.Fail(std::move(failure), std::move(done)); }
    bool Knows(std::string_view service, uint32_t pid) const { return transport_->Knows(service, pid); }
    std::vector<uint32_t> Agents() const { return transport_->Agents(); }
    void RemoveDeadAgents() const { transport_->RemoveDeadAgents(); }
    void Forget(std::string_view service, uint32_t pid) { pool_.Forget({pid, service}); }
    const ClientOptions &Options() const { return options_; }
    void Shutdown() {
        async_.Shutdown();
        pool_.Clear();
    }

private:
    bool Prepare(const CallRequest &call, FrameKind kind, Outgoing &out, CallOutcome &refused) const;
    bool Try(Channel &channel, bool fresh, const Outgoing &out, const CallRequest &call, CallOutcome &outcome);

    const ClientOptions options_;
    const std::shared_ptr<const Transport> transport_;
    Pool pool_;
    AsyncCalls async_;
};

// False when the call can't go out.
bool Client::Core::Prepare(const CallRequest &call, FrameKind kind, Outgoing &out, CallOutcome &refused) const {
    const Limits &limits = options_.limits;
    const std::string_view socketOf = call.socketOf.empty() ? call.service : call.socketOf;
    if (call.service.size() >= kServiceSize || socketOf.size() >= kServiceSize || call.method.size() >= kMethodSize) {
        refused = Failure(EINVAL, fmt::format("{}.{}: a service's name has at most {} bytes, a method's {}",
                                              call.service, call.method, kServiceSize - 1, kMethodSize - 1));
        return false;
    }
    FrameHeader &header = out.header;
    CopyName(header.service, sizeof header.service, call.service);
    CopyName(header.method, sizeof header.method, call.method);
    CopyName(out.socketOf, sizeof out.socketOf, socketOf);
    out.pid = call.pid;
    out.timeout = std::min(call.deadline.count() <= 0 ? limits.deadline : call.deadline, limits.maxDeadline);
    out.begun = std::chrono::steady_clock::now();
    out.deadline = out.begun + out.timeout;
    if (call.request.size() > limits.messageBytes) {
        refused = Failure(EMSGSIZE, fmt::format("{}: request of {} bytes, expected at most {}", out.Label(*transport_),
                                                call.request.size(), limits.messageBytes));
        return false;
    }
    header.kind = kind;
    header.id = ++lastId;
    header.typeHash = call.requestHash;
    header.deadlineMs = Milliseconds(out.timeout);
    header.takes = kTakesExplanation;
    header.length = static_cast<uint32_t>(call.request.size());
    return true;
}

CallOutcome Client::Core::Exchange(const CallRequest &call, FrameKind kind) {
    Outgoing out;
    CallOutcome outcome;
    if (!Prepare(call, kind, out, outcome)) {
        return outcome;
    }
    const Pool::Target target(out.pid, out.socketOf);
    while (true) {
        auto channel = pool_.Take(target, out.begun);
        if (channel != nullptr && channel->HasEnded()) {
            continue;
        }
        const bool fresh = channel == nullptr;
        if (fresh) {
            Connected connection = transport_->Connect(out.socketOf, call.pid, out.deadline);
            if (!connection.socket) {
                return NotConnected(out, *transport_, connection);
            }
            channel = std::make_unique<Channel>(std::move(connection), options_.limits.replyBytes);
        }
        if (Try(*channel, fresh, out, call, outcome)) {
            if (outcome.errCode == 0 || outcome.errCode == ENOENT || outcome.errCode == EPROTOTYPE) {
                pool_.Give(target, std::move(channel), out.begun);
            }
            return outcome;
        }
    }
}

// False when the connection had ended before the request was out, so that another may be tried.
bool Client::Core::Try(Channel &channel, bool fresh, const Outgoing &out, const CallRequest &call,
                       CallOutcome &outcome) {
    uint8_t header[kHeaderSize];
    WriteHeader(out.header, header);
    std::string reason;
    Frame frame;
    int error = channel.Send(header, call.request, out.deadline);
    if (error == 0 && out.header.kind == FrameKind::kOneway) {
        outcome = {};
        return true;
    }
    if (error == 0) {
        error = channel.Receive(out.header.id, frame, out.deadline, reason);
    } else if (error == ECONNRESET) { // perhaps with a word of why
        error = channel.Receive(out.header.id, frame, Transport::Clock::now(), reason);
        if (error != 0 && !fresh) {
            return false;
        }
    }
    if (error == 0) {
        outcome = OutcomeOf(std::move(frame));
    } else if (error == ETIMEDOUT) {
        outcome = TimedOut(out, *transport_);
    } else if (error == ECONNRESET) {
        outcome = Disconnected(out, *transport_);
    } else {
        outcome = Failure(static_cast<uint32_t>(error), fmt::format("{}: {}", out.Label(*transport_), reason));
    }
    return true;
}

uint64_t Client::Core::Start(const CallRequest &call, AsyncCalls::Done done) {
    Outgoing out;
    CallOutcome refused;
    std::vector<uint8_t> frame;
    uint64_t id = 0;
    if (Prepare(call, FrameKind::kRequest, out, refused)) {
        id = out.header.id;
        frame = MakeFrame(out.header, call.request);
        async_.Start(std::move(out), std::move(frame), std::move(done));
    } else {
        async_.Fail(std::move(refused), std::move(done));
    }
    return id;
}

Client::Client(ClientOptions options) : core_(std::make_shared<Core>(options)) {}

Client::~Client() {
    GetCore()->Shutdown();
}

Client &Client::Default() {
    static Client client;
    return client;
}

std::shared_ptr<Client::Core> Client::GetCore() const {
    const MutexLock lock(mutex_);
    return core_;
}

void Client::Configure(ClientOptions options) {
    auto next = std::make_shared<Core>(options);
    {
        const MutexLock lock(mutex_);
        next.swap(core_);
    }
    next->Shutdown();
}

void Client::Shutdown() {
    Configure(GetCore()->Options());
}

CallOutcome Client::Call(const CallRequest &call) {
    return GetCore()->Exchange(call, FrameKind::kRequest);
}

CallOutcome Client::Call(std::string_view service, uint32_t pid, std::string_view method, uint32_t requestHash,
                         std::span<const uint8_t> request, std::chrono::milliseconds deadline) {
    return Call({service, pid, method, requestHash, request, deadline});
}

CallOutcome Client::Oneway(const CallRequest &call) {
    return GetCore()->Exchange(call, FrameKind::kOneway);
}

uint64_t Client::CallAsync(const CallRequest &call, std::function<void(CallOutcome &&)> done) {
    return GetCore()->Start(call, std::move(done));
}

void Client::Cancel(uint64_t call) {
    GetCore()->Cancel(call);
}

void Client::FailAsync(CallOutcome failure, std::function<void(CallOutcome &&)> done) {
    GetCore()->Fail(std::move(failure), std::move(done));
}

bool Client::Knows(std::string_view service, uint32_t pid) const {
    return GetCore()->Knows(service, pid);
}

std::vector<uint32_t> Client::Agents() const {
    return GetCore()->Agents();
}

void Client::RemoveDeadAgents() const {
    GetCore()->RemoveDeadAgents();
}

void Client::Forget(std::string_view service, uint32_t pid) {
    GetCore()->Forget(service, pid);
}

Limits Client::GetLimits() const {
    return GetCore()->Options().limits;
}

} // namespace host
