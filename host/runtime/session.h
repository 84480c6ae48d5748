// A client's connection, on the server's side.
#pragma once

#include <deque>
#include <string>

#include "host/runtime/link.h"
#include "host/runtime/request.h"

namespace host {

class Session;

// What the sessions of a server share.
class SessionHost {
public:
    virtual ~SessionHost() = default;
    // Null when the request can't be served; then an errno value and the reason.
    virtual IdlWrapperFn Find(const FrameHeader &header, uint32_t &errCode, std::string &reason) const = 0;
    virtual const Limits &GetLimits() const = 0;
    virtual void RequestBegins() = 0;
    virtual void RequestEnds() = 0;
    virtual void SessionEnds(Session *session) = 0;
};

class Session final : public Link, public RequestSource {
public:
    Session(asio::io_context &io, UniqueFd fd, std::shared_ptr<SessionHost> host);

    void SendAnswer(std::vector<uint8_t> frame) override { Send(std::move(frame)); }
    void Finished() override;
    const Limits &GetLimits() const override { return host_->GetLimits(); }
    asio::io_context &GetIo() override { return Io(); }
    const void *GetServer() const override { return host_.get(); }

private:
    bool Take(std::vector<Frame> &&frames) override;
    void Process() override;
    void OnBad(const FrameParser &parser) override;
    void OnEnd() override { host_->SessionEnds(this); }
    void Serve(Frame frame);
    bool CountDown();

    const std::shared_ptr<SessionHost> host_;
    std::mutex mutex_;
    std::deque<Frame> waiting_;
    uint32_t inFlight_ = 0; // waiting, running, or not yet answered
    bool reading_ = true;
    bool onewayRuns_ = false;
};

} // namespace host
