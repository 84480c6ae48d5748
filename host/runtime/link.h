// A connection that carries frames both ways, driven by a loop. It is a state machine (link_states.h): at any time at
// most one thread reads, which owns the parser and calls what the side above overrides; what other threads want of it
// they say by moving the state, and the reader acts on it when it is through.
#pragma once

#include <array>
#include <atomic>
#include <deque>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "host/osal/mutex.h"
#include "host/runtime/link_states.h"
#include "host/runtime/loop.h"
#include "host/runtime/protocol.h"
#include "host/runtime/transport.h"

namespace host {

// That a thread is the one that reads. To enter or leave out of turn is a defect, and ends the program.
class TARN_CAPABILITY("role") ReaderRole {
public:
    void Enter() TARN_ACQUIRE();
    void Leave() TARN_RELEASE();
    bool IsTaken() const { return owner_ != std::thread::id(); }

private:
    std::atomic<std::thread::id> owner_;
};

// A side derives from it. All functions are thread-safe.
class Link : public Pollable, public std::enable_shared_from_this<Link> {
public:
    using Clock = Loop::Clock;

    Link(Loop &loop, Descriptor fd, uint32_t payloadLimit);
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    // Once: begins to read. False when the system refuses, with errno set.
    bool Open() TARN_EXCLUDES(mutex_);

    // MayRead has come true again.
    void ReadOn() TARN_EXCLUDES(mutex_);

    // Sends now what the socket takes, the rest when it takes more. False when the link is closed.
    bool Send(std::span<const uint8_t> bytes) TARN_EXCLUDES(mutex_);

    // Does what the peer has caused. Where there is no memory for it, the connection ends, and nothing else.
    template <class Work>
    void Confine(const Work &work) TARN_NO_THREAD_SAFETY_ANALYSIS {
        try {
            work();
        } catch (const std::bad_alloc &) {
            OnNoMemory();
        }
    }

    void Close() TARN_EXCLUDES(mutex_);
    void CloseWhenSent() TARN_EXCLUDES(mutex_);
    bool HasUnsent() const TARN_EXCLUDES(mutex_);

protected:
    // What either side waits for, for limits.
    struct Progress {
        bool isEnding;                               // reads no more
        std::optional<Clock::time_point> frameSince; // the peer owes the rest of a frame since then
        size_t unsentBytes;
        Clock::time_point unsentSince; // of the first message
        Clock::time_point lastRead;
    };
    Progress GetProgress() const TARN_EXCLUDES(mutex_);

    // --- Called by the reading thread

    // Of each frame's header, before its payload is taken: whether that is to be kept, or the frame comes without it.
    virtual bool KeepsPayload(const FrameHeader &) { return true; }
    // Takes the frames of one read, which came at that moment.
    virtual void Take(std::span<Frame> frames, Clock::time_point now) = 0;
    // The peer sent what is no frame, or one too large. Closes the link, at once or when all is sent.
    virtual void OnBad(const FrameParser &parser) = 0;

    // --- Called with the link locked, so they must not call it

    // Whether the frames of another read may be taken.
    virtual bool MayRead() TARN_REQUIRES(mutex_) { return true; }
    // So much is to be unsent: whether it may. Less always may.
    virtual bool MayQueue(size_t) TARN_REQUIRES(mutex_) { return true; }

    // --- Called with nothing held

    // After each Take, when another thread may read.
    virtual void Process() {}
    // Once, when the connection has ended for whatever reason, and nobody reads any more.
    virtual void OnEnd() = 0;
    // There was no memory for what the peer has caused. Closes the link.
    virtual void OnNoMemory() { Close(); }

    // Tells of the end if that was not possible when it came.
    void End() TARN_EXCLUDES(mutex_);

    Loop &GetLoop() const { return loop_; }
    int Socket() const { return fd_.Fd(); }

private:
    // Of a read: a frame or what can't be one, less than a frame or nothing, the end of the connection.
    enum class Arrival { kFrames, kPart, kEnd };

    void OnReady(uint32_t events) final TARN_EXCLUDES(mutex_);
    void OnHangup() TARN_EXCLUDES(mutex_);
    void SetState(LinkState state) TARN_REQUIRES(mutex_);
    bool IsReading() const TARN_REQUIRES(mutex_);
    bool IsClosed() const TARN_REQUIRES(mutex_);
    void Watch() TARN_REQUIRES(mutex_);
    void CloseNow() TARN_REQUIRES(mutex_);

    bool BeginReading(bool peerEnded) TARN_EXCLUDES(mutex_) TARN_TRY_ACQUIRE(true, reader_);
    void Read() TARN_RELEASE(reader_) TARN_EXCLUDES(mutex_);
    Arrival ReadFrames(bool &drained) TARN_REQUIRES(reader_) TARN_EXCLUDES(mutex_);
    Arrival Receive(size_t &received, bool &drained) TARN_REQUIRES(reader_);
    void Parse(std::span<const uint8_t> bytes) TARN_REQUIRES(reader_);
    bool MayReadFurther(bool drained) TARN_REQUIRES(reader_) TARN_EXCLUDES(mutex_);
    void NoteRead(Clock::time_point frameSince) TARN_REQUIRES(reader_, mutex_);
    void EndReading(Arrival arrival, bool drained) TARN_RELEASE(reader_) TARN_EXCLUDES(mutex_);

    bool SendSome(std::span<const uint8_t> bytes, size_t &sent);
    void Flush() TARN_REQUIRES(mutex_);
    void DropUnsent() TARN_REQUIRES(mutex_);
    void BreakOff() TARN_REQUIRES(mutex_);

    Loop &loop_;
    const Descriptor fd_; // open as long as this lives, so that no thread uses another's
    mutable Mutex mutex_;
    LinkState state_ TARN_GUARDED_BY(mutex_) = LinkState::kNew;
    uint64_t id_ TARN_GUARDED_BY(mutex_) = 0; // in the loop
    std::optional<Clock::time_point> frameSince_ TARN_GUARDED_BY(mutex_);
    Clock::time_point lastRead_ TARN_GUARDED_BY(mutex_);
    std::deque<std::vector<uint8_t>> unsent_ TARN_GUARDED_BY(mutex_);
    size_t unsentBytes_ TARN_GUARDED_BY(mutex_) = 0;
    size_t sentOfFirst_ TARN_GUARDED_BY(mutex_) = 0;
    Clock::time_point unsentSince_ TARN_GUARDED_BY(mutex_);

    ReaderRole reader_;
    FrameParser parser_ TARN_GUARDED_BY(reader_);
    std::vector<Frame> frames_ TARN_GUARDED_BY(reader_);
    std::array<uint8_t, 16384> scratch_ TARN_GUARDED_BY(reader_);
};

} // namespace host
