#include "host/runtime/session.h"

#include <fmt/format.h>

#include <cerrno>

namespace host {

Session::Session(Loop &loop, UniqueFd fd, Peer peer, std::shared_ptr<SessionHost> host)
    : Link(loop, std::move(fd), host->GetLimits().messageBytes), host_(std::move(host)), peer_(std::move(peer)) {}

bool Session::Take(std::span<Frame> frames, Clock::time_point now) {
    const auto self = Self();
    for (Frame &frame : frames) {
        if (frame.header.kind == FrameKind::kCancel) {
            Request::Cancel(this, frame.header.id);
            continue;
        }
        const bool room = host_->RequestBegins();
        auto request = Request::Receive(self, std::move(frame), now);
        if (!room) {
            request->Refuse({Reason::kRequests, EBUSY,
                             fmt::format("the server has {} requests in flight, as many as it takes",
                                         host_->GetLimits().requests)});
        }
        const std::lock_guard lock(mutex_);
        ++inFlight_;
        waiting_.push_back(std::move(request));
    }
    const std::lock_guard lock(mutex_);
    reading_ = inFlight_ < host_->GetLimits().requestsPerConnection;
    return reading_;
}

void Session::Process() {
    host_->Serve(Self());
}

bool Session::ServeNext() {
    std::shared_ptr<Request> request;
    bool oneway;
    {
        const std::lock_guard lock(mutex_);
        if (waiting_.empty() || onewayRuns_) {
            return false;
        }
        request = std::move(waiting_.front());
        waiting_.pop_front();
        oneway = request->Header().kind == FrameKind::kOneway;
        onewayRuns_ = oneway;
        if (!oneway && !waiting_.empty()) {
            host_->ServeElsewhere(Self());
        }
    }
    Serve(request);
    const std::lock_guard lock(mutex_);
    onewayRuns_ = onewayRuns_ && !oneway;
    return oneway && !waiting_.empty();
}

void Session::Serve(const std::shared_ptr<Request> &request) {
    const FrameHeader &header = request->Header();
    Refusal refusal{Reason::kGarbage, EBADMSG, "a client sends requests, not replies"};
    if (header.kind != FrameKind::kRequest && header.kind != FrameKind::kOneway) {
        request->Refuse(refusal);
    } else if (header.service == kRuntimeService) {
        const std::string answer = host_->Introspect(peer_, header, refusal);
        answer.empty() ? request->Refuse(refusal) : request->Answer(answer);
    } else if (ServedMethod *const method = host_->Find(peer_, header, refusal)) {
        request->Run(*method);
    } else {
        request->Refuse(refusal);
    }
}

bool Session::CountDown() {
    const std::lock_guard lock(mutex_);
    --inFlight_;
    const bool resume = !reading_ && inFlight_ < host_->GetLimits().requestsPerConnection;
    reading_ = reading_ || resume;
    return resume;
}

void Session::Finished() {
    if (CountDown()) {
        ReadOn();
    }
    host_->RequestEnds();
}

void Session::OnEnd() {
    Request::CancelAll(this);
    host_->SessionEnds(this);
}

void Session::CutOff(Reason reason, const std::string &why) {
    GetRefusals().Count(reason);
    Warn(fmt::format("connection cut off ({})", TextOf(reason).name),
         fmt::format("connection of process {} (user {}) cut off: {}", peer_.pid, peer_.uid, why));
}

void Session::Warn(const std::string &kind, const std::string &record) {
    host_->GetPeerLog().Warn(fmt::format("{}: user {}", kind, peer_.uid), record);
}

void Session::CheckTimes(Clock::time_point now) {
    const Limits &limits = GetLimits();
    const State state = GetState();
    if (state.unsentBytes > 0 && now - state.unsentSince > limits.writeTime) {
        CutOff(Reason::kSlowReader, fmt::format("it has not taken a reply within {} ms; {} bytes wait",
                                                limits.writeTime.count(), state.unsentBytes));
        Close();
        return;
    }
    if (state.closing) {
        return;
    }
    if (state.inFrame && now - state.frameSince > limits.frameTime) {
        Refuse(Reason::kSilent, ETIMEDOUT, fmt::format("a frame not completed within {} ms", limits.frameTime.count()));
        return;
    }
    bool busy;
    {
        const std::lock_guard lock(mutex_);
        busy = inFlight_ > 0;
    }
    if (!busy && state.unsentBytes == 0 && now - state.lastRead > limits.idleTime) {
        GetRefusals().Count(Reason::kIdle);
        Close();
    }
}

bool Session::MayQueue(size_t bytes) {
    const Limits &limits = GetLimits();
    if (bytes <= limits.queuedBytes) {
        return true;
    }
    CutOff(Reason::kQueuedBytes,
           fmt::format("{} bytes would wait until it takes them, expected at most {}", bytes, limits.queuedBytes));
    return false;
}

void Session::OnBad(const FrameParser &parser) {
    Refuse(parser.ErrCode() == EMSGSIZE ? Reason::kMessageSize : Reason::kGarbage, parser.ErrCode(), parser.Reason());
}

void Session::Refuse(Reason reason, uint32_t errCode, const std::string &text) {
    FrameHeader header;
    header.kind = FrameKind::kError;
    header.errCode = errCode;
    CutOff(reason, text);
    const std::string whole = "connection refused: " + text;
    Send(MakeFrame(header, {reinterpret_cast<const uint8_t *>(whole.data()), whole.size()}));
    CloseWhenSent();
}

} // namespace host
