#include "host/runtime/link.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>

namespace host {

Link::Link(Loop &loop, UniqueFd fd, uint32_t payloadLimit) : loop_(loop), fd_(std::move(fd)), parser_(payloadLimit) {}

bool Link::Open() {
    const std::lock_guard lock(mutex_);
    return loop_.Add(fd_.Get(), EPOLLIN | EPOLLRDHUP, weak_from_this(), id_);
}

// With the mutex held: what the loop is to report, and at once what is so already.
void Link::Watch() {
    if (!closed_) {
        loop_.Change(fd_.Get(), EPOLLIN | EPOLLRDHUP | (waitsToSend_ ? EPOLLOUT : 0U), id_);
    }
}

void Link::OnReady(uint32_t events) {
    if ((events & EPOLLOUT) != 0) {
        const std::lock_guard lock(mutex_);
        if (waitsToSend_ && !closed_) {
            waitsToSend_ = false;
            Flush();
        }
    }
    if ((events & ~uint32_t{EPOLLOUT}) != 0) {
        ReadSome((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0);
    }
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
        bool dead; // takes no answers, and there is no room for what it sent before
        {
            const std::lock_guard lock(mutex_);
            dead = paused_;
        }
        if (dead) {
            Close();
        }
    }
}

// False when another thread reads, which then sees that there is more, or when it is not the time.
bool Link::BeginReading(bool peerEnded) {
    const std::lock_guard lock(mutex_);
    peerEnded_ = peerEnded_ || peerEnded;
    readable_ = true;
    if (closed_ || reading_ || paused_) {
        return false;
    }
    reading_ = true;
    readable_ = false;
    resumed_ = false;
    return true;
}

// Returns what recv does.
ssize_t Link::Receive(bool &drained) {
    const std::span<uint8_t> room = parser_.Room();
    const std::span<uint8_t> to = room.empty() ? std::span<uint8_t>(scratch_) : room;
    const ssize_t count = recv(fd_.Get(), to.data(), to.size(), MSG_DONTWAIT);
    if (count <= 0) {
        return count;
    }
    drained = static_cast<size_t>(count) < to.size();
    std::span<const uint8_t> bytes(scratch_.data(), static_cast<size_t>(count));
    if (!room.empty()) {
        parser_.Filled(static_cast<size_t>(count));
        bytes = {};
    }
    while (true) {
        if (parser_.HasFrame()) {
            frames_.push_back(parser_.Take());
        }
        if (bytes.empty() || parser_.ErrCode() != 0) {
            return count;
        }
        bytes = bytes.subspan(parser_.Feed(bytes));
    }
}

void Link::ReadSome(bool peerEnded) {
    if (!BeginReading(peerEnded)) {
        return;
    }
    bool drained = true;
    while (true) {
        const ssize_t count = Receive(drained);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count == 0 || (count < 0 && errno != EAGAIN)) {
            Close();
            End();
            return;
        }
        if (!frames_.empty() || parser_.ErrCode() != 0) {
            break;
        }
        const std::lock_guard lock(mutex_);
        lastRead_ = Clock::now();
        frameSince_ = inFrame_ ? frameSince_ : lastRead_;
        inFrame_ = !parser_.AtStart();
        const bool more = count < 0 ? readable_ : !drained || readable_ || peerEnded_;
        if (!more) {
            reading_ = false;
            return;
        }
        readable_ = false;
    }
    const auto now = Clock::now();
    const bool more = Take(frames_, now);
    frames_.clear();
    if (parser_.ErrCode() != 0) {
        OnBad(parser_);
    } else {
        const std::lock_guard lock(mutex_);
        lastRead_ = frameSince_ = now;
        inFrame_ = !parser_.AtStart();
        reading_ = false;
        paused_ = !more && !resumed_;
        readable_ = readable_ || !drained || peerEnded_;
        if (readable_ && !paused_) {
            Watch();
        }
    }
    Process();
}

void Link::ReadOn() {
    const std::lock_guard lock(mutex_);
    paused_ = false;
    resumed_ = true;
    frameSince_ = Clock::now();
    Watch();
}

bool Link::Send(std::span<const uint8_t> bytes) {
    {
        const std::lock_guard lock(mutex_);
        if (closed_) {
            return false;
        }
        size_t sent = 0;
        if (unsent_.empty() && !SendSome(bytes, sent)) {
            Broken();
            return true;
        }
        if (sent == bytes.size()) {
            return true;
        }
        if (unsent_.empty() || MayQueue(unsentBytes_ + bytes.size())) {
            unsentSince_ = unsent_.empty() ? Clock::now() : unsentSince_;
            unsent_.emplace_back(bytes.begin() + static_cast<ptrdiff_t>(sent), bytes.end());
            unsentBytes_ += bytes.size() - sent;
            if (!waitsToSend_) {
                waitsToSend_ = true;
                Watch();
            }
            return true;
        }
    }
    Close();
    return false;
}

// As much as the socket takes. False when the peer has gone.
bool Link::SendSome(std::span<const uint8_t> bytes, size_t &sent) {
    while (sent < bytes.size()) {
        const ssize_t count = send(fd_.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
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

// With the mutex held.
void Link::Flush() {
    while (!unsent_.empty()) {
        const std::vector<uint8_t> &first = unsent_.front();
        const size_t before = sentOfFirst_;
        if (!SendSome(first, sentOfFirst_)) {
            Broken();
            return;
        }
        unsentBytes_ -= sentOfFirst_ - before;
        if (sentOfFirst_ < first.size()) {
            waitsToSend_ = true;
            Watch();
            return;
        }
        unsent_.pop_front();
        sentOfFirst_ = 0;
        unsentSince_ = Clock::now();
    }
    if (closeWhenSent_) {
        loop_.Post([self = shared_from_this()] { self->Close(); });
    }
}

// With the mutex held.
void Link::Broken() {
    unsent_.clear();
    unsentBytes_ = 0;
    closeWhenSent_ = true;
    loop_.Post([self = shared_from_this()] { self->Close(); });
}

// The descriptor stays open until no thread can be using it.
void Link::Close() {
    {
        const std::lock_guard lock(mutex_);
        if (closed_) {
            return;
        }
        closed_ = true;
        unsent_.clear();
        unsentBytes_ = 0;
        loop_.Remove(fd_.Get(), id_);
        shutdown(fd_.Get(), SHUT_RDWR);
    }
    loop_.Post([self = shared_from_this()] { self->End(); });
}

void Link::CloseWhenSent() {
    const std::lock_guard lock(mutex_);
    closeWhenSent_ = true;
    if (!closed_ && !waitsToSend_) {
        Flush();
    }
}

bool Link::Unsent() const {
    const std::lock_guard lock(mutex_);
    return !unsent_.empty();
}

Link::State Link::GetState() const {
    const std::lock_guard lock(mutex_);
    return {closed_ || closeWhenSent_, inFrame_ && !paused_, frameSince_, unsentBytes_, unsentSince_, lastRead_};
}

void Link::End() {
    if (!ended_.exchange(true)) {
        OnEnd();
    }
}

} // namespace host
