#include "host/runtime/async.h"

#include <fmt/format.h>

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <thread>
#include <unordered_map>

#include "host/osal/log.h"
#include "host/runtime/link.h"

namespace host {

// All but the state under the mutex belongs to the thread.
class AsyncCalls::Core {
public:
    Core(std::shared_ptr<const Transport> transport, const Limits &limits)
        : transport_(std::move(transport)), limits_(limits), work_(io_.get_executor()) {}

    void Start(Outgoing call, std::vector<uint8_t> frame, Done done);
    void Fail(CallOutcome &&outcome, Done done);
    void Shutdown();

private:
    struct Pending {
        Outgoing call;
        Done done;
        std::shared_ptr<Link> link;
        asio::steady_timer timer;
    };
    class Connection;

    bool Post(std::function<void()> work);
    void Begin(Outgoing &&call, std::vector<uint8_t> &&frame, Done &&done);
    std::shared_ptr<Link> LinkTo(const Outgoing &call, int &error);
    void End(uint64_t id, CallOutcome &&outcome);
    void EndAll(const Link *link, const std::function<CallOutcome(const Outgoing &)> &outcome);
    void Forget(const Link *link);
    void CloseAll();

    const std::shared_ptr<const Transport> transport_;
    const Limits limits_;
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::unordered_map<uint64_t, Pending> pending_;
    std::unordered_map<std::string, std::shared_ptr<Link>> links_; // by address
    std::mutex mutex_;
    std::thread thread_;
    bool stopping_ = false;
};

class AsyncCalls::Core::Connection final : public Link {
public:
    Connection(Core &core, UniqueFd fd) : Link(core.io_, std::move(fd), core.limits_.messageBytes), core_(core) {}

private:
    bool Take(std::vector<Frame> &&frames) override {
        for (Frame &frame : frames) {
            const uint64_t id = frame.header.id;
            core_.End(id, OutcomeOf(std::move(frame)));
        }
        return true;
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
    const bool posted = Post([this, call = std::move(call), frame = std::move(frame), shared]() mutable {
        Begin(std::move(call), std::move(frame), std::move(*shared));
    });
    if (!posted) {
        (*shared)(Failure(ECANCELED, "the client has shut down"));
    }
}

void AsyncCalls::Core::Fail(CallOutcome &&outcome, Done done) {
    if (!Post([outcome, done]() mutable { done(std::move(outcome)); })) {
        done(std::move(outcome));
    }
}

// False after Shutdown has begun.
bool AsyncCalls::Core::Post(std::function<void()> work) {
    const std::lock_guard lock(mutex_);
    if (stopping_) {
        return false;
    }
    if (!thread_.joinable()) {
        thread_ = std::thread([this] { io_.run(); });
    }
    asio::post(io_, std::move(work));
    return true;
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
    asio::steady_timer timer(io_, call.deadline);
    timer.async_wait([this, id](std::error_code aborted) {
        const auto found = aborted ? pending_.end() : pending_.find(id);
        if (found != pending_.end()) {
            End(id, TimedOut(found->second.call, *transport_));
        }
    });
    pending_.emplace(id, Pending{std::move(call), std::move(done), link, std::move(timer)});
    if (!link->Send(std::move(frame))) {
        End(id, Disconnected(pending_.at(id).call, *transport_));
    }
}

std::shared_ptr<Link> AsyncCalls::Core::LinkTo(const Outgoing &call, int &error) {
    // The other calls wait meanwhile; a listener that is there takes a connection at once.
    constexpr std::chrono::milliseconds kPatience(100);
    const std::string address = transport_->Address(call.service, call.pid);
    const auto found = links_.find(address);
    if (found != links_.end()) {
        return found->second;
    }
    const auto until = std::min(call.deadline, std::chrono::steady_clock::now() + kPatience);
    UniqueFd fd = transport_->Connect(call.service, call.pid, until, error);
    if (!fd) {
        return nullptr;
    }
    const auto link = std::make_shared<Connection>(*this, std::move(fd));
    links_.emplace(address, link);
    link->Read();
    return link;
}

// Whoever takes a call out of the table ends it.
void AsyncCalls::Core::End(uint64_t id, CallOutcome &&outcome) {
    const auto node = pending_.extract(id);
    if (!node.empty()) {
        node.mapped().timer.cancel();
        node.mapped().done(std::move(outcome));
    }
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
    work_.reset();
}

void AsyncCalls::Core::Shutdown() {
    std::thread thread;
    {
        const std::lock_guard lock(mutex_);
        if (!stopping_) {
            stopping_ = true;
            asio::post(io_, [this] { CloseAll(); });
            thread.swap(thread_);
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

void AsyncCalls::Shutdown() {
    core_->Shutdown();
}

} // namespace host
