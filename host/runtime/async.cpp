#include "host/runtime/async.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "host/osal/log.h"
#include "host/runtime/link.h"

namespace host {

// What the mutex does not guard belongs to the thread, which the first call starts.
class AsyncCalls::Core {
public:
    Core(std::shared_ptr<const Transport> transport, const Limits &limits)
        : transport_(std::move(transport)), limits_(limits) {}

    void Start(Outgoing call, std::vector<uint8_t> frame, Done done);
    void Fail(CallOutcome &&outcome, Done done);
    void Cancel(uint64_t id);
    void Shutdown();

private:
    struct Pending {
        Outgoing call;
        Done done;
        std::shared_ptr<Link> link;
        uint64_t timer;
    };
    class Connection;

    int Post(std::function<void()> work);
    void Begin(Outgoing &&call, std::vector<uint8_t> &&frame, Done &&done);
    std::shared_ptr<Link> LinkTo(const Outgoing &call, int &error);
    void End(uint64_t id, CallOutcome &&outcome);
    void GiveUp(uint64_t id, const std::function<CallOutcome(const Outgoing &)> &outcome);
    void EndAll(const Link *link, const std::function<CallOutcome(const Outgoing &)> &outcome);
    void Forget(const Link *link);
    void CloseAll();

    const std::shared_ptr<const Transport> transport_;
    const Limits limits_;
    const SystemClocks clocks_;
    std::optional<Loop> loop_; // from the first call on
    std::unordered_map<uint64_t, Pending> pending_;
    std::unordered_map<std::string, std::shared_ptr<Link>> links_; // by address
    Mutex mutex_;
    std::thread thread_ TARN_GUARDED_BY(mutex_);
    bool stopping_ TARN_GUARDED_BY(mutex_) = false;
};

class AsyncCalls::Core::Connection final : public Link {
public:
    Connection(Core &core, Descriptor fd) : Link(*core.loop_, std::move(fd), core.limits_.replyBytes), core_(core) {}

private:
    void Take(std::span<Frame> frames, Clock::time_point) override {
        for (Frame &frame : frames) {
            const uint64_t id = frame.header.id;
            core_.End(id, OutcomeOf(std::move(frame)));
        }
    }

    void OnBad(const FrameParser &parser) override {
        const Transport &transport = *core_.transport_;
        const auto outcome = [&](const Outgoing &call) {
            return Failure(parser.ErrCode(), fmt::format("{}: {}", call.Label(transport), parser.Reason()));
        };
        if (parser.ErrCode() == EMSGSIZE) {
            const auto found = core_.pending_.find(parser.Header().id);
            if (found != core_.pending_.end()) {
                core_.End(parser.Header().id, outcome(found->second.call));
            }
        } else {
            core_.EndAll(this, outcome);
        }
        Close();
    }

    void OnEnd() override {
        core_.EndAll(this, [this](const Outgoing &call) { return Disconnected(call, *core_.transport_); });
        core_.Forget(this);
    }

    Core &core_;
};

void AsyncCalls::Core::Start(Outgoing call, std::vector<uint8_t> frame, Done done) {
    const auto shared = std::make_shared<Done>(std::move(done));
    const int error = Post([this, call = std::move(call), frame = std::move(frame), shared]() mutable {
        Begin(std::move(call), std::move(frame), std::move(*shared));
    });
    if (error == ECANCELED) {
        (*shared)(Failure(ECANCELED, "the client has shut down"));
    } else if (error != 0) {
        (*shared)(
            Failure(static_cast<uint32_t>(error), fmt::format("no asynchronous call: {}", strerrordesc_np(error))));
    }
}

void AsyncCalls::Core::Fail(CallOutcome &&outcome, Done done) {
    if (Post([outcome, done]() mutable { done(std::move(outcome)); }) != 0) {
        done(std::move(outcome));
    }
}

void AsyncCalls::Core::Cancel(uint64_t id) {
    Post([this, id] {
        GiveUp(id, [this](const Outgoing &call) {
            return Failure(ECANCELED, call.Label(*transport_) + ": the caller gave up");
        });
    });
}

// 0, ECANCELED after Shutdown has begun, or why the system refuses a thread or descriptors.
int AsyncCalls::Core::Post(std::function<void()> work) {
    const MutexLock lock(mutex_);
    if (stopping_) {
        return ECANCELED;
    }
    try {
        if (!loop_.has_value()) {
            loop_.emplace(clocks_);
        }
        if (!thread_.joinable()) {
            thread_ = std::thread([this] { loop_->Run(); });
        }
    } catch (const std::system_error &error) {
        return error.code().value();
    }
    loop_->Post(std::move(work));
    return 0;
}

void AsyncCalls::Core::Begin(Outgoing &&call, std::vector<uint8_t> &&frame, Done &&done) {
    if (std::chrono::steady_clock::now() >= call.deadline) {
        done(TimedOut(call, *transport_));
        return;
    }
    int error = 0;
    auto link = LinkTo(call, error);
    if (link == nullptr) {
        done(NotConnected(call, *transport_, error));
        return;
    }
    const uint64_t id = call.header.id;
    const uint64_t timer = loop_->At(call.deadline, [this, id] {
        GiveUp(id, [this](const Outgoing &late) { return TimedOut(late, *transport_); });
    });
    pending_.emplace(id, Pending{std::move(call), std::move(done), link, timer});
    if (!link->Send(frame)) {
        End(id, Disconnected(pending_.at(id).call, *transport_));
    }
}

std::shared_ptr<Link> AsyncCalls::Core::LinkTo(const Outgoing &call, int &error) {
    // The other calls wait meanwhile; a listener that is there takes a connection at once.
    constexpr std::chrono::milliseconds kPatience(100);
    const std::string address = transport_->Address(call.socketOf, call.pid);
    const auto found = links_.find(address);
    if (found != links_.end()) {
        return found->second;
    }
    const auto until = std::min(call.deadline, std::chrono::steady_clock::now() + kPatience);
    Descriptor fd = transport_->Connect(call.socketOf, call.pid, until, error);
    if (!fd) {
        return nullptr;
    }
    const auto link = std::make_shared<Connection>(*this, std::move(fd));
    if (!link->Open()) {
        error = errno;
        return nullptr;
    }
    links_.emplace(address, link);
    return link;
}

// Whoever takes a call out of the table ends it.
void AsyncCalls::Core::End(uint64_t id, CallOutcome &&outcome) {
    const auto node = pending_.extract(id);
    if (!node.empty()) {
        loop_->CancelTimer(node.mapped().timer);
        node.mapped().done(std::move(outcome));
    }
}

// Ends a call that the server may still be at work on, and tells the server.
void AsyncCalls::Core::GiveUp(uint64_t id, const std::function<CallOutcome(const Outgoing &)> &outcome) {
    const auto found = pending_.find(id);
    if (found == pending_.end()) {
        return;
    }
    FrameHeader header;
    header.kind = FrameKind::kCancel;
    header.id = id;
    found->second.link->Send(MakeFrame(header, {}));
    End(id, outcome(found->second.call));
}

void AsyncCalls::Core::EndAll(const Link *link, const std::function<CallOutcome(const Outgoing &)> &outcome) {
    std::vector<uint64_t> ids;
    for (const auto &[id, pending] : pending_) {
        if (link == nullptr || pending.link.get() == link) {
            ids.push_back(id);
        }
    }
    for (const uint64_t id : ids) {
        const auto found = pending_.find(id);
        if (found != pending_.end()) {
            End(id, outcome(found->second.call));
        }
    }
}

void AsyncCalls::Core::Forget(const Link *link) {
    std::erase_if(links_, [link](const auto &entry) { return entry.second.get() == link; });
}

void AsyncCalls::Core::CloseAll() {
    EndAll(nullptr, [this](const Outgoing &call) {
        return Failure(ECANCELED, call.Label(*transport_) + ": the client shut down");
    });
    const auto links = links_;
    for (const auto &entry : links) {
        entry.second->Close();
    }
    loop_->Stop();
}

void AsyncCalls::Core::Shutdown() {
    std::thread thread;
    {
        const MutexLock lock(mutex_);
        if (!stopping_) {
            stopping_ = true;
            thread.swap(thread_);
        }
        if (thread.joinable()) {
            loop_->Post([this] { CloseAll(); });
        }
    }
    if (thread.joinable()) {
        thread.join();
    }
}

AsyncCalls::AsyncCalls(std::shared_ptr<const Transport> transport, const Limits &limits)
    : core_(std::make_unique<Core>(std::move(transport), limits)) {}

AsyncCalls::~AsyncCalls() {
    Shutdown();
}

void AsyncCalls::Start(Outgoing call, std::vector<uint8_t> frame, Done done) {
    core_->Start(std::move(call), std::move(frame), std::move(done));
}

void AsyncCalls::Fail(CallOutcome &&outcome, Done done) {
    core_->Fail(std::move(outcome), std::move(done));
}

void AsyncCalls::Cancel(uint64_t id) {
    core_->Cancel(id);
}

void AsyncCalls::Shutdown() {
    core_->Shutdown();
}

} // namespace host
