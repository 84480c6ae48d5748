#include "host/runtime/link.h"

#include <sys/socket.h>

#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <cerrno>

namespace host {
namespace {

asio::generic::stream_protocol ProtocolOf(int fd) {
    int domain = AF_UNIX;
    socklen_t size = sizeof domain;
    getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size);
    return {domain, 0};
}

} // namespace

Link::Link(asio::io_context &io, UniqueFd fd, uint32_t payloadLimit) : io_(io), socket_(io), parser_(payloadLimit) {
    socket_.assign(ProtocolOf(fd.Get()), fd.Get());
    fd.Release();
}

void Link::Read() {
    const std::lock_guard lock(mutex_);
    if (closed_) {
        return;
    }
    const std::span<uint8_t> room = parser_.Room();
    const bool intoRoom = !room.empty();
    const auto buffer = intoRoom ? asio::buffer(room.data(), room.size()) : asio::buffer(scratch_);
    socket_.async_read_some(buffer, [self = shared_from_this(), intoRoom](std::error_code error, size_t count) {
        self->OnRead(static_cast<bool>(error), count, intoRoom);
    });
}

void Link::OnRead(bool failed, size_t count, bool intoRoom) {
    if (failed) {
        Close();
        End();
        return;
    }
    std::vector<Frame> frames;
    std::span<const uint8_t> bytes(scratch_.data(), count);
    if (intoRoom) {
        parser_.Filled(count);
        bytes = {};
    }
    while (true) {
        if (parser_.HasFrame()) {
            frames.push_back(parser_.Take());
        }
        if (bytes.empty() || parser_.ErrCode() != 0) {
            break;
        }
        bytes = bytes.subspan(parser_.Feed(bytes));
    }
    const bool more = Take(std::move(frames));
    if (parser_.ErrCode() != 0) {
        OnBad(parser_);
    } else if (more) {
        Read();
    }
    Process();
}

bool Link::Send(std::vector<uint8_t> bytes) {
    const std::lock_guard lock(mutex_);
    if (closed_) {
        return false;
    }
    unsent_.push_back(std::move(bytes));
    if (!waitsToSend_) {
        Flush();
    }
    return true;
}

// With the mutex held.
void Link::Flush() {
    while (!unsent_.empty()) {
        const std::vector<uint8_t> &first = unsent_.front();
        const ssize_t sent = send(socket_.native_handle(), first.data() + sentOfFirst_, first.size() - sentOfFirst_,
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent < 0 && errno == EAGAIN) {
            waitsToSend_ = true;
            socket_.async_wait(asio::socket_base::wait_write, [self = shared_from_this()](std::error_code error) {
                const std::lock_guard again(self->mutex_);
                self->waitsToSend_ = false;
                if (!error && !self->closed_) {
                    self->Flush();
                }
            });
            return;
        }
        if (sent < 0) {
            unsent_.clear();
            closeWhenSent_ = true;
            break;
        }
        sentOfFirst_ += static_cast<size_t>(sent);
        if (sentOfFirst_ == first.size()) {
            unsent_.pop_front();
            sentOfFirst_ = 0;
        }
    }
    if (closeWhenSent_) {
        asio::post(io_, [self = shared_from_this()] { self->Close(); });
    }
}

void Link::Close() {
    {
        const std::lock_guard lock(mutex_);
        if (closed_) {
            return;
        }
        closed_ = true;
        unsent_.clear();
        std::error_code ignored;
        socket_.close(ignored);
    }
    asio::post(io_, [self = shared_from_this()] { self->End(); });
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

void Link::End() {
    if (!ended_.exchange(true)) {
        OnEnd();
    }
}

} // namespace host
