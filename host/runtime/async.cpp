#include "host/runtime/async.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "host/osal/log.h"
#include "host/runtime/peer_process.h"

namespace host {

class AsyncCalls::Connection final : public Link {
public:
    Connection(AsyncCalls &calls, Connected connected)
        : Link(*calls.loop_, std::move(connected.socket), calls.limits_.replyBytes), calls_(calls),
          process_(std::move(connected.process)) {}

    // Whether it was made to an agent whose process has ended.
    bool IsLeftBehind() const { return process_ && HasEnded(process_); }

private:
    void Take(std::span<Frame> frames, Clock::time_point) override {
        for (Frame &frame : frames) {
            const uint64_t id = frame.header.id;
            calls_.End(id, OutcomeOf(std::move(frame)));
        }
    }

    void OnBad(const FrameParser &parser) override {
        const Transport &transport = *calls_.transport_;
        const auto outcome = [&](const Outgoing &call) {
            return Failure(parser.ErrCode(), fmt::format("{}: {}", call.Label(transport), parser.Reason()));
        };
        if (parser.ErrCode() == EMSGSIZE) {
            const auto found = calls_.pending_.find(parser.Header().id);
            if (found != calls_.pending_.end()) {
                calls_.End(parser.Header().id, outcome(found->second.call));
            }
        } else {
            calls_.EndAll(this, outcome);
        }
        Close();
    }

    void OnEnd() override {
        calls_.EndAll(this, [this](const Outgoing &call) { return Disconnected(call, *calls_.transport_); });
        calls_.Forget(this);
    }

    AsyncCalls &calls_;
    const Descriptor process_;
};

void AsyncCalls::Start(Outgoing call, std::vector<uint8_t> frame, Done done) {
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

void AsyncCalls::Fail(CallOutcome &&outcome, Done done) {
    if (Post([outcome, done]() mutable { done(std::move(outcome)); }) != 0) {
        done(std::move(outcome));
    }
}

void AsyncCalls::Cancel(uint64_t id) {
    Post([this, id] {
        GiveUp(id, [this](const Outgoing &call) {
            return Failure(ECANCELED, call.Label(*transport_) + ": the caller gave up");
        });
    });
}

// 0, ECANCELED after Shutdown has begun, or why the system refuses a thread or descriptors.
int AsyncCalls::Post(std::function<void()> work) {
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

void AsyncCalls::Begin(Outgoing &&call, std::vector<uint8_t> &&frame, Done &&done) {
    if (std::chrono::steady_clock::now() >= call.deadline) {
        done(TimedOut(call, *transport_));
        return;
    }
    Connected failed;
    auto link = LinkTo(call, failed);
    if (link == nullptr) {
        done(NotConnected(call, *transport_, failed));
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

std::shared_ptr<Link> AsyncCalls::LinkTo(const Outgoing &call, Connected &failed) {
    // The other calls wait meanwhile; a listener that is there takes a connection at once.
    constexpr std::chrono::milliseconds kPatience(100);
    const std::string address = transport_->Address(call.socketOf, call.pid);
    const auto found = links_.find(address);
    if (found != links_.end() && !found->second->IsLeftBehind()) {
        return found->second;
    }
    const auto until = std::min(call.deadline, std::chrono::steady_clock::now() + kPatience);
    Connected connected = transport_->Connect(call.socketOf, call.pid, until);
    if (!connected.socket) {
        failed = std::move(connected);
        return nullptr;
    }
    const auto link = std::make_shared<Connection>(*this, std::move(connected));
    if (!link->Open()) {
        failed.error = errno;
        return nullptr;
    }
    const auto before = std::exchange(links_[address], link);
    if (before != nullptr) { // which ends its calls
        before->Close();
    }
    return link;
}

// Whoever takes a call out of the table ends it.
void AsyncCalls::End(uint64_t id, CallOutcome &&outcome) {
    const auto node = pending_.extract(id);
    if (!node.empty()) {
        loop_->CancelTimer(node.mapped().timer);
        node.mapped().done(std::move(outcome));
    }
}

// Ends a call that the server may still be at work on, and tells the server.
void AsyncCalls::GiveUp(uint64_t id, const std::function<CallOutcome(const Outgoing &)> &outcome) {
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

void AsyncCalls::EndAll(const Link *link, const std::function<CallOutcome(const Outgoing &)> &outcome) {
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

void AsyncCalls::Forget(const Link *link) {
    std::erase_if(links_, [link](const auto &entry) { return entry.second.get() == link; });
}

void AsyncCalls::CloseAll() {
    EndAll(nullptr, [this](const Outgoing &call) {
        return Failure(ECANCELED, call.Label(*transport_) + ": the client shut down");
    });
    const auto links = links_;
    for (const auto &entry : links) {
        entry.second->Close();
    }
    loop_->Stop();
}

void AsyncCalls::Shutdown() {
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
    : transport_(std::move(transport)), limits_(limits) {}

AsyncCalls::~AsyncCalls() {
    Shutdown();
}

} // namespace host
