#include "host/runtime/session.h"

#include <fmt/format.h>

#include <cerrno>

#include "host/runtime/server_core.h"

namespace host {

Session::Session(Loop &loop, Descriptor fd, Peer peer, std::shared_ptr<ServerCore> server)
    : Link(loop, std::move(fd), server->GetLimits().messageBytes), server_(std::move(server)), peer_(std::move(peer)) {}

const Limits &Session::GetLimits() const {
    return server_->GetLimits();
}

Refusals &Session::GetRefusals() {
    return server_->GetRefusals();
}

bool Session::IsStopping() const {
    return server_->IsStopping();
}

// --- Requests

void Session::Take(std::span<Frame> frames, Clock::time_point now) {
    const auto self = Self();
    for (Frame &frame : frames) {
        if (frame.header.kind == FrameKind::kCancel) {
            Request::Cancel(this, frame.header.id);
            continue;
        }
        const bool room = server_->RequestBegins();
        auto request = Request::Receive(self, std::move(frame), now);
        if (!room) {
            request->Refuse(
                {Reason::kRequests, EBUSY,
                 fmt::format("the server has {} requests in flight, as many as it takes", GetLimits().requests)});
        }
        const MutexLock lock(mutex_);
        ++inFlight_;
        waiting_.push_back(std::move(request));
    }
}

bool Session::MayRead() {
    const MutexLock lock(mutex_);
    return inFlight_ < GetLimits().requestsPerConnection;
}

void Session::Process() {
    server_->Serve(Self());
}

bool Session::ServeNext() {
    std::shared_ptr<Request> request;
    bool oneway;
    {
        const MutexLock lock(mutex_);
        if (waiting_.empty() || onewayRuns_) {
            return false;
        }
        request = std::move(waiting_.front());
        waiting_.pop_front();
        oneway = request->Header().kind == FrameKind::kOneway;
        onewayRuns_ = oneway;
        if (!oneway && !waiting_.empty()) {
            server_->ServeElsewhere(Self());
        }
    }
    Serve(request);
    const MutexLock lock(mutex_);
    onewayRuns_ = onewayRuns_ && !oneway;
    return oneway && !waiting_.empty();
}

void Session::Serve(const std::shared_ptr<Request> &request) {
    const FrameHeader &header = request->Header();
    Refusal refusal{Reason::kGarbage, EBADMSG, "a client sends requests, not replies"};
    if (header.kind != FrameKind::kRequest && header.kind != FrameKind::kOneway) {
        request->Refuse(refusal);
    } else if (header.service == kRuntimeService) {
        const std::string answer = server_->Introspect(peer_, header, refusal);
        answer.empty() ? request->Refuse(refusal) : request->Answer(answer);
    } else if (ServedMethod *const method = server_->Find(peer_, header, refusal)) {
        request->Run(*method);
    } else {
        request->Refuse(refusal);
    }
}

void Session::Finished() {
    bool roomAgain;
    {
        const MutexLock lock(mutex_);
        roomAgain = inFlight_-- == GetLimits().requestsPerConnection;
    }
    if (roomAgain) {
        ReadOn();
    }
    server_->RequestEnds();
}

void Session::OnEnd() {
    Request::CancelAll(this);
    server_->SessionEnds(this);
}

// --- Limits

void Session::CutOff(Reason reason, const std::string &why) {
    GetRefusals().Count(reason);
    Warn(fmt::format("connection cut off ({})", TextOf(reason).name),
         fmt::format("connection of process {} (user {}) cut off: {}", peer_.pid, peer_.uid, why));
}

void Session::Warn(const std::string &topic, const std::string &record) {
    server_->Warn(fmt::format("{}: user {}", topic, peer_.uid), record);
}

void Session::CheckTimes(Clock::time_point now) {
    const Limits &limits = GetLimits();
    const Progress progress = GetProgress();
    if (progress.unsentBytes > 0 && now - progress.unsentSince > limits.writeTime) {
        CutOff(Reason::kSlowReader, fmt::format("it has not taken a reply within {} ms; {} bytes wait",
                                                limits.writeTime.count(), progress.unsentBytes));
        Close();
        return;
    }
    if (progress.isEnding) {
        return;
    }
    if (progress.frameSince.has_value() && now - *progress.frameSince > limits.frameTime) {
        Refuse(Reason::kSilent, ETIMEDOUT, fmt::format("a frame not completed within {} ms", limits.frameTime.count()));
        return;
    }
    if (IsIdle() && progress.unsentBytes == 0 && now - progress.lastRead > limits.idleTime) {
        GetRefusals().Count(Reason::kIdle);
        Close();
    }
}

bool Session::IsIdle() {
    const MutexLock lock(mutex_);
    return inFlight_ == 0;
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
