// A connection that carries frames both ways, driven by a loop.
#pragma once

#include <array>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "host/runtime/loop.h"
#include "host/runtime/protocol.h"
#include "host/runtime/transport.h"

namespace host {

// A side derives from it. All functions are thread-safe; one thread reads at a time.
class Link : public Watched, public std::enable_shared_from_this<Link> {
public:
    using Clock = Loop::Clock;

    Link(Loop &loop, UniqueFd fd, uint32_t payloadLimit);
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    // Once: begins to read. False when the system refuses, with errno set.
    bool Open();

    // After Take has returned false.
    void ReadOn();

    // Sends now what the socket takes, the rest when it takes more. False when the link is closed.
    bool Send(std::span<const uint8_t> bytes);

    void Close();
    void CloseWhenSent();
    bool Unsent() const;

protected:
    // What waits to be done by either side, for limits. A moment is that at which it began to wait.
    struct State {
        bool closing = false;
        bool inFrame = false; // the peer has begun a frame; while paused, it is not its fault
        Clock::time_point frameSince;
        size_t unsentBytes = 0;
        Clock::time_point unsentSince; // of the first message
        Clock::time_point lastRead;
    };
    State GetState() const;

    // Takes the frames of one read, which came at that moment, and says whether to read on. Process() follows when
    // another thread may read.
    virtual bool Take(std::span<Frame> frames, Clock::time_point now) = 0;
    virtual void Process() {}
    // Whether so much may be added to what is unsent.
    virtual bool MayQueue(size_t) { return true; }
    // The peer sent what is no frame, or one too large. Nothing more is read.
    virtual void OnBad(const FrameParser &parser) = 0;
    // Once, when the connection has ended for whatever reason.
    virtual void OnEnd() = 0;

    Loop &GetLoop() { return loop_; }

private:
    void OnReady(uint32_t events) final;
    void ReadSome(bool peerEnded);
    bool BeginReading(bool peerEnded);
    ssize_t Receive(bool &drained);
    bool SendSome(std::span<const uint8_t> bytes, size_t &sent);
    void Flush();
    void Broken();
    void Watch();
    void End();

    Loop &loop_;
    const UniqueFd fd_; // open as long as this lives, so that no thread uses another's
    mutable std::mutex mutex_;
    uint64_t id_ = 0;
    bool closed_ = false;
    bool closeWhenSent_ = false;
    bool waitsToSend_ = false;
    bool reading_ = false; // a thread does, or nothing more is to be read
    bool paused_ = false;
    bool resumed_ = false;   // while Take was at work
    bool readable_ = false;  // since the last read
    bool peerEnded_ = false; // and will not say so again
    bool inFrame_ = false;
    Clock::time_point frameSince_;
    Clock::time_point lastRead_ = Clock::now();
    std::deque<std::vector<uint8_t>> unsent_;
    size_t unsentBytes_ = 0;
    size_t sentOfFirst_ = 0;
    Clock::time_point unsentSince_;
    std::atomic<bool> ended_ = false;
    // The reading thread's.
    FrameParser parser_;
    std::vector<Frame> frames_;
    std::array<uint8_t, 16384> scratch_;
};

} // namespace host
