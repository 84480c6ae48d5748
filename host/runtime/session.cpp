#include "host/runtime/session.h"

#include <fmt/format.h>

#include <asio/post.hpp>
#include <cerrno>

#include "host/osal/log.h"

namespace host {

Session::Session(asio::io_context &io, UniqueFd fd, std::shared_ptr<SessionHost> host)
    : Link(io, std::move(fd), host->GetLimits().messageBytes), host_(std::move(host)) {}

bool Session::Take(std::vector<Frame> &&frames) {
    const std::lock_guard lock(mutex_);
    for (Frame &frame : frames) {
        host_->RequestBegins();
        ++inFlight_;
        waiting_.push_back(std::move(frame));
    }
    reading_ = inFlight_ < host_->GetLimits().requestsPerConnection;
    return reading_;
}

// Runs waiting requests on this thread, and has another thread take part where more than one may run.
void Session::Process() {
    while (true) {
        Frame frame;
        bool oneway;
        {
            const std::lock_guard lock(mutex_);
            if (waiting_.empty() || onewayRuns_) {
                return;
            }
            frame = std::move(waiting_.front());
            waiting_.pop_front();
            oneway = frame.header.kind == FrameKind::kOneway;
            onewayRuns_ = oneway;
            if (!oneway && !waiting_.empty()) {
                asio::post(Io(),
                           [self = std::static_pointer_cast<Session>(Link::shared_from_this())] { self->Process(); });
            }
        }
        Serve(std::move(frame));
        if (oneway) {
            const std::lock_guard lock(mutex_);
            onewayRuns_ = false;
        }
    }
}

void Session::Serve(Frame frame) {
    const FrameKind kind = frame.header.kind;
    uint32_t errCode = EBADMSG;
    std::string reason = "a client sends requests, not replies";
    IdlWrapperFn wrapper = nullptr;
    if (kind == FrameKind::kRequest || kind == FrameKind::kOneway) {
        wrapper = host_->Find(frame.header, errCode, reason);
    }
    const auto self = std::static_pointer_cast<Session>(Link::shared_from_this());
    const auto request = std::make_shared<Request>(self, std::move(frame));
    if (wrapper != nullptr) {
        request->Run(wrapper);
    } else {
        request->Refuse(errCode, reason);
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
        Read();
    }
    host_->RequestEnds();
}

void Session::OnBad(const FrameParser &parser) {
    FrameHeader header;
    header.kind = FrameKind::kError;
    if (parser.ErrCode() == EMSGSIZE) {
        header.id = parser.Header().id;
        header.typeHash = parser.Header().typeHash;
    }
    header.errCode = parser.ErrCode();
    const std::string text = fmt::format("connection refused: {}", parser.Reason());
    Log().warn("{}", text);
    Send(MakeFrame(header, {reinterpret_cast<const uint8_t *>(text.data()), text.size()}));
    CloseWhenSent();
}

} // namespace host
