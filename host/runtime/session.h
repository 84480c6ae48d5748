// A client's connection, on the server's side.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <string>

#include "host/runtime/link.h"
#include "host/runtime/policy.h"
#include "host/runtime/request.h"
#include "host/runtime/tap.h"

namespace host {

class Session final : public Link {
public:
    // The charge is for the connection.
    Session(Loop &loop, Descriptor fd, Peer peer, std::shared_ptr<User> user, Charge connection,
            std::shared_ptr<ServerCore> server);

    User &GetUser() const { return *user_; }
    const Peer &GetPeer() const { return peer_; }
    // Whether the peer's process is still there, so that its number is no other's.
    bool PeerLives() const;

    // Serves a request that waits, if there is one and it is its turn. True when another one's turn has come that
    // nobody else has been told of.
    bool ServeNext() TARN_EXCLUDES(mutex_);

    // Cuts the connection off when it has exceeded a limit in time.
    void CheckTimes(Clock::time_point now) TARN_EXCLUDES(mutex_);

    // Tells the peer why, and closes.
    void Refuse(Reason reason, uint32_t errCode, const std::string &text);

    // --- For its requests

    void Begun() TARN_EXCLUDES(mutex_);
    // One has ended: it has been answered, and its wrapper has returned.
    void Finished() TARN_EXCLUDES(mutex_);
    Clock::time_point Now() const { return GetLoop().Now(); }
    const Limits &GetLimits() const;
    std::shared_ptr<const Policy> GetPolicy() const;
    Refusals &GetRefusals();
    // In the log, of this peer.
    void Warn(std::string_view topic, const std::string &record);
    bool MayLogCall();
    using Link::GetLoop;
    // What Capture answers; empty and the reason where there are enough captures.
    std::string Capture(Refusal &refusal) TARN_EXCLUDES(mutex_);
    // A frame of an answer.
    void SendFrame(std::span<const uint8_t> frame);
    const ServerCore &GetServer() const { return *server_; }
    bool IsStopping() const;

private:
    bool KeepsPayload(const FrameHeader &header) override;
    void Take(std::span<Frame> frames, Clock::time_point now) override TARN_EXCLUDES(mutex_);
    void Process() override;
    bool MayRead() override TARN_EXCLUDES(mutex_);
    void Rest() TARN_EXCLUDES(mutex_);
    void EndRest() TARN_EXCLUDES(mutex_);
    bool MayQueue(size_t bytes) override;
    void OnBad(const FrameParser &parser) override;
    void OnEnd() override;
    void OnNoMemory() override;
    std::shared_ptr<Session> Self() { return std::static_pointer_cast<Session>(shared_from_this()); }
    std::shared_ptr<Request> NextWaiting() TARN_EXCLUDES(mutex_);
    void Serve(const std::shared_ptr<Request> &request);
    void Copy(Direction direction, uint32_t length, std::span<const uint8_t> head, std::span<const uint8_t> payload);
    void CopyReceived(const Frame &frame);
    bool IsIdle() TARN_EXCLUDES(mutex_);

    const std::shared_ptr<ServerCore> server_;
    const Peer peer_;
    const std::shared_ptr<User> user_;
    const Charge connection_;
    const uint64_t number_;                 // of the connection, for captures
    std::atomic<bool> isCapturing_ = false; // what goes over it is not captured itself
    Charge queued_;                         // what is unsent, under the link's lock
    std::deque<Admission> admitted_;        // of the frames that are to be taken, the reader's
    Mutex mutex_;                           // taken after the link's
    std::deque<std::shared_ptr<Request>> waiting_ TARN_GUARDED_BY(mutex_);
    uint32_t inFlight_ TARN_GUARDED_BY(mutex_) = 0; // waiting, running, or not yet answered
    bool onewayRuns_ TARN_GUARDED_BY(mutex_) = false;
    bool rests_ TARN_GUARDED_BY(mutex_) = false;
    std::unique_ptr<Tap::Reader> capture_ TARN_GUARDED_BY(mutex_); // from the first request for one on
};

} // namespace host
