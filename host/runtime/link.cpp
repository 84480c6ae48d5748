#include "host/runtime/link.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cassert>
#include <cerrno>

namespace host {
namespace {

// What is read of a large frame before it is another connection's turn.
constexpr size_t kTurnBytes = 256 << 10;

} // namespace

void ReaderRole::Enter() {
    if (owner_.exchange(std::this_thread::get_id(), std::memory_order_relaxed) != std::thread::id()) {
        RefuseMove("reader", 0, "another thread's", "this thread's");
    }
}

void ReaderRole::Leave() {
    if (owner_.exchange(std::thread::id(), std::memory_order_relaxed) != std::this_thread::get_id()) {
        RefuseMove("reader", 0, "another thread's", "nobody's");
    }
}

Link::Link(Loop &loop, Descriptor fd, uint32_t payloadLimit)
    : loop_(loop), fd_(std::move(fd)), lastRead_(loop.Now()), parser_(payloadLimit) {}

// --- The state

void Link::SetState(LinkState state) {
    kLinkStates.Check(id_, state_, state);
    state_ = state;
}

bool Link::IsReading() const {
    return state_ == LinkState::kReading || state_ == LinkState::kReadingMore;
}

bool Link::IsClosed() const {
    return state_ == LinkState::kClosed || state_ == LinkState::kEnded;
}

bool Link::Open() {
    const MutexLock lock(mutex_);
    if (!loop_.Add(fd_.Fd(), EPOLLIN | EPOLLRDHUP, weak_from_this(), id_)) {
        return false;
    }
    SetState(LinkState::kWaiting);
    return true;
}

// What the loop is to report, and at once what is so already.
void Link::Watch() {
    if (state_ != LinkState::kNew && !IsClosed()) {
        loop_.Change(fd_.Fd(), EPOLLIN | EPOLLRDHUP | (unsent_.empty() ? 0U : EPOLLOUT), id_);
    }
}

void Link::OnReady(uint32_t events) {
    const bool hungUp = (events & (EPOLLHUP | EPOLLERR)) != 0;
    if ((events & EPOLLOUT) != 0) {
        const MutexLock lock(mutex_);
        Flush();
    }
    if ((events & ~uint32_t{EPOLLOUT}) != 0 && BeginReading(hungUp || (events & EPOLLRDHUP) != 0)) {
        Read();
    }
    if (hungUp) {
        OnHangup();
    }
}

// The peer takes no answers. Where nothing is read, nothing else would tell.
void Link::OnHangup() {
    const MutexLock lock(mutex_);
    if (state_ == LinkState::kPaused || state_ == LinkState::kDraining) {
        CloseNow();
    }
}

void Link::Close() {
    const MutexLock lock(mutex_);
    if (!IsClosed()) {
        CloseNow();
    }
}

// The descriptor stays open until no thread can be using it.
void Link::CloseNow() {
    SetState(LinkState::kClosed);
    DropUnsent();
    loop_.Remove(fd_.Fd(), id_);
    shutdown(fd_.Fd(), SHUT_RDWR);
    loop_.Post([self = shared_from_this()] { self->End(); });
}

void Link::CloseWhenSent() {
    const MutexLock lock(mutex_);
    if (IsClosed() || state_ == LinkState::kDraining) {
        return;
    }
    SetState(LinkState::kDraining);
    if (unsent_.empty()) {
        CloseNow();
    }
}

// A thread that still reads does it when it is through.
void Link::End() {
    {
        const MutexLock lock(mutex_);
        if (state_ != LinkState::kClosed || reader_.IsTaken()) {
            return;
        }
        SetState(LinkState::kEnded);
    }
    OnEnd();
}

Link::Progress Link::GetProgress() const {
    const MutexLock lock(mutex_);
    const bool owesFrame = state_ != LinkState::kPaused; // else it is not the peer's fault
    return {state_ == LinkState::kDraining || IsClosed(), owesFrame ? frameSince_ : std::nullopt, unsentBytes_,
            unsentSince_, lastRead_};
}

// --- Reading

// False when it is not the time, or another thread reads, which is told that there is more.
bool Link::BeginReading(bool peerEnded) {
    const MutexLock lock(mutex_);
    if (state_ == LinkState::kReading) {
        SetState(LinkState::kReadingMore);
    }
    if (state_ != LinkState::kWaiting) {
        return false;
    }
    SetState(peerEnded ? LinkState::kReadingMore : LinkState::kReading); // the end is reported once only
    reader_.Enter();
    return true;
}

void Link::Read() {
    bool drained = true;
    Arrival arrival = Arrival::kEnd;
    Confine([&]() TARN_REQUIRES(reader_) { arrival = ReadFrames(drained); });
    EndReading(arrival, drained);
    End(); // when it was closed meanwhile
    if (arrival == Arrival::kFrames) {
        Confine([this] { Process(); });
    }
}

Link::Arrival Link::ReadFrames(bool &drained) {
    size_t received = 0;
    Arrival arrival;
    do {
        arrival = Receive(received, drained);
    } while (arrival == Arrival::kPart && MayReadFurther(drained) && (drained || received < kTurnBytes));
    if (arrival == Arrival::kFrames) {
        Take(frames_, loop_.Now());
        frames_.clear();
        if (parser_.ErrCode() != 0) {
            OnBad(parser_);
        }
    } else if (arrival == Arrival::kEnd) {
        Close();
    }
    return arrival;
}

Link::Arrival Link::Receive(size_t &received, bool &drained) {
    const std::span<uint8_t> room = parser_.Room();
    const std::span<uint8_t> to = room.empty() ? std::span<uint8_t>(scratch_) : room;
    ssize_t count;
    do {
        count = recv(fd_.Fd(), to.data(), to.size(), MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        drained = true;
        return count < 0 && errno == EAGAIN ? Arrival::kPart : Arrival::kEnd;
    }
    const auto size = static_cast<size_t>(count);
    drained = size < to.size();
    received += size;
    if (room.empty()) {
        Parse(to.first(size));
    } else {
        parser_.Filled(size);
        Parse({});
    }
    return frames_.empty() && parser_.ErrCode() == 0 ? Arrival::kPart : Arrival::kFrames;
}

void Link::Parse(std::span<const uint8_t> bytes) {
    while (true) {
        if (parser_.IsNewHeader() && !KeepsPayload(parser_.Header())) {
            parser_.DropPayload();
        }
        if (parser_.HasFrame()) {
            frames_.push_back(parser_.Take());
        }
        if (bytes.empty() || parser_.ErrCode() != 0) {
            return;
        }
        bytes = bytes.subspan(parser_.Feed(bytes));
    }
}

// Of a frame that has not arrived whole.
bool Link::MayReadFurther(bool drained) {
    const MutexLock lock(mutex_);
    NoteRead(frameSince_.value_or(loop_.Now()));
    if (!drained) {
        return IsReading();
    }
    if (state_ != LinkState::kReadingMore) {
        return false;
    }
    SetState(LinkState::kReading);
    return true;
}

void Link::NoteRead(Clock::time_point frameSince) {
    lastRead_ = loop_.Now();
    frameSince_ = parser_.AtStart() ? std::nullopt : std::optional(frameSince);
}

void Link::EndReading(Arrival arrival, bool drained) {
    const MutexLock lock(mutex_);
    if (arrival == Arrival::kFrames) {
        NoteRead(loop_.Now());
    }
    assert(parser_.ErrCode() == 0 || !IsReading());
    reader_.Leave();
    if (IsReading()) {
        const bool more = !drained || state_ == LinkState::kReadingMore;
        SetState(MayRead() ? LinkState::kWaiting : LinkState::kPaused);
        if (more) {
            Watch();
        }
    }
}

void Link::ReadOn() {
    const MutexLock lock(mutex_);
    if (state_ == LinkState::kPaused) {
        SetState(LinkState::kWaiting);
        frameSince_ = frameSince_.has_value() ? std::optional(loop_.Now()) : std::nullopt;
        Watch();
    }
}

// --- Sending

bool Link::Send(std::span<const uint8_t> bytes) {
    const MutexLock lock(mutex_);
    if (IsClosed()) {
        return false;
    }
    size_t sent = 0;
    if (unsent_.empty() && !SendSome(bytes, sent)) {
        BreakOff();
        return true;
    }
    if (sent == bytes.size()) {
        return true;
    }
    const bool first = unsent_.empty();
    const size_t unsent = unsentBytes_ + bytes.size() - sent;
    if (!MayQueue(unsent)) {
        CloseNow();
        return false;
    }
    unsentSince_ = first ? loop_.Now() : unsentSince_;
    unsent_.emplace_back(bytes.begin() + static_cast<ptrdiff_t>(sent), bytes.end());
    unsentBytes_ = unsent;
    if (first) {
        Watch();
    }
    return true;
}

// As much as the socket takes. False when the peer has gone.
bool Link::SendSome(std::span<const uint8_t> bytes, size_t &sent) {
    while (sent < bytes.size()) {
        const ssize_t count = send(fd_.Fd(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EAGAIN) {
            return true;
        }
        if (count < 0 && errno != EINTR) {
            return false;
        }
        sent += count < 0 ? 0 : static_cast<size_t>(count);
    }
    return true;
}

void Link::Flush() {
    while (!unsent_.empty()) {
        const std::vector<uint8_t> &first = unsent_.front();
        const size_t before = sentOfFirst_;
        if (!SendSome(first, sentOfFirst_)) {
            BreakOff();
            return;
        }
        unsentBytes_ -= sentOfFirst_ - before;
        MayQueue(unsentBytes_);
        if (sentOfFirst_ < first.size()) {
            Watch();
            return;
        }
        unsent_.pop_front();
        sentOfFirst_ = 0;
        unsentSince_ = loop_.Now();
    }
    if (state_ == LinkState::kDraining) {
        CloseNow();
    }
}

void Link::DropUnsent() {
    unsent_.clear();
    unsentBytes_ = sentOfFirst_ = 0;
    MayQueue(0);
}

// The peer takes nothing more. What it sent before is still read, up to its end.
void Link::BreakOff() {
    DropUnsent();
    if (state_ == LinkState::kDraining) {
        CloseNow();
    } else {
        shutdown(fd_.Fd(), SHUT_RDWR);
        Watch();
    }
}

bool Link::HasUnsent() const {
    const MutexLock lock(mutex_);
    return !unsent_.empty();
}

} // namespace host
