#include "host/runtime/channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace host {

// Its process or the connection has ended, or something has come that nobody asked for.
bool Channel::HasEnded() const {
    if (!process_) {
        return false;
    }
    pollfd ends[] = {{process_.Fd(), POLLIN, 0}, {fd_.Fd(), POLLIN | POLLRDHUP, 0}};
    return poll(ends, 2, 0) != 0;
}

// 0 when the socket is ready or has failed, or ETIMEDOUT.
int Channel::Wait(short events, Transport::Clock::time_point deadline) const {
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Transport::Clock::now()).count();
        pollfd waiting{fd_.Fd(), events, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX)));
        if (ready > 0) {
            return 0;
        }
        if (ready == 0 && left <= 0) {
            return ETIMEDOUT;
        }
        if (ready < 0 && errno != EINTR) {
            return errno;
        }
    }
}

// What send returns.
ssize_t Channel::SendSome(std::span<const uint8_t> header, std::span<const uint8_t> payload) const {
    constexpr int kFlags = MSG_NOSIGNAL | MSG_DONTWAIT;
    if (payload.empty()) {
        return send(fd_.Fd(), header.data(), header.size(), kFlags);
    }
    iovec parts[] = {{const_cast<uint8_t *>(header.data()), header.size()},
                     {const_cast<uint8_t *>(payload.data()), payload.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    return sendmsg(fd_.Fd(), &message, kFlags);
}

int Channel::Send(std::span<const uint8_t> header, std::span<const uint8_t> payload,
                  Transport::Clock::time_point deadline) {
    uint8_t small[1024]; // which send takes faster than sendmsg its parts
    if (header.size() + payload.size() <= sizeof small) {
        std::copy(payload.begin(), payload.end(), std::copy(header.begin(), header.end(), small));
        header = std::span(small).first(header.size() + payload.size());
        payload = {};
    }
    while (!header.empty() || !payload.empty()) {
        const ssize_t sent = SendSome(header, payload);
        if (sent < 0 && errno == EAGAIN) {
            if (const int error = Wait(POLLOUT, deadline); error != 0) {
                return error;
            }
        } else if (sent < 0 && errno != EINTR) {
            return ECONNRESET;
        } else if (sent > 0) {
            const size_t ofHeader = std::min(static_cast<size_t>(sent), header.size());
            header = header.subspan(ofHeader);
            payload = payload.subspan(static_cast<size_t>(sent) - ofHeader);
        }
    }
    return 0;
}

// Calls mostly have the same deadline, so mostly the socket has the timeout already.
void Channel::SetReadTimeout(std::chrono::milliseconds timeout) {
    constexpr std::chrono::milliseconds kClose(2);
    if (readTimeout_ >= timeout && readTimeout_ <= timeout + kClose) {
        return;
    }
    const timeval value = {timeout.count() / 1000, timeout.count() % 1000 * 1000};
    setsockopt(fd_.Fd(), SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
    readTimeout_ = timeout;
}

// Waits in recv, which is cheaper than poll before it, but keeps its timeout less well: the last of it is poll's.
int Channel::ReadSome(Transport::Clock::time_point deadline, std::span<uint8_t> to, size_t &count) {
    constexpr std::chrono::milliseconds kLast(15);
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Transport::Clock::now());
        const bool last = left <= kLast;
        if (!last) {
            SetReadTimeout(left - kLast);
        } else if (const int error = Wait(POLLIN, deadline); error != 0) {
            return error;
        }
        const ssize_t received = recv(fd_.Fd(), to.data(), to.size(), last ? MSG_DONTWAIT : 0);
        if (received > 0) {
            count = static_cast<size_t>(received);
            return 0;
        }
        if (received == 0 || (errno != EINTR && errno != EAGAIN)) {
            return ECONNRESET;
        }
    }
}

int Channel::Receive(uint64_t id, Frame &frame, Transport::Clock::time_point deadline, std::string &reason) {
    uint8_t scratch[16384];
    while (true) {
        const std::span<uint8_t> room = parser_.Room();
        size_t count = 0;
        if (const int error = ReadSome(deadline, room.empty() ? std::span<uint8_t>(scratch) : room, count);
            error != 0) {
            return error;
        }
        std::span<const uint8_t> bytes(scratch, count);
        if (!room.empty()) {
            parser_.Filled(count);
            bytes = {};
        }
        bool found = false;
        do {
            bytes = bytes.subspan(parser_.Feed(bytes));
            if (parser_.ErrCode() != 0) {
                reason = parser_.Reason();
                return static_cast<int>(parser_.ErrCode());
            }
            if (parser_.HasFrame()) {
                Frame next = parser_.Take();
                if (next.header.id == id || (next.header.id == 0 && next.header.kind == FrameKind::kError)) {
                    frame = std::move(next);
                    found = true;
                }
            }
        } while (!bytes.empty());
        if (found) {
            return 0;
        }
    }
}

} // namespace host
