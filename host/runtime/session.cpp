#include "host/runtime/session.h"

#include <fmt/format.h>

#include <cerrno>

#include "host/runtime/peer_process.h"
#include "host/runtime/server_core.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kRest(100);

} // namespace

Session::Session(Loop &loop, Descriptor fd, Peer peer, std::shared_ptr<User> user, Charge connection,
                 std::shared_ptr<ServerCore> server)
    : Link(loop, std::move(fd), server->GetLimits().messageBytes), server_(std::move(server)), peer_(std::move(peer)),
      user_(std::move(user)), connection_(std::move(connection)), number_(server_->GetTap().NextConnection()),
      queued_(server_->QuotaOf(Resource::kQueuedBytes).Take(*user_, 0)) {}

const Limits &Session::GetLimits() const {
    return server_->GetLimits();
}

std::shared_ptr<const Policy> Session::GetPolicy() const {
    return server_->GetPolicy();
}

Refusals &Session::GetRefusals() {
    return server_->GetRefusals();
}

bool Session::PeerLives() const {
    return !(peer_.process != nullptr ? HasEnded(*peer_.process) : HasEnded(ProcessOfPeer(Socket(), peer_.pid)));
}

bool Session::IsStopping() const {
    return server_->IsStopping();
}

// --- Requests

bool Session::KeepsPayload(const FrameHeader &header) {
    if (header.kind == FrameKind::kCancel) {
        return false;
    }
    return !admitted_.emplace_back(server_->Admit(peer_, *user_, header)).refusal.has_value();
}

void Session::Take(std::span<Frame> frames, Clock::time_point now) {
    const auto self = Self();
    for (Frame &frame : frames) {
        CopyReceived(frame);
        if (frame.header.kind == FrameKind::kCancel) {
            Request::Cancel(this, frame.header.id);
            continue;
        }
        const std::optional<Refusal> refusal = std::move(admitted_.front().refusal);
        const auto request = Request::Receive(self, std::move(frame), std::move(admitted_.front()), now);
        admitted_.pop_front();
        if (refusal.has_value()) {
            request->Refuse(*refusal);
            if (refusal->errCode == EBUSY && !user_->isPrivileged) {
                Rest();
            }
            continue;
        }
        const MutexLock lock(mutex_);
        waiting_.push_back(request);
    }
}

void Session::Begun() {
    server_->RequestBegins();
    const MutexLock lock(mutex_);
    ++inFlight_;
}

bool Session::MayRead() {
    const MutexLock lock(mutex_);
    return inFlight_ < GetLimits().requestsPerConnection && !rests_;
}

// Who asks for more than his share is to ask again later, and not to keep the server busy with telling him so.
void Session::Rest() {
    {
        const MutexLock lock(mutex_);
        if (std::exchange(rests_, true)) {
            return;
        }
    }
    GetLoop().At(Now() + kRest, [weak = std::weak_ptr(Self())] {
        if (const auto self = weak.lock()) {
            self->EndRest();
        }
    });
}

void Session::EndRest() {
    {
        const MutexLock lock(mutex_);
        rests_ = false;
        if (inFlight_ >= GetLimits().requestsPerConnection) {
            return; // one that ends reads on
        }
    }
    ReadOn();
}

void Session::Process() {
    server_->Serve(Self());
}

std::shared_ptr<Request> Session::NextWaiting() {
    const MutexLock lock(mutex_);
    if (waiting_.empty()) {
        return nullptr;
    }
    auto request = std::move(waiting_.front());
    waiting_.pop_front();
    return request;
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
    if (request->Method() == nullptr) {
        server_->ServeOwn(request);
    } else if (IsStopping()) {
        request->Refuse({Reason::kStopping, ECANCELED, "the server is stopping"});
    } else {
        request->Run();
    }
}

// --- Captures

std::string Session::Capture(Refusal &refusal) {
    const MutexLock lock(mutex_);
    if (capture_ == nullptr) {
        capture_ = server_->GetTap().Open();
    }
    if (capture_ == nullptr) {
        refusal = {Reason::kRequests, EBUSY, fmt::format("{} captures run already", Tap::kMostReaders)};
        return {};
    }
    isCapturing_ = true;
    return capture_->Take();
}

void Session::Copy(Direction direction, uint32_t length, std::span<const uint8_t> head,
                   std::span<const uint8_t> payload) {
    server_->GetTap().Add({.time = server_->WallNow(),
                           .connection = number_,
                           .process = static_cast<uint32_t>(peer_.pid),
                           .user = peer_.uid,
                           .direction = direction,
                           .length = length},
                          head, payload);
}

void Session::CopyReceived(const Frame &frame) {
    if (server_->GetTap().IsUsed() && !isCapturing_) {
        uint8_t head[kHeaderSize];
        WriteHeader(frame.header, head);
        Copy(Direction::kReceived, kHeaderSize + frame.header.length, head, frame.payload);
    }
}

void Session::SendFrame(std::span<const uint8_t> frame) {
    if (server_->GetTap().IsUsed() && !isCapturing_) {
        Copy(Direction::kSent, static_cast<uint32_t>(frame.size()), frame, {});
    }
    Send(frame);
}

void Session::Finished() {
    bool roomAgain;
    {
        const MutexLock lock(mutex_);
        roomAgain = inFlight_-- == GetLimits().requestsPerConnection && !rests_;
    }
    if (roomAgain) {
        ReadOn();
    }
    server_->RequestEnds();
}

void Session::OnEnd() {
    server_->SessionEnds(this);
    Request::CancelAll(this);
}

// Closed first, so that there is some to say so. Nobody may have been told to serve what waits.
void Session::OnNoMemory() {
    Close();
    while (const auto request = NextWaiting()) {
        request->GiveUp();
    }
    server_->CountCutOff(peer_, Reason::kNoMemory, "there is no memory for what it asks");
}

// --- Limits

void Session::Warn(std::string_view topic, const std::string &record) {
    server_->Warn(user_->uid, topic, record);
}

bool Session::MayLogCall() {
    return server_->MayLogCallOf(user_->uid);
}

void Session::CheckTimes(Clock::time_point now) {
    const Limits &limits = GetLimits();
    const Progress progress = GetProgress();
    if (progress.unsentBytes > 0 && now - progress.unsentSince > limits.writeTime) {
        server_->CountCutOff(peer_, Reason::kSlowReader,
                             fmt::format("it has not taken a reply within {} ms; {} bytes wait",
                                         limits.writeTime.count(), progress.unsentBytes));
        Close();
        return;
    }
    if (progress.isEnding) {
        End();
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
    if (queued_.Resize(bytes)) {
        return true;
    }
    server_->CountCutOff(peer_, Reason::kQueuedBytes,
                         fmt::format("{} bytes would wait until it takes them, beyond its user's share of {}", bytes,
                                     GetLimits().queuedBytes));
    return false;
}

void Session::OnBad(const FrameParser &parser) {
    Refuse(parser.ErrCode() == EMSGSIZE ? Reason::kMessageSize : Reason::kGarbage, parser.ErrCode(), parser.Reason());
}

void Session::Refuse(Reason reason, uint32_t errCode, const std::string &text) {
    server_->CountCutOff(peer_, reason, text);
    SendFrame(MakeRefusal(errCode, text));
    CloseWhenSent();
}

} // namespace host
