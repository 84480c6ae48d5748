// A client's connection, on the server's side.
#pragma once

#include <atomic>
#include <deque>
#include <string>

#include "host/runtime/link.h"
#include "host/runtime/peer_log.h"
#include "host/runtime/policy.h"
#include "host/runtime/request.h"

namespace host {

class Session;

// What the sessions of a server share.
class SessionHost {
public:
    virtual ~SessionHost() = default;
    // Null and the reason when the request can't be served.
    virtual ServedMethod *Find(const Peer &peer, const FrameHeader &header, Refusal &refusal) = 0;
    // What the runtime's own service answers; empty and the reason when it does not.
    virtual std::string Introspect(const Peer &peer, const FrameHeader &header, Refusal &refusal) = 0;
    virtual const Limits &GetLimits() const = 0;
    virtual Refusals &GetRefusals() = 0;
    virtual PeerLog &GetPeerLog() = 0;
    virtual bool IsStopping() const = 0;
    // False when there are as many requests as the server takes; this one counts all the same.
    virtual bool RequestBegins() = 0;
    virtual void RequestEnds() = 0;
    // A session has a request to serve: on this thread where it may, else on one that gets free.
    virtual void Serve(std::shared_ptr<Session> session) = 0;
    // The same, on another thread.
    virtual void ServeElsewhere(std::shared_ptr<Session> session) = 0;
    virtual void SessionEnds(Session *session) = 0;
};

class Session final : public Link, public RequestSource {
public:
    Session(Loop &loop, UniqueFd fd, Peer peer, std::shared_ptr<SessionHost> host);

    const Peer &GetPeer() const { return peer_; }

    // Serves a request that waits, if there is one and it is its turn. True when another one's turn has come that
    // nobody else has been told of.
    bool ServeNext();

    // Cuts the connection off when it has exceeded a limit in time.
    void CheckTimes(Clock::time_point now);

    // Tells the peer why, and closes.
    void Refuse(Reason reason, uint32_t errCode, const std::string &text);

    void SendAnswer(std::span<const uint8_t> frame) override { Send(frame); }
    void Finished() override;
    const Limits &GetLimits() const override { return host_->GetLimits(); }
    Refusals &GetRefusals() override { return host_->GetRefusals(); }
    void Warn(const std::string &kind, const std::string &record) override;
    Loop &GetLoop() override { return Link::GetLoop(); }
    const void *GetServer() const override { return host_.get(); }
    bool IsStopping() const override { return host_->IsStopping(); }

private:
    bool Take(std::span<Frame> frames, Clock::time_point now) override;
    void Process() override;
    bool MayQueue(size_t bytes) override;
    void OnBad(const FrameParser &parser) override;
    void OnEnd() override;
    std::shared_ptr<Session> Self() { return std::static_pointer_cast<Session>(Link::shared_from_this()); }
    void CutOff(Reason reason, const std::string &why);
    void Serve(const std::shared_ptr<Request> &request);
    bool CountDown();

    const std::shared_ptr<SessionHost> host_;
    const Peer peer_;
    std::mutex mutex_;
    std::deque<std::shared_ptr<Request>> waiting_;
    uint32_t inFlight_ = 0; // waiting, running, or not yet answered
    bool reading_ = true;
    bool onewayRuns_ = false;
};

} // namespace host
